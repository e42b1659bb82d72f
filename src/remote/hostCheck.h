// Caller text that names a peer, checked before any network use.
//
// Every host and port a caller hands in (a chassis' "remoteHost", the host
// part of a device URI, a timestamp daemon's host and port) is checked here,
// so that a caller's mistake is refused with -52005 "ztapalerr_invalidParameter"
// before a name is looked up or a packet sent, instead of becoming a request
// to some other address (an empty host gives "http:///ztsdwebs/...", which
// libcurl reads as the host "ztsdwebs") or a communications fault.
//
// Each refusal names the field: "ztsyncdomain_debug" details
//   "message" = "'<field>' <what is wrong>.", "field", "value"
// (the whole text the caller gave for that field, e.g. a device's URI).
//
// A web service address (checkRemoteHost) is "host", "host:port", "[v6]",
// "[v6]:port" or a bare IPv6 literal (two or more ':', no port):
//  - a host is letters, digits, '-', '.', '_', '~', '%' and bytes of 0x80
//    and above (an internationalised name); anything else (spaces, control
//    characters, '/', '?', '#', '@', '\\', quotes...) would change what the
//    URL says, so it is refused;
//  - inside brackets: hexadecimal digits, ':', '.' and a zone after '%';
//  - a port is 1 to 5 digits naming 1 to 65535 ("host:" is refused).
// A daemon's host (checkDaemonHost) is a host name or an IP literal as the
// resolver takes it (a bare IPv6 literal, no brackets, no port); its port
// (checkPort) is 1 to 65535.
#pragma once

#include <cstdint>
#include <string>

namespace zt {
namespace syncdomain {

void checkRemoteHost(const std::string& remoteHost, const char* field, const std::string& value);
inline void checkRemoteHost(const std::string& remoteHost, const char* field) {
    checkRemoteHost(remoteHost, field, remoteHost);
}
void checkDaemonHost(const std::string& host, const char* field);
void checkPort(std::uint64_t port, const char* field);

}  // namespace syncdomain
}  // namespace zt
