// The watch's figures for a Prometheus scraper: an HTTP server on a given
// address that answers GET /metrics in the text exposition format (version
// 0.0.4) with what the last check found.
//
//   ztsd_domain_coherent{domain}                 gauge, 1 when the last check found the domain coherent
//   ztsd_member_coherent{domain,member}          gauge, per member (member = the device's URI)
//   ztsd_member_reachable{domain,member}         gauge
//   ztsd_member_coherency_losses_total{domain,member}  counter, the device's loss count as last read
//   ztsd_check_duration_seconds{domain}          histogram of how long each check took
//   ztsd_check_errors_total{domain,code}         counter of failed member queries by library code
//
// The server is a ScrapeServer: idle or slow clients cannot keep a scrape
// waiting (see scrapeServer.h for its limits).
//
// Threads: update() from the watch's thread, answers from the server's; one
// mutex between them.
#pragma once

#include <map>
#include <cstdint>
#include <mutex>
#include <string>
#include <utility>

#include "domainSession.h"
#include "scrapeServer.h"

namespace ztsdctl {

// "127.0.0.1:9464", "[::1]:0" -> host and port (0 = any). Throws
// std::invalid_argument for anything else.
std::pair<std::string, std::uint16_t> parseListenAddress(const std::string& listen);

class MetricsServer {
public:
    explicit MetricsServer(std::string domainUri);
    ~MetricsServer();  // stops
    MetricsServer(const MetricsServer&) = delete;
    MetricsServer& operator=(const MetricsServer&) = delete;

    // Listens on HOST:PORT ("127.0.0.1:9464", "[::1]:0"; port 0 = ephemeral).
    // Throws std::invalid_argument for a malformed address, std::runtime_error
    // when it cannot listen. Returns the URL it serves, http://HOST:PORT/metrics.
    std::string start(const std::string& listen);
    void stop();

    void update(const CheckResult& check, double duration_s);

    // The exposition text (what GET /metrics answers).
    std::string text() const;

private:
    struct Member {
        bool coherent = false;
        bool reachable = false;
        std::uint32_t losses = 0;
    };
    std::string domainUri_;
    mutable std::mutex mutex_;
    bool checked_ = false;
    bool domainCoherent_ = false;
    std::map<std::string, Member> members_;
    std::map<std::int32_t, std::uint64_t> errors_;
    std::vector<std::uint64_t> buckets_;  // cumulative counts per bound of kBounds
    double durationSum_ = 0;
    std::uint64_t checks_ = 0;
    ScrapeServer server_;
};

}  // namespace ztsdctl
