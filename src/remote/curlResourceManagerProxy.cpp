#include "remote/curlResourceManagerProxy.h"

#include <boost/numeric/conversion/converter_policies.hpp>

#include <cstdint>
#include <utility>

#include "errors/exception.h"
#include "json/jsonKeyGetters.h"
#include "remote/hostCheck.h"
#include "remote/httpRequests.h"

namespace zt {
namespace syncdomain {

namespace {

constexpr const char* kFile = "source\\ztsyncdomain\\curlResourceManagerProxy";
constexpr const char* kDebug = "ztsyncdomain_debug";
constexpr const char* kResources = "resources/";
constexpr const char* kDeviceType = "syncableDevices";
constexpr const char* kTimescaleType = "timescales";

bool startsWith(const std::string& text, std::size_t at, const std::string& head) {
    return text.compare(at, head.size(), head) == 0;
}

// The listing's "version", or 0 when absent, null or not a 32-bit unsigned number.
std::uint32_t listingVersion(const std::string& json) {
    std::uint32_t version = 0;
    try {
        ztsynctools::getUInt32FromJsonString(json, "version", version);
    } catch (const zterr::Exception& e) {
        if (e.code() != zterr::code::errCode) throw;
        return 0;
    } catch (const boost::numeric::bad_numeric_cast&) {
        return 0;
    }
    return version;
}

}  // namespace

std::string httpHostOf(const std::string& remoteHost) {
    const std::size_t first = remoteHost.find(':');
    const bool bareIpv6 = first != std::string::npos && remoteHost.find(':', first + 1) != std::string::npos &&
                          remoteHost.front() != '[';
    return bareIpv6 ? "[" + remoteHost + "]" : remoteHost;
}

ResourceListing parseResourceListing(const std::string& listingJson, const std::string& remoteHost) {
    if (listingVersion(listingJson) != 1) {
        zterr::raise(ZTERR_SITE(kFile, zterr::name::ztapalerr_invalidParameter),
                     zterr::code::ztapalerr_invalidParameter, kDebug,
                     {{"message", "Sync Domain API version in JSON response from chassis missing or incorrect."},
                      {"remoteHost", remoteHost}});
    }

    std::vector<std::string> resources;
    if (!ztsynctools::getObjectArrayFromJsonString(listingJson, "resources", resources)) {
        zterr::raise(ZTERR_SITE(kFile, zterr::name::ztapalerr_resourceNotFound),
                     zterr::code::ztapalerr_resourceNotFound, kDebug,
                     {{"message", "Error parsing 'resources' key from JSON response."}});
    }

    ResourceListing listing;
    for (const std::string& resource : resources) {
        std::string uri;
        ztsynctools::getStringFromJsonString(resource, "uri", uri);
        if (uri.empty()) {
            zterr::raise(ZTERR_SITE(kFile, zterr::name::ztapalerr_invalidParameter),
                         zterr::code::ztapalerr_invalidParameter, kDebug,
                         {{"message", "Error parsing 'uri' key from resource JSON array element."},
                          {"resource", resource}});
        }
        std::string type;
        ztsynctools::getStringFromJsonString(resource, "resourceType", type);
        if (type == kDeviceType) {
            listing.syncableDevices.push_back(std::move(uri));
        } else if (type == kTimescaleType) {
            listing.timescales.push_back(std::move(uri));
        } else {
            zterr::raise(ZTERR_SITE(kFile, zterr::name::ztapalerr_invalidParameter),
                         zterr::code::ztapalerr_invalidParameter, kDebug,
                         {{"message", "ResourceType in one of the resources returned from chassis is missing or invalid."},
                          {"resourceType", type},
                          {"expectedType1", kDeviceType},
                          {"expectedType2", kTimescaleType},
                          {"resource", resource}});
        }
    }
    return listing;
}

class CurlResourceManagerProxy::Lease {
public:
    explicit Lease(CurlResourceManagerProxy& owner) : owner(owner) {
        {
            std::lock_guard<std::mutex> lock(owner.idleMutex_);
            if (!owner.idle_.empty()) {
                client = std::move(owner.idle_.back());
                owner.idle_.pop_back();
            }
        }
        if (!client) client = owner.makeClient();
        client->setTimeoutInMS(owner.timeoutInMS_.load());
    }
    ~Lease() {
        std::lock_guard<std::mutex> lock(owner.idleMutex_);
        if (owner.idle_.size() < kMaxIdleClients) owner.idle_.push_back(std::move(client));
    }
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;

