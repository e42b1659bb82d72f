#include "timestampservice/timescaleProxy.h"

#include <cstdio>
#include <utility>

namespace ztsdlib {

namespace {

// text as a JSON string literal, quotes included.
std::string quoted(const std::string& text) {
    std::string out;
    out.reserve(text.size() + 2);
    out += '"';
    for (const char c : text) {
        const unsigned char u = static_cast<unsigned char>(c);
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\b': out += "\\b"; break;
            case '\f': out += "\\f"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            default:
                if (u < 0x20 || u == 0x7F) {
                    char escape[8];
                    std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(u));
                    out += escape;
                } else {
                    out += c;
                }
        }
    }
    out += '"';
    return out;
}

}  // namespace

TimescaleProxy::TimescaleProxy(std::string uriText, std::string hostText, std::uint32_t portNumber,
                               TimescaleProxySettings settings)
    : TimescaleProxy(uriText, hostText, portNumber,
                     std::make_unique<TimescaleProxySession>(
                         std::make_shared<TimescaleProxyThriftClient>(hostText, portNumber, settings.socketTimeout_ms),
                         uriText, settings.maxAttempts)) {}

TimescaleProxy::TimescaleProxy(std::string uriText, std::string hostText, std::uint32_t portNumber,
                               std::unique_ptr<TimescaleProxySessionInterface> madeSession)
    : uri(std::move(uriText)), host(std::move(hostText)), port(portNumber), session(std::move(madeSession)) {}

TimescaleProxy::~TimescaleProxy() = default;

void TimescaleProxy::getTime(ztsdlib_Timestamp& timestamp, zterr_Status*) {
    std::lock_guard<std::mutex> lock(sessionMutex);
    session->getTime(timestamp);
}

std::string TimescaleProxy::toJson() const {
    return "{\"uri\":" + quoted(uri) + ",\"host\":" + quoted(host) + ",\"port\":" + std::to_string(port) +
           ",\"localUriOfTarget\":" + quoted(session->getExpectedLocalUri()) +
           ",\"serverApiVersion\":" + std::to_string(session->getServerApiVersion()) + "}";
}

}  // namespace ztsdlib
