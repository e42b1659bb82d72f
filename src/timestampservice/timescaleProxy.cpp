#include "timestampservice/timescaleProxy.h"

#include <new>
#include <utility>

#include "errors/jsonWriter.h"
#include "errors/status.h"

namespace ztsdlib {

// One session for the length of one reading, back to the set afterwards.
class TimescaleProxy::Lease {
public:
    explicit Lease(TimescaleProxy& proxy) : owner(proxy) {
        {
            std::lock_guard<std::mutex> lock(owner.idleMutex);
            if (!owner.idle.empty()) {
                session = std::move(owner.idle.back());
                owner.idle.pop_back();
            }
        }
        if (!session) session = owner.origin->makeSibling();
    }
    ~Lease() {
        std::lock_guard<std::mutex> lock(owner.idleMutex);
        if (owner.idle.size() < kMaxIdleSessions) owner.idle.push_back(std::move(session));
    }
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;

    TimescaleProxySessionInterface* operator->() { return session.get(); }

private:
    TimescaleProxy& owner;
    std::unique_ptr<TimescaleProxySessionInterface> session;
};

TimescaleProxy::TimescaleProxy(std::string uriText, std::string hostText, std::uint32_t portNumber,
                               TimescaleProxySettings settings)
    : TimescaleProxy(uriText, hostText, portNumber,
                     std::make_unique<TimescaleProxySession>(
                         [hostText, portNumber, timeout_ms = settings.socketTimeout_ms](
                             std::shared_ptr<ReadInterruption> interruption) {
                             return std::make_shared<TimescaleProxyThriftClient>(hostText, portNumber, timeout_ms,
                                                                                 std::move(interruption));
                         },
                         uriText, settings.maxAttempts)) {}

TimescaleProxy::TimescaleProxy(std::string uriText, std::string hostText, std::uint32_t portNumber,
                               std::unique_ptr<TimescaleProxySessionInterface> madeSession)
    : uri(std::move(uriText)), host(std::move(hostText)), port(portNumber), origin(std::move(madeSession)) {
    idle.reserve(kMaxIdleSessions);  // so giving a session back never allocates
}

TimescaleProxy::~TimescaleProxy() = default;

void TimescaleProxy::getTime(ztsdlib_Timestamp& timestamp, zterr_Status*) {
    Lease session(*this);
    session->getTime(timestamp);
}

std::size_t TimescaleProxy::idleSessionCount() const {
    std::lock_guard<std::mutex> lock(idleMutex);
    return idle.size();
}

std::unique_ptr<TimescaleReader> TimescaleProxy::makeReader() {
    return std::make_unique<TimescaleProxyReader>(*origin);
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
        const std::string& localUri = origin->getExpectedLocalUri();
        p = zterr::appendString(p, "localUriOfTarget", localUri.data(), localUri.size(), &cursor);
        p = zterr::appendInt32(p, "serverApiVersion", origin->getServerApiVersion(), &cursor);
    }
    const std::string text = p ? document.json : "";
    zterr::releaseStatus(&document);
    if (!p) throw std::bad_alloc();
    return text;
}

TimescaleProxyReader::TimescaleProxyReader(const TimescaleProxySessionInterface& origin)
    : interruption(std::make_shared<ReadInterruption>()), session(origin.makeSibling(interruption)) {}

TimescaleProxyReader::~TimescaleProxyReader() = default;

void TimescaleProxyReader::getTime(ztsdlib_Timestamp& timestamp, zterr_Status*) { session->getTime(timestamp); }

void TimescaleProxyReader::interrupt() noexcept { interruption->raise(); }

}  // namespace ztsdlib
