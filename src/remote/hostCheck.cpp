#include "remote/hostCheck.h"

#include "errors/exception.h"

namespace zt {
namespace syncdomain {

namespace {

constexpr const char* kFile = "source\\ztsyncdomain\\hostCheck";

[[noreturn]] void refuse(const char* field, const char* what, const std::string& value) {
    zterr::raise(ZTERR_SITE(kFile, zterr::name::ztapalerr_invalidParameter), zterr::code::ztapalerr_invalidParameter,
                 "ztsyncdomain_debug",
                 {{"message", std::string("'") + field + "' " + what + "."}, {"field", field}, {"value", value}});
}

bool isNameByte(unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
           c == '_' || c == '~' || c == '%' || c >= 0x80;
}

bool isLiteralByte(unsigned char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F') || c == ':' || c == '.';
}

bool isSpaceOrControl(unsigned char c) { return c <= 0x20 || c == 0x7F; }

// The first byte of text that is a space or a control character, checked
// first so that the most common mistake gets its own words.
void refuseSpaces(const std::string& text, const char* field, const std::string& value) {
    for (const char c : text)
        if (isSpaceOrControl(static_cast<unsigned char>(c))) refuse(field, "holds a space or a control character", value);
}

// An IPv6 literal: hexadecimal digits, at least two ':' and '.', then an optional zone
// ("%eth0") of name bytes.
bool isIpv6Literal(const std::string& text) {
    const std::size_t zone = text.find('%');
    const std::string address = text.substr(0, zone);
    const std::size_t colon = address.find(':');
    if (colon == std::string::npos || address.find(':', colon + 1) == std::string::npos) return false;
    for (const char c : address)
        if (!isLiteralByte(static_cast<unsigned char>(c))) return false;
    if (zone == std::string::npos) return true;
    if (zone + 1 == text.size()) return false;
    for (std::size_t i = zone + 1; i < text.size(); ++i)
        if (!isNameByte(static_cast<unsigned char>(text[i])) || text[i] == '%') return false;
    return true;
}

void checkName(const std::string& name, const char* field, const std::string& value) {
    if (name.empty()) refuse(field, "names no host", value);
    for (const char c : name)
        if (!isNameByte(static_cast<unsigned char>(c))) refuse(field, "holds a character that no host name has", value);
}

void checkPortText(const std::string& port, const char* field, const std::string& value) {
    bool digits = !port.empty() && port.size() <= 5;
    std::uint32_t number = 0;
    for (const char c : port) {
        if (c < '0' || c > '9') digits = false;
        if (digits) number = number * 10 + static_cast<std::uint32_t>(c - '0');
    }
    if (!digits || number == 0 || number > 65535) refuse(field, "has a port out of the range 1 to 65535", value);
}

}  // namespace

void checkRemoteHost(const std::string& remoteHost, const char* field, const std::string& value) {
    if (remoteHost.empty()) refuse(field, "names no host", value);
    refuseSpaces(remoteHost, field, value);
    if (remoteHost.front() == '[') {
        const std::size_t close = remoteHost.find(']');
        if (close == std::string::npos || !isIpv6Literal(remoteHost.substr(1, close - 1)))
            refuse(field, "holds a bracketed host that is not an IPv6 address", value);
        if (close + 1 == remoteHost.size()) return;
        if (remoteHost[close + 1] != ':') refuse(field, "holds a character that no host name has", value);
        checkPortText(remoteHost.substr(close + 2), field, value);
        return;
    }
    const std::size_t colon = remoteHost.find(':');
    if (colon != std::string::npos && remoteHost.find(':', colon + 1) != std::string::npos) {
        if (!isIpv6Literal(remoteHost)) refuse(field, "holds a character that no host name has", value);
        return;
    }
    checkName(remoteHost.substr(0, colon), field, value);
    if (colon != std::string::npos) checkPortText(remoteHost.substr(colon + 1), field, value);
}

void checkDaemonHost(const std::string& host, const char* field) {
    if (host.empty()) refuse(field, "names no host", host);
    refuseSpaces(host, field, host);
    if (host.find(':') != std::string::npos) {
        if (!isIpv6Literal(host)) refuse(field, "holds a character that no host name has", host);
        return;
    }
    checkName(host, field, host);
}

void checkPort(std::uint64_t port, const char* field) {
    if (port == 0 || port > 65535)
        refuse(field, "has a port out of the range 1 to 65535", std::to_string(port));
}

}  // namespace syncdomain
}  // namespace zt
