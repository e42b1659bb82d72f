#include "timestampservice/timescaleProxy.h"

#include <new>
#include <utility>

#include "errors/jsonWriter.h"
#include "errors/status.h"

namespace ztsdlib {

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
    // Written with the report writer, so strings are escaped by the same rule
    // as in every error report.
    zterr_Status document = zterr::makeOwnedStatus();
    char* p = nullptr;
    if (zterr::placeText(&document, "{}")) {
        zterr_JsonCursor cursor = zterr::beginAppend(&document);
        p = zterr::appendString(cursor.position, "uri", uri.data(), uri.size(), &cursor);
        p = zterr::appendString(p, "host", host.data(), host.size(), &cursor);
        p = zterr::appendUInt32(p, "port", port, &cursor);
        const std::string& localUri = session->getExpectedLocalUri();
        p = zterr::appendString(p, "localUriOfTarget", localUri.data(), localUri.size(), &cursor);
        p = zterr::appendInt32(p, "serverApiVersion", session->getServerApiVersion(), &cursor);
    }
    const std::string text = p ? document.json : "";
    zterr::releaseStatus(&document);
    if (!p) throw std::bad_alloc();
    return text;
}

}  // namespace ztsdlib
