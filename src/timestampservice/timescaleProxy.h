// The timescale of a remote target, read through the target's timestamp
// daemon "zttimestampd" (see timescaleProxySession.h for the conversation).
//
// getUri() is the URI the proxy was created with. toJson() writes
//   {"uri":"<uri>","host":"<host>","port":<port>,
//    "localUriOfTarget":"<the daemon's URI of this timescale>","serverApiVersion":<n>}
// (one line, no white space) with the strings escaped, so the text is valid
// JSON whatever the URI or host hold.
//
// Connections: the session made at creation (the version handshake) makes
// the others and reads nothing itself. A reading takes an idle session (its
// connection kept open) from the proxy's small set, or makes a new one when
// every session is busy, and gives it back afterwards; at most
// kMaxIdleSessions are kept. So a reading never waits for another: one held
// by a stalled daemon leaves the others their own bound (the attempts'
// deadlines), and one reader at a time reuses one connection.
//
// makeReader() gives a correlator's sampling task a TimescaleProxyReader: a
// session and connection of its own, sharing nothing with the proxy, whose
// reading interrupt() ends at once.
//
// Threads: getTime and makeReader may be called from any number of threads
// at once; a session serves one reading at a time (the set is under one
// mutex, held only to take or give back). getUri and toJson read state fixed
// at construction and take no lock.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "time/timescaleInterface.h"
#include "timestampservice/timescaleProxySession.h"
#include "timestampservice/timescaleProxyThriftClient.h"

namespace ztsdlib {

// Settings of the connection to the daemon. The export uses the defaults;
// tests shorten them to exercise stalls and retries quickly.
struct TimescaleProxySettings {
    std::uint32_t socketTimeout_ms = kTimestampDaemonSocketTimeout_ms;
    std::uint32_t maxAttempts = kTimestampDaemonAttempts;
};

class TimescaleProxy : public TimescaleInterface {
public:
    // Connects to host:port and makes the version handshake; throws
    // zterr::Exception when that fails (see TimescaleProxySession).
    TimescaleProxy(std::string uri, std::string host, std::uint32_t port, TimescaleProxySettings settings = {});
    // Over a session made by the caller (tests); it makes the others.
    TimescaleProxy(std::string uri, std::string host, std::uint32_t port,
                   std::unique_ptr<TimescaleProxySessionInterface> session);
    ~TimescaleProxy() override;

    const std::string& getUri() const override { return uri; }
    // Throws zterr::Exception on failure; status is not touched.
    void getTime(ztsdlib_Timestamp& timestamp, zterr_Status* status) override;
    std::string toJson() const override;
    std::unique_ptr<TimescaleReader> makeReader() override;

    // Idle sessions kept for reuse.
    static constexpr std::size_t kMaxIdleSessions = 4;
    std::size_t idleSessionCount() const;

private:
    class Lease;

    const std::string uri;
    const std::string host;
    const std::uint32_t port;
    const std::unique_ptr<TimescaleProxySessionInterface> origin;  // the handshake's; makes the others
    mutable std::mutex idleMutex;  // guards idle
    std::vector<std::unique_ptr<TimescaleProxySessionInterface>> idle;
};

// A remote timescale's reader for one thread: a sibling of the proxy's
// sessions over a connection of its own with a ReadInterruption. interrupt()
// raises it, so a reply wait under way ends at once and every later reading
// fails at once, each as -52024 with "type" "TTransportException::INTERRUPTED".
class TimescaleProxyReader : public TimescaleReader {
public:
    // Throws zterr::Exception (-52008) when the interruption's socket pair
    // cannot be made.
    explicit TimescaleProxyReader(const TimescaleProxySessionInterface& origin);
    ~TimescaleProxyReader() override;

    void getTime(ztsdlib_Timestamp& timestamp, zterr_Status* status) override;
    void interrupt() noexcept override;

private:
    std::shared_ptr<ReadInterruption> interruption;
    std::unique_ptr<TimescaleProxySessionInterface> session;
};

}  // namespace ztsdlib
