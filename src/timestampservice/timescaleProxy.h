// The timescale of a remote target, read through the target's timestamp
// daemon "zttimestampd" (see timescaleProxySession.h for the conversation).
//
// getUri() is the URI the proxy was created with. toJson() writes
//   {"uri":"<uri>","host":"<host>","port":<port>,
//    "localUriOfTarget":"<the daemon's URI of this timescale>","serverApiVersion":<n>}
// (one line, no white space) with the strings escaped, so the text is valid
// JSON whatever the URI or host hold.
//
// Threads: getTime may be called from any number of threads at once (a
// correlator's sampling task and the caller's threads meet here); one mutex
// serialises the use of the session and its connection, so readings run one
// at a time. getUri and toJson read state fixed at construction and take no
// lock.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

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
    // Over a session made by the caller (tests).
    TimescaleProxy(std::string uri, std::string host, std::uint32_t port,
                   std::unique_ptr<TimescaleProxySessionInterface> session);
    ~TimescaleProxy() override;

    const std::string& getUri() const override { return uri; }
    // Throws zterr::Exception on failure; status is not touched.
    void getTime(ztsdlib_Timestamp& timestamp, zterr_Status* status) override;
    std::string toJson() const override;

private:
    const std::string uri;
    const std::string host;
    const std::uint32_t port;
    std::mutex sessionMutex;  // guards every use of session
    std::unique_ptr<TimescaleProxySessionInterface> session;
};

}  // namespace ztsdlib
