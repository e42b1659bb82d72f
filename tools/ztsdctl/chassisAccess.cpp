#include "chassisAccess.h"

#include <cstdlib>
#include <memory>
#include <stdexcept>

#include <cjson/cJSON.h>

#include "jsonText.h"

namespace ztsdctl {

namespace {

void* allocateArray(size_t size) { return std::malloc(size); }

}  // namespace

bool isHostName(const std::string& text) {
    return !text.empty() && text.find_first_not_of(kHostNameCharacters) == std::string::npos;
}

bool isIpv6Address(const std::string& text) {
    return text.find(':') != std::string::npos && text.find_first_not_of("0123456789abcdefABCDEF:.") == std::string::npos;
}

ChassisAddress parseChassisAddress(const std::string& text) {
    ChassisAddress address;
    const std::size_t at = text.find('@');
    if (at != std::string::npos && text.find('@', at + 1) != std::string::npos)
        throw std::invalid_argument("'" + text + "' has more than one '@' (HOST[:PORT][@DAEMONPORT])");
    address.remoteHost = text.substr(0, at);
    if (address.remoteHost.empty()) throw std::invalid_argument("'" + text + "' names no host");
    const std::string& remote = address.remoteHost;
    const std::string hostPart = remote[0] == '[' ? remote.substr(1, remote.find(']') - 1)
                                                  : remote.substr(0, remote.find(':'));
    if (remote[0] == '[' ? remote.find(']') != std::string::npos && !isIpv6Address(hostPart)
                         : !hostPart.empty() && !isHostName(hostPart))
        throw std::invalid_argument("'" + address.remoteHost + "' is not a host name or address");
    const std::size_t colon = address.remoteHost.find(':');
    if (colon != std::string::npos && address.remoteHost[0] != '[' &&
        address.remoteHost.find(':', colon + 1) != std::string::npos)
        throw std::invalid_argument("'" + address.remoteHost + "': write an IPv6 address in brackets, [v6]:PORT");
    const std::size_t close = address.remoteHost.find(']');
    if (address.remoteHost[0] == '[' && close == std::string::npos)
        throw std::invalid_argument("'" + address.remoteHost + "' has no closing ']'");
    const std::size_t portColon =
        address.remoteHost[0] == '[' ? address.remoteHost.find(':', close) : colon;
    if (address.remoteHost[0] == '[' && close + 1 < address.remoteHost.size() && portColon != close + 1)
        throw std::invalid_argument("'" + address.remoteHost + "': only ':PORT' may follow ']'");
    if (portColon != std::string::npos) {
        const std::string port = address.remoteHost.substr(portColon + 1);
        if (port.empty() || port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos ||
            std::stoul(port) == 0 || std::stoul(port) > 65535)
            throw std::invalid_argument("'" + port + "' after ':' is not a TCP port (1 to 65535)");
        if (portColon == 0 || (address.remoteHost[0] == '[' && close == 1))
            throw std::invalid_argument("'" + text + "' names no host");
    }
    if (at != std::string::npos) {
        const std::string port = text.substr(at + 1);
        if (port.empty() || port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos ||
            std::stoul(port) == 0 || std::stoul(port) > 65535)
            throw std::invalid_argument("'" + port + "' after '@' is not a TCP port");
        address.daemonPort = static_cast<std::uint32_t>(std::stoul(port));
    }
    return address;
}

std::string addressText(const ChassisAddress& address) {
    return address.remoteHost + (address.daemonPort ? "@" + std::to_string(*address.daemonPort) : "");
}

std::string daemonAddressText(const ChassisAddress& address) {
    // remoteHost is "host", "host:port" or "[v6]:port".
    const std::string& remote = address.remoteHost;
    const std::size_t close = remote.find(']');
    const std::string host = remote[0] == '[' ? remote.substr(0, close + 1) : remote.substr(0, remote.find(':'));
    return host + ":" + std::to_string(address.daemonPort.value_or(kDefaultDaemonPort));
}

std::string networkDeviceParamsJson(const ChassisAddress& address) {
    JsonObject params;
    params.addString("remoteHost", address.remoteHost);
    if (address.daemonPort) params.addInteger("timestampDaemonPort", *address.daemonPort);
    return JsonObject()
        .addInteger("version", 1)
        .addString("type", "networkDeviceParams")
        .addRaw("params", params.text())
        .text();
}

LoadedChassis loadChassis(const ChassisAddress& address) {
    const std::string params = networkDeviceParamsJson(address);
    ztsdlib_SyncableDevice* device = nullptr;
    ztsdlib_Timescale** timescales = nullptr;
    uint32_t count = 0;
    try {
        call("ztsdlib_loadProxyResources", [&](zterr_Status* status) {
            ztsdlib_loadProxyResources(params.c_str(), &device, &timescales, &count, allocateArray, status);
        });
    } catch (LibraryError& error) {
        // Loading also shakes hands with the chassis' daemon (a failure
        // there names no request URL).
        error.setContext("chassis " + addressText(address)).setDaemon(daemonAddressText(address));
        throw;
    }
    // Take ownership of every handle before anything else can throw.
    LoadedChassis loaded;
    loaded.remoteHost = address.remoteHost;
    loaded.device.reset(device);
    loaded.timescales.reserve(count);
    for (uint32_t i = 0; i < count; ++i) loaded.timescales.emplace_back(timescales[i]);
    std::free(timescales);
    if (!loaded.device) throw std::runtime_error("ztsdlib_loadProxyResources returned no device");
    return loaded;
}

std::vector<std::string> listDeviceUris(const ChassisAddress& address) {
    const std::string params = networkDeviceParamsJson(address);
    char* text = nullptr;
    try {
        text = call("ztsdlib_listSyncableDeviceUris",
                    [&](zterr_Status* status) { return ztsdlib_listSyncableDeviceUris(params.c_str(), status); });
    } catch (LibraryError& error) {
        error.setContext("chassis " + addressText(address));
        throw;
    }
    const std::unique_ptr<char, decltype(&std::free)> owned(text, std::free);
    const std::unique_ptr<cJSON, decltype(&cJSON_Delete)> array(cJSON_Parse(text ? text : ""), cJSON_Delete);
    if (!cJSON_IsArray(array.get())) throw std::runtime_error("ztsdlib_listSyncableDeviceUris returned no JSON array");
    std::vector<std::string> uris;
    const cJSON* item = nullptr;
    cJSON_ArrayForEach(item, array.get()) {
        if (cJSON_IsString(item)) uris.emplace_back(item->valuestring);
    }
    return uris;
}

DeviceHandle makeDeviceProxy(const std::string& uri) {
    try {
        return owned<DeviceHandle>(
            call("ztsdlib_SyncableDeviceProxy_create",
                 [&](zterr_Status* status) { return ztsdlib_SyncableDeviceProxy_create(uri.c_str(), status); }),
            "ztsdlib_SyncableDeviceProxy_create");
    } catch (LibraryError& error) {
        error.setContext(uri);
        throw;
    }
}

TimescaleHandle makeHostTimescale() {
    return owned<TimescaleHandle>(
        call("ztsdlib_HostTimescale_create",
             [&](zterr_Status* status) { return ztsdlib_HostTimescale_create(ZTSDLIB_HOST_TIMESCALE_URI, status); }),
        "ztsdlib_HostTimescale_create");
}

TimescaleHandle makeTimescaleProxy(const std::string& uri, const std::string& daemonHost, std::uint32_t daemonPort) {
    return owned<TimescaleHandle>(call("ztsdlib_TimescaleProxy_create",
                                       [&](zterr_Status* status) {
                                           return ztsdlib_TimescaleProxy_create(uri.c_str(), daemonHost.c_str(),
                                                                                daemonPort, status);
                                       }),
                                  "ztsdlib_TimescaleProxy_create");
}

std::string uriOf(ztsdlib_SyncableDevice* device) {
    const char* uri = call("ztsdlib_SyncableDevice_getUri",
                           [&](zterr_Status* status) { return ztsdlib_SyncableDevice_getUri(device, status); });
    return uri != nullptr ? uri : "";
}

std::string uriOf(ztsdlib_Timescale* timescale) {
    const char* uri = call("ztsdlib_Timescale_getUri",
                           [&](zterr_Status* status) { return ztsdlib_Timescale_getUri(timescale, status); });
    return uri != nullptr ? uri : "";
}

}  // namespace ztsdctl
