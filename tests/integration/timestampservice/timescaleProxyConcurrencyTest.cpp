// Readings of one remote timescale from several threads at once, as a
// correlator's sampling task and the caller's threads make them: every
// reading is true, none waits for another, and a few connections serve them.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "integration/timestampservice/daemonTestSupport.h"

namespace {

using TimescaleProxyDaemonConcurrencyTest = daemontest::DaemonFixture;

TEST_F(TimescaleProxyDaemonConcurrencyTest, ThreadsReadSideBySideAndEveryReadingIsTrue) {
    auto proxy = makeProxy();
    constexpr int kThreads = 6;
    constexpr int kReadings = 50;
    std::atomic<int> wrong{0};
    ztsdtest::FanOut(kThreads, [&](int) {
        ztsdlib_Timestamp last{};
        for (int k = 0; k < kReadings; ++k) {
            const ztsdlib_Timestamp before = daemon.timeAt(daemontest::hostNow());
            ztsdlib_Timestamp t{};
            proxy->getTime(t, nullptr);
            const ztsdlib_Timestamp after = daemon.now();
            if (!daemontest::notAfter(before, t) || !daemontest::notAfter(t, after) || !daemontest::notAfter(last, t))
                ++wrong;
            last = t;
        }
    }).join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(daemon.callCount(), 1u + kThreads * kReadings);
    // The handshake's, and at most one per thread, kept for the next readings.
    const std::uint64_t connections = daemon.connectionCount();
    EXPECT_LE(connections, 1u + kThreads);
    for (int k = 0; k < 10; ++k) expectTrueReading(*proxy);
    EXPECT_EQ(daemon.connectionCount(), connections);
}

// A reading held by the daemon (the first attempt waits out its 2 s) keeps
// its connection; a second reader meanwhile opens another and answers at
// once, and the held one still ends in time with a true reading.
TEST_F(TimescaleProxyDaemonConcurrencyTest, ASecondReaderDoesNotWaitForOneTheDaemonHolds) {
    auto proxy = makeProxy(2000, 5);
    expectTrueReading(*proxy);  // an idle connection to take
    daemon.stallCalls(1);
    long long first_ms = -1;
    std::thread held([&] { first_ms = daemontest::elapsed_ms([&] { expectTrueReading(*proxy); }); });
    const bool stalled = ztsdtest::eventually([&] { return daemon.stalledCallCount() == 1; });
    const long long second_ms = daemontest::elapsed_ms([&] { expectTrueReading(*proxy); });
    held.join();
    EXPECT_TRUE(stalled);
    EXPECT_LT(second_ms, 500);
    EXPECT_GE(first_ms, 2000);  // it was held over the second reading
}

TEST_F(TimescaleProxyDaemonConcurrencyTest, ThreadsRecoverTogetherFromDroppedConnections) {
    auto proxy = makeProxy(1000, 5);
    std::atomic<bool> stop{false};
    std::atomic<int> failures{0};
    std::atomic<int> readings{0};
    ztsdtest::FanOut readers(4, [&](int) {
        while (!stop) {
            ztsdlib_Timestamp t{};
            try {
                proxy->getTime(t, nullptr);
                ++readings;
            } catch (...) {
                ++failures;
            }
        }
    });
    for (int i = 0; i < 10; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        if (i % 2) daemon.dropConnections(); else daemon.dropCalls(1);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    stop = true;
    readers.join();
    EXPECT_EQ(failures.load(), 0);  // one lost connection costs one attempt, never a reading
    EXPECT_GT(readings.load(), 10);
}

}  // namespace
