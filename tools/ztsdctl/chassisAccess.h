// Reaching a chassis through the library: the address a user types, the
// networkDeviceParamsJson it becomes, and the proxies ztsdlib_loadProxyResources
// makes of the chassis' listing.
//
// Address syntax: HOST[:PORT][@DAEMONPORT], where HOST[:PORT] is the chassis
// web service as the library takes it ("host", "host:port", "[v6]:port"; an
// IPv6 address only in brackets) and DAEMONPORT the TCP port of its
// timestamp daemon; ports are 1 to 65535. Without a daemon port the
// library's default applies (the key is left out of the description).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "libraryCalls.h"

namespace ztsdctl {

struct ChassisAddress {
    std::string remoteHost;
    std::optional<std::uint32_t> daemonPort;
};

// Throws std::invalid_argument with a readable reason when the text is not
// an address: HOST is a host name (letters, digits, '.', '-', '_') or an
// IPv6 address in brackets; nothing else (no user@, no path, one '@').
ChassisAddress parseChassisAddress(const std::string& text);

constexpr const char* kHostNameCharacters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_";
bool isHostName(const std::string& text);
// Hexadecimal groups, ':' and '.' only (no brackets).
bool isIpv6Address(const std::string& text);

// The address as the user writes it.
std::string addressText(const ChassisAddress& address);

// The daemon port the library uses for an address without one.
constexpr std::uint32_t kDefaultDaemonPort = 9090;
// host:port of the chassis' timestamp daemon ("[v6]:port" for IPv6).
std::string daemonAddressText(const ChassisAddress& address);

// {"version":1,"type":"networkDeviceParams","params":{"remoteHost":..[,"timestampDaemonPort":..]}}
std::string networkDeviceParamsJson(const ChassisAddress& address);

// What the library made of one chassis: a proxy of its (first) syncable
// device and one proxy per listed timescale; all owned here.
struct LoadedChassis {
    std::string remoteHost;
    DeviceHandle device;
    std::vector<TimescaleHandle> timescales;
};

// Throws LibraryError when the library cannot load the chassis.
LoadedChassis loadChassis(const ChassisAddress& address);

// The URIs of every syncable device the chassis lists, the loaded one first
// among them as the chassis orders them. Throws LibraryError.
std::vector<std::string> listDeviceUris(const ChassisAddress& address);

// A proxy of the device at uri. Throws LibraryError (its context: the URI).
DeviceHandle makeDeviceProxy(const std::string& uri);

// The host clock, and a remote timescale read through its daemon.
TimescaleHandle makeHostTimescale();
TimescaleHandle makeTimescaleProxy(const std::string& uri, const std::string& daemonHost, std::uint32_t daemonPort);

std::string uriOf(ztsdlib_SyncableDevice* device);
std::string uriOf(ztsdlib_Timescale* timescale);

}  // namespace ztsdctl
