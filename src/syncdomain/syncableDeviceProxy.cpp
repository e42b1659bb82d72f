#include "syncdomain/syncableDeviceProxy.h"

#include <cjson/cJSON.h>

#include <new>
#include <unordered_map>
#include <vector>

#include "errors/exception.h"
#include "json/cppJson.h"
#include "json/jsonChecks.h"
#include "json/jsonKeyGetters.h"
#include "remote/curlResourceManagerProxy.h"
#include "remote/hostCheck.h"
#include "remote/uriKeyParser.h"

namespace ztsdlib {
namespace {

constexpr const char* kFile = "source\\ztsdlib\\syncableDeviceProxy";
constexpr const char* kDebug = "ztsync_debug";
constexpr const char* kMissingVersion = "Remote syncable device did not specify its API version.";
constexpr const char* kUnsupportedVersion = "Remote syncable device specified an unsupported API version.";

std::string reducedTimescaleUri(const std::string& uri) {
    const std::size_t slash = uri.rfind('/');
    std::string last = slash == std::string::npos ? uri : uri.substr(slash + 1);
    for (char& c : last) {
        if (c == '-')
            c = ':';
        else if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    }
    return last;
}

}  // namespace

std::size_t Fnv1aHash::operator()(const std::string& text) const noexcept {
    std::uint64_t hash = 14695981039346656037ULL;
    for (const char c : text) {
        hash ^= static_cast<unsigned char>(c);
        hash *= 1099511628211ULL;
    }
    return static_cast<std::size_t>(hash);
}

bool sameTimescaleUri(const std::string& a, const std::string& b) {
    return reducedTimescaleUri(a) == reducedTimescaleUri(b);
}

SyncableDeviceProxy::SyncableDeviceProxy(std::string uriText)
    : SyncableDeviceProxy(std::move(uriText), zt::vela::shared::kDefaultTimeoutInMS) {}

SyncableDeviceProxy::SyncableDeviceProxy(std::string uriText, unsigned requestTimeoutInMS)
    : uri(std::move(uriText)), syncDomainUriSet(8) {
    syncDomainUriSet.max_load_factor(1.0f);
    splitUri();
    resources = std::make_unique<zt::syncdomain::CurlResourceManagerProxy>(remoteHost, requestTimeoutInMS);
}

SyncableDeviceProxy::SyncableDeviceProxy(std::string uriText,
                                         std::unique_ptr<zt::syncdomain::ResourceManagerInterface> resourceManager)
    : uri(std::move(uriText)), syncDomainUriSet(8), resources(std::move(resourceManager)) {
    syncDomainUriSet.max_load_factor(1.0f);
    splitUri();
}

SyncableDeviceProxy::~SyncableDeviceProxy() = default;

void SyncableDeviceProxy::splitUri() {
    std::unordered_map<std::string, std::string> parts;
    ztsdtools::parseUriKeys(uri, {"remoteHost", "webService", "resource", "plugin", "type", "name"}, parts);
    remoteHost = parts["remoteHost"];
    zt::syncdomain::checkRemoteHost(remoteHost, "uri", uri);
    hostUrl = "http://" + zt::syncdomain::httpHostOf(remoteHost);
    resourcePath = "/" + parts["webService"] + "/" + parts["resource"] + "/" + parts["plugin"] + "/" +
                   parts["type"] + "/" + parts["name"];
}

void SyncableDeviceProxy::setCoherencyRequirements(const std::string& jsonRequirements,
                                                   const std::string& syncDomainUri) {
    ztsdtools::validateJsonString(
        jsonRequirements, "jsonRequirements passed to setCoherencyRequirements() contains an invalid JSON string.",
        hostUrl + resourcePath);
    std::string requirements;
    if (!ztsynctools::getObjectFromJsonString(jsonRequirements, "coherencyRequirements", requirements)) {
        zterr::raise(ZTERR_SITE(kFile, zterr::name::ztapalerr_invalidParameter), zterr::code::ztapalerr_invalidParameter,
                     kDebug,
                     {{"message", "Unable to retrieve 'coherencyRequirements' key from JSON."},
                      {"JSON", jsonRequirements}});
    }
    std::uint32_t newMaxOffset_ns = 0;
    std::uint32_t newMinSyncDuration_ms = 0;
    std::string newTimescaleUri;
    if (!ztsynctools::getUInt32FromJsonString(requirements, "maxOffset_ns", newMaxOffset_ns))
        ztsdtools::throwMissingJsonKey(uri, "maxOffset_ns",
                                       "SyncableDeviceProxy: maxOffset_ns key not found in coherencyRequirements");
    if (!ztsynctools::getUInt32FromJsonString(requirements, "minSyncDuration_ms", newMinSyncDuration_ms))
        ztsdtools::throwMissingJsonKey(uri, "minSyncDuration_ms",
                                       "SyncableDeviceProxy: minSyncDuration_ms key not found in coherencyRequirements");
    if (!ztsynctools::getStringFromJsonString(requirements, "requiredTimescaleUri", newTimescaleUri))
        ztsdtools::throwMissingJsonKey(
            uri, "requiredTimescaleUri", "SyncableDeviceProxy: requiredTimescaleUri key not found in coherencyRequirements");

    {
        std::lock_guard<std::mutex> lock(requirementsMutex);
        checkAgreesWithRequirementsInForce(newMaxOffset_ns, newMinSyncDuration_ms, newTimescaleUri, syncDomainUri);
        maxOffset_ns = newMaxOffset_ns;
        minSyncDuration_ms = newMinSyncDuration_ms;
        requiredTimescaleUri = newTimescaleUri;
        ++placementsInFlight;
    }
    try {
        resources->putResource(resourcePath, jsonRequirements);
    } catch (...) {
        std::lock_guard<std::mutex> lock(requirementsMutex);
        --placementsInFlight;
        throw;
    }
    std::lock_guard<std::mutex> lock(requirementsMutex);
    --placementsInFlight;
    syncDomainUriSet.insert(syncDomainUri);
}

void SyncableDeviceProxy::checkAgreesWithRequirementsInForce(std::uint32_t newMaxOffset_ns,
                                                             std::uint32_t newMinSyncDuration_ms,
                                                             const std::string& newTimescaleUri,
                                                             const std::string& syncDomainUri) const {
    if (!syncDomainUriSet.empty() || placementsInFlight > 0) {
        const bool agree = newMaxOffset_ns == maxOffset_ns && newMinSyncDuration_ms == minSyncDuration_ms &&
                           sameTimescaleUri(newTimescaleUri, requiredTimescaleUri);
        if (!agree) {
            zterr::raise(ZTERR_SITE(kFile, zterr::name::ztsyncdomainerr_conflictingCoherencyRequirements),
                         zterr::code::ztsyncdomainerr_conflictingCoherencyRequirements, kDebug,
                         {{"message",
                           "setCoherencyRequirements() was passed requirements that conflict with the requirements of "
                           "other Sync Domains already using the syncable device."},
                          {"New SyncDomain URI", syncDomainUri},
                          {"Current maxOffset_ns", maxOffset_ns},
                          {"New maxOffset_ns", newMaxOffset_ns},
                          {"Current minSyncDuration_ms", minSyncDuration_ms},
                          {"New minSyncDuration_ms", newMinSyncDuration_ms},
                          {"Current requiredTimescaleUri", requiredTimescaleUri},
                          {"New requiredTimescaleUri", newTimescaleUri},
                          {"syncDomainUriSet.size()", static_cast<std::uint64_t>(syncDomainUriSet.size())}});
        }
    }
}

void SyncableDeviceProxy::clearCoherencyRequirements(const std::string& syncDomainUri) {
    std::lock_guard<std::mutex> lock(requirementsMutex);
    syncDomainUriSet.erase(syncDomainUri);
}

std::size_t SyncableDeviceProxy::syncDomainCount() const {
    std::lock_guard<std::mutex> lock(requirementsMutex);
    return syncDomainUriSet.size();
}

std::string SyncableDeviceProxy::fetchValidResource(const char* invalidJsonMessage) {
    std::string json = resources->getResource(resourcePath);
    ztsdtools::validateJsonString(json, invalidJsonMessage, hostUrl + resourcePath);
    return json;
}

bool SyncableDeviceProxy::isCoherent(std::uint32_t* coherencyLossCount) {
    if (!coherencyLossCount) {
        zterr::raise(ZTERR_SITE(kFile, zterr::name::ztapalerr_invalidParameter), zterr::code::ztapalerr_invalidParameter,
                     kDebug,
                     {{"message", "Encountered missing parameter needed for task completion."},
                      {"coherencyLossCount", "nullptr"}});
    }
    // The answer is parsed once for the version and both keys (the checks
    // and their order are those of the one-key getters).
    const std::string json = fetchValidResource("Remote SyncableDevice returned invalid JSON while checking coherency.");
    const ztsynctools::ParsedJson answer(json);
    ztsdtools::checkRemoteApiVersion(uri, answer, kMissingVersion, kUnsupportedVersion);
    bool coherent = false;
    std::uint32_t lossCount = 0;
    if (!answer.getBool("isCoherent", coherent))
        ztsdtools::throwMissingJsonKey(uri, "isCoherent", "Remote syncable device did not specify its coherency state.");
    if (!answer.getUInt32("coherencyLossCount", lossCount))
        ztsdtools::throwMissingJsonKey(
            uri, "coherencyLossCount",
            "Remote syncable device did not specify the number of times it has lost coherency.");
    *coherencyLossCount = lossCount;
    return coherent;
}

std::string SyncableDeviceProxy::toJson() {
    const std::string json = fetchValidResource("Remote SyncableDevice returned invalid JSON in call to toJson().");
    const ztsynctools::ParsedJson answer(json);
    ztsdtools::checkRemoteApiVersion(uri, answer, kMissingVersion, kUnsupportedVersion);
    std::string remoteUri;
    if (!answer.getString("uri", remoteUri))
        ztsdtools::throwMissingJsonKey(uri, "uri",
                                       "URI key not found in the JSON object received from the remote syncable device.");
    if (remoteUri != resourcePath) {
        zterr::raise(ZTERR_SITE(kFile, zterr::name::ztapalerr_invalidParameter), zterr::code::ztapalerr_invalidParameter,
                     kDebug,
                     {{"message", "URI received from remote syncableDevice didn't match expected value."},
                      {"Expected URI", resourcePath},
                      {"Remote syncable device URI", remoteUri}});
    }

    ztjsonlh::CppJson document = ztjsonlh::parse(json);
    cJSON* root = document.get();
    cJSON* ownUri = cJSON_CreateString(uri.c_str());
    cJSON* domains = cJSON_CreateArray();
    if (!ownUri || !domains) {
        cJSON_Delete(ownUri);
        cJSON_Delete(domains);
        throw std::bad_alloc();
    }
    std::vector<std::string> domainUris;
    {
        std::lock_guard<std::mutex> lock(requirementsMutex);
        domainUris.assign(syncDomainUriSet.begin(), syncDomainUriSet.end());
    }
    for (const std::string& domainUri : domainUris) {
        cJSON* item = cJSON_CreateString(domainUri.c_str());
        if (!item) {
            cJSON_Delete(ownUri);
            cJSON_Delete(domains);
            throw std::bad_alloc();
        }
        cJSON_AddItemToArray(domains, item);
    }
    // The member lookup of the getters ignores case, so replace the member
    // they found, whatever its spelling.
    cJSON_ReplaceItemInObject(root, "uri", ownUri);
    if (cJSON_GetObjectItem(root, "syncDomainUris"))
        cJSON_ReplaceItemInObject(root, "syncDomainUris", domains);
    else
        cJSON_AddItemToObject(root, "syncDomainUris", domains);
    char* printed = cJSON_PrintUnformatted(root);
    if (!printed) throw std::bad_alloc();
    std::string result(printed);
    cJSON_free(printed);
    return result;
}

}  // namespace ztsdlib
