#include "loading/proxyResourceLoading.h"

#include "errors/exception.h"
#include "json/jsonChecks.h"
#include "json/jsonKeyGetters.h"
#include "remote/curlResourceManagerProxy.h"
#include "remote/hostCheck.h"
#include "syncdomain/syncableDeviceProxy.h"
#include "timestampservice/timescaleProxy.h"

namespace ztsdlib {
namespace {

constexpr const char* kFile = "source\\ztsdlib\\proxyResourceLoading";
constexpr const char* kDebug = "ztsyncdomain_debug";

[[noreturn]] void raiseInvalid(zterr::Details details) {
    zterr::raise(ZTERR_SITE(kFile, zterr::name::ztapalerr_invalidParameter), zterr::code::ztapalerr_invalidParameter,
                 kDebug, details);
}

}  // namespace

NetworkDeviceParams parseNetworkDeviceParams(const std::string& json, const char* source) {
    ztsdtools::validateJsonString(json, "networkDeviceParamsJson contains an invalid JSON string.", source);
    std::uint32_t version = 0;
    if (!ztsynctools::getUInt32FromJsonString(json, "version", version) || version != 1) {
        raiseInvalid({{"message", "Sync Domain API version in networkDeviceParamsJson missing or incorrect."},
                      {"networkDeviceParamsJson", json}});
    }
    std::string type;
    if (!ztsynctools::getStringFromJsonString(json, "type", type) || type != "networkDeviceParams") {
        raiseInvalid({{"message", "Type in networkDeviceParamsJson missing or invalid."},
                      {"expectedType", "networkDeviceParams"},
                      {"networkDeviceParams", json}});
    }
    std::string params;
    if (!ztsynctools::getObjectFromJsonString(json, "params", params))
        raiseInvalid({{"message", "Error parsing 'params' key from networkDeviceParamsJson"}});
    NetworkDeviceParams result;
    if (!ztsynctools::getStringFromJsonString(params, "remoteHost", result.remoteHost))
        raiseInvalid({{"message", "Error parsing 'remoteHost' key from networkDeviceParamsJson"}});
    ztsynctools::getUInt32FromJsonString(params, "timestampDaemonPort", result.timestampDaemonPort);
    // A null "remoteHost" leaves it empty: refused here with the rest.
    zt::syncdomain::checkRemoteHost(result.remoteHost, "remoteHost");
    zt::syncdomain::checkPort(result.timestampDaemonPort, "timestampDaemonPort");
    return result;
}

std::string uriRootOf(const std::string& remoteHost) {
    const bool bracketed = !remoteHost.empty() && remoteHost.front() == '[' && remoteHost.back() == ']';
    if (remoteHost.find(':') != std::string::npos && !bracketed) return "[" + remoteHost + "]";
    return remoteHost;
}

std::string hostPartOf(const std::string& remoteHost) {
    if (!remoteHost.empty() && remoteHost.front() == '[') {
        const std::size_t close = remoteHost.find(']');
        return close == std::string::npos ? remoteHost : remoteHost.substr(1, close - 1);
    }
    const std::size_t colon = remoteHost.find(':');
    if (colon != std::string::npos && remoteHost.find(':', colon + 1) == std::string::npos)
        return remoteHost.substr(0, colon);
    return remoteHost;
}

std::string withHost(const std::string& listedUri, const std::string& remoteHost) {
    const std::size_t at = listedUri.compare(0, 1, "/") == 0 ? 1 : 0;
    const std::string service = std::string(zt::syncdomain::kWebServiceName) + "/";
    if (listedUri.compare(at, service.size(), service) != 0) return listedUri;
    return "/" + remoteHost + "/" + listedUri.substr(at);
}

namespace {

// The chassis' listing, every URI with its host.
zt::syncdomain::ResourceListing fetchListing(const NetworkDeviceParams& params) {
    zt::syncdomain::ResourceListing listing =
        zt::syncdomain::CurlResourceManagerProxy(params.remoteHost).fetchResourceListing();
    for (auto* uris : {&listing.syncableDevices, &listing.timescales})
        for (std::string& uri : *uris) uri = withHost(uri, params.remoteHost);
    return listing;
}

}  // namespace

std::vector<std::string> listSyncableDeviceUris(const NetworkDeviceParams& params) {
    return fetchListing(params).syncableDevices;
}

LoadedProxies loadProxyResources(const NetworkDeviceParams& params) {
    const zt::syncdomain::ResourceListing listing = fetchListing(params);
    if (listing.syncableDevices.empty()) {
        zterr::raise(ZTERR_SITE(kFile, zterr::name::ztapalerr_resourceNotFound), zterr::code::ztapalerr_resourceNotFound,
                     kDebug,
                     {{"message", "No syncableDevices returned from remote chassis to load."},
                      {"resourceType", "syncableDevice"},
                      {"remoteHost", params.remoteHost}});
    }
    LoadedProxies loaded;
    const std::string daemonHost = hostPartOf(params.remoteHost);
    for (const std::string& uri : listing.timescales)
        loaded.timescales.push_back(std::make_unique<TimescaleProxy>(uri, daemonHost, params.timestampDaemonPort));
    loaded.device = std::make_unique<SyncableDeviceProxy>(listing.syncableDevices.front());
    return loaded;
}

}  // namespace ztsdlib
