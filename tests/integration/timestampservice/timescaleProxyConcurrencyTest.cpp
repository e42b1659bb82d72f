// Readings of one remote timescale from several threads at once, as a
// correlator's sampling task and the caller's threads make them: every
// reading is true and they share the one connection.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "integration/timestampservice/daemonTestSupport.h"

namespace {

using TimescaleProxyDaemonConcurrencyTest = daemontest::DaemonFixture;

TEST_F(TimescaleProxyDaemonConcurrencyTest, ThreadsShareOneConnectionAndEveryReadingIsTrue) {
    auto proxy = makeProxy();
    constexpr int kThreads = 6;
    constexpr int kReadings = 50;
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            ztsdlib_Timestamp last{};
            for (int k = 0; k < kReadings; ++k) {
                const ztsdlib_Timestamp before = daemon.timeAt(daemontest::hostNow());
                ztsdlib_Timestamp t{};
                proxy->getTime(t, nullptr);
                const ztsdlib_Timestamp after = daemon.now();
                if (!daemontest::notAfter(before, t) || !daemontest::notAfter(t, after) ||
                    !daemontest::notAfter(last, t))
                    ++wrong;
                last = t;
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(daemon.callCount(), 1u + kThreads * kReadings);
    EXPECT_EQ(daemon.connectionCount(), 2u);  // the handshake's and the shared one
}

TEST_F(TimescaleProxyDaemonConcurrencyTest, ThreadsRecoverTogetherFromDroppedConnections) {
    auto proxy = makeProxy(1000, 5);
    std::atomic<bool> stop{false};
    std::atomic<int> failures{0};
    std::atomic<int> readings{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
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
    }
    for (int i = 0; i < 10; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        if (i % 2) daemon.dropConnections(); else daemon.dropCalls(1);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    stop = true;
    for (auto& t : threads) t.join();
    EXPECT_EQ(failures.load(), 0);  // one lost connection costs one attempt, never a reading
    EXPECT_GT(readings.load(), 10);
}

}  // namespace