    zt::vela::shared::tCURL& operator*() { return *client; }

private:
    CurlResourceManagerProxy& owner;
    std::unique_ptr<zt::vela::shared::tCURL> client;
};

CurlResourceManagerProxy::CurlResourceManagerProxy(std::string remoteHost, unsigned timeoutInMS,
                                                   zt::vela::shared::CurlApiSource source)
    : remoteHost_(std::move(remoteHost)),
      prefix_("http://" + httpHostOf(remoteHost_) + "/" + kWebServiceName),
      source_(source),
      timeoutInMS_(timeoutInMS) {
    checkRemoteHost(remoteHost_, "remoteHost");
    idle_.push_back(makeClient());
}

CurlResourceManagerProxy::~CurlResourceManagerProxy() = default;

std::unique_ptr<zt::vela::shared::tCURL> CurlResourceManagerProxy::makeClient() const {
    auto client = std::make_unique<zt::vela::shared::tCURL>(kSyncDomainMediaType, source_);
    client->initialize(prefix_, kResources);
    return client;
}

std::size_t CurlResourceManagerProxy::idleClientCount() const {
    std::lock_guard<std::mutex> lock(idleMutex_);
    return idle_.size();
}

std::string CurlResourceManagerProxy::resourceUriOf(const std::string& resourcePath) {
    std::size_t at = 0;
    if (startsWith(resourcePath, at, "/")) ++at;
    const std::string service = std::string(kWebServiceName) + "/";
    if (startsWith(resourcePath, at, service)) at += service.size();
    const std::size_t qualifierAt = at + std::char_traits<char>::length(kResources);
    const bool named = startsWith(resourcePath, at, kResources) && resourcePath.size() > qualifierAt &&
                       resourcePath[qualifierAt] != '/';
    if (!named) {
        zterr::raise(ZTERR_SITE(kFile, zterr::name::ztapalerr_invalidParameter),
                     zterr::code::ztapalerr_invalidParameter, kDebug,
                     {{"message", "Unable to retrieve 'resourceQualifier' from uri."}, {"uri", resourcePath}});
    }
    return resourcePath.substr(at);
}

std::string CurlResourceManagerProxy::listResources(const std::string& qualifier) {
    std::size_t skip = 0;
    while (skip < qualifier.size() && qualifier[skip] == '/') ++skip;
    std::string result;
    Lease client(*this);
    ztsdtools::sendGetRequest(*client, prefix_, kResources + qualifier.substr(skip), result);
    return result;
}

std::string CurlResourceManagerProxy::getResource(const std::string& resourcePath) {
    std::string result;
    const std::string resourceUri = resourceUriOf(resourcePath);
    Lease client(*this);
    ztsdtools::sendGetRequest(*client, prefix_, resourceUri, result);
    return result;
}

std::string CurlResourceManagerProxy::getTimescaleInfo(const std::string&) {
    zterr::raise(ZTERR_SITE(kFile, zterr::name::ztapalerr_featureUnsupported),
                 zterr::code::ztapalerr_featureUnsupported, kDebug,
                 {{"message", "CurlResourceManagerProxy::getTimescaleInfo is not implemented."}});
}

void CurlResourceManagerProxy::putResource(const std::string& resourcePath, const std::string& json) {
    std::string result;
    const std::string resourceUri = resourceUriOf(resourcePath);
    Lease client(*this);
    ztsdtools::sendPutRequest(*client, prefix_, resourceUri, json, result);
}

ResourceListing CurlResourceManagerProxy::fetchResourceListing() {
    return parseResourceListing(listResources(std::string()), remoteHost_);
}

}  // namespace syncdomain
}  // namespace zt
