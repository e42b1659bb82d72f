// Shared by the timestamp daemon tests: a started daemon serving one
// timescale on a clock 2.5 s ahead of the host's and 50 ppm fast, proxies
// over it with short time-outs, and checks that a reading lies between the
// daemon's true mapping of host readings taken before and after it.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>

#include "time/hostTimescale.h"
#include "timestampservice/timescaleProxy.h"
#include "unit/support/testTimescales.h"
#include "unit/support/timing.h"
#include "ztsd-sim/timestampDaemonSimulator.h"

namespace daemontest {

constexpr const char* kGmId = "00-80-2F-AA-BB-CC-DD-EE";
constexpr std::int64_t kOffset_ns = 2500000000;  // +2.5 s
constexpr std::int64_t kRate_ppb = 50000;        // +50 ppm

// A caller's name for the daemon's timescale gmId.
inline std::string callerUri(const std::string& gmId = kGmId) {
    return "/127.0.0.1:41234/ztsdwebs/resources/ztsd/timescales/" + gmId;
}

inline ztsdlib_Timestamp hostNow() {
    ztsdlib::HostTimescale host(ztsdlib::kHostTimescaleUri);
    ztsdlib_Timestamp t{};
    host.getTime(t, nullptr);
    return t;
}

inline bool notAfter(const ztsdlib_Timestamp& a, const ztsdlib_Timestamp& b) {
    return a.seconds < b.seconds || (a.seconds == b.seconds && a.nanos <= b.nanos);
}

// b - a in nanoseconds, for non-negative records less than 292 years apart.
inline std::int64_t nanosBetween(const ztsdlib_Timestamp& a, const ztsdlib_Timestamp& b) {
    return (static_cast<std::int64_t>(b.seconds) - static_cast<std::int64_t>(a.seconds)) * 1000000000 +
           (static_cast<std::int64_t>(b.nanos) - static_cast<std::int64_t>(a.nanos));
}

using ztsdtest::show;

class DaemonFixture : public ::testing::Test {
protected:
    void SetUp() override {
        daemon.addTimescale(kGmId);
        daemon.setClock(kOffset_ns, kRate_ppb);
        daemon.start();
    }

    // Short time-outs so that stalls cost little; attempts as the export's.
    std::unique_ptr<ztsdlib::TimescaleProxy> makeProxy(std::uint32_t timeout_ms = 2000,
                                                       std::uint32_t attempts = 5,
                                                       const std::string& uri = callerUri()) {
        ztsdlib::TimescaleProxySettings settings;
        settings.socketTimeout_ms = timeout_ms;
        settings.maxAttempts = attempts;
        return std::make_unique<ztsdlib::TimescaleProxy>(uri, daemon.host(), daemon.port(), settings);
    }

    // Reads the proxy and checks the reading against the daemon's mapping of
    // the host time just before and just after the call.
    void expectTrueReading(ztsdlib::TimescaleProxy& proxy) {
        const ztsdlib_Timestamp before = daemon.timeAt(hostNow());
        ztsdlib_Timestamp reading{};
        proxy.getTime(reading, nullptr);
        const ztsdlib_Timestamp after = daemon.timeAt(hostNow());
        EXPECT_TRUE(notAfter(before, reading) && notAfter(reading, after))
            << show(before) << " <= " << show(reading) << " <= " << show(after);
        EXPECT_EQ(reading.fractionalNanos, 0u);
        EXPECT_FALSE(reading.isNegative);
    }

    ztsdsim::TimestampDaemonSimulator daemon;
};

// Milliseconds that f takes.
template <typename F>
long long elapsed_ms(F&& f) {
    const auto start = std::chrono::steady_clock::now();
    f();
    return ztsdtest::msSince(start);
}

}  // namespace daemontest
