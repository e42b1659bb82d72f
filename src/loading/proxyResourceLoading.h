// Turning a network device description into the proxies of what its chassis
// offers.
//
// The description ("networkDeviceParamsJson"):
//   {"version":1,"type":"networkDeviceParams",
//    "params":{"remoteHost":"<host[:port] of the chassis web service>",
//              "timestampDaemonPort":<port of its timestamp daemon>}}
// "timestampDaemonPort" is optional (kDefaultTimestampDaemonPort); the daemon
// is reached on the host part of remoteHost (without its port).
//
// Choices:
//  - A listing with several "syncableDevices" entries loads the first one;
//    the others are left alone (one description names one device), and
//    listSyncableDeviceUris names them all for callers that want the rest.
//  - With no "timescales" entries the caller's allocator is not called: the
//    array is NULL and the count 0.
//  - Every proxy is made before anything is written to the caller: a failure
//    releases what was made and leaves the outputs untouched. The array is
//    allocated last, so it is never left behind either.
//  - A listed "uri" may name its host ("/<host>/ztsdwebs/...", kept as it
//    is) or leave it out ("/ztsdwebs/...", the chassis' own path): loading
//    then puts "/" + remoteHost in front, the host the caller reached it by.
//  - The URI root is remoteHost as given, wrapped in "[...]" when it holds a
//    ":" and is not bracketed already. Both root buffers must hold the root
//    and its terminating NUL.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "syncdomain/syncableDeviceInterface.h"
#include "time/timescaleInterface.h"

namespace ztsdlib {

constexpr std::uint32_t kDefaultTimestampDaemonPort = 9090;

struct NetworkDeviceParams {
    std::string remoteHost;
    std::uint32_t timestampDaemonPort = kDefaultTimestampDaemonPort;
};

// Validates strictly (the source names the caller in the report) and reads
// the description; raises -52005 with the message of the first rule broken.
// "remoteHost" (absent, null, empty or no host[:port]) and
// "timestampDaemonPort" (outside 1..65535) are checked by remote/hostCheck.h,
// so no description with either wrong reaches the network.
NetworkDeviceParams parseNetworkDeviceParams(const std::string& json, const char* source);

std::string uriRootOf(const std::string& remoteHost);

// The host part of "host", "host:port", "[v6]" or "[v6]:port"; a bare IPv6
// literal (several ":") is returned whole.
std::string hostPartOf(const std::string& remoteHost);

struct LoadedProxies {
    std::unique_ptr<SyncableDeviceInterface> device;
    std::vector<std::unique_ptr<TimescaleInterface>> timescales;
};

// Lists the chassis and makes a device proxy and one timescale proxy per
// listed timescale. Raises -52006 when the chassis lists no syncable device.
LoadedProxies loadProxyResources(const NetworkDeviceParams& params);

// The URIs of every syncable device the chassis lists, in its order, each
// with its host (as loading gives them); empty when it lists none.
std::vector<std::string> listSyncableDeviceUris(const NetworkDeviceParams& params);

// A listed URI with its host: one that starts with the web service name
// (with or without a leading "/") gets "/" + remoteHost in front.
std::string withHost(const std::string& listedUri, const std::string& remoteHost);

}  // namespace ztsdlib
