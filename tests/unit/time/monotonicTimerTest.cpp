#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <thread>

#include "time/monotonicTimer.h"

using ztsdtools::MonotonicStopWatch;
using ztsdtools::MonotonicTimer;

namespace {
void sleep_ms(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

std::int64_t chronoNow_ns() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}
}  // namespace

// The counter-to-nanoseconds conversion runs on the same clock as the
// standard library's steady clock, never goes back, and a stopwatch counts
// whole milliseconds from its last restart.
TEST(MonotonicStopWatch, ReadsTheSteadyClockAndCountsWholeMillisecondsFromItsLastRestart) {
    const std::int64_t before_ns = chronoNow_ns();
    const std::int64_t ours_ns = ztsdtools::steadyNow_ns();
    const std::int64_t after_ns = chronoNow_ns();
    EXPECT_GE(ours_ns, before_ns - 1000);
    EXPECT_LE(ours_ns, after_ns + 1000);
    std::int64_t previous_ns = ours_ns;
    for (int i = 0; i < 10000; ++i) {
        const std::int64_t now_ns = ztsdtools::steadyNow_ns();
        ASSERT_GE(now_ns, previous_ns);
        previous_ns = now_ns;
    }

    MonotonicStopWatch watch;
    const std::int64_t started_ns = chronoNow_ns();
    sleep_ms(25);
    const std::int64_t elapsed_ms = watch.elapsed_ms();
    const std::int64_t bound_ms = (chronoNow_ns() - started_ns) / 1000000 + 1;
    EXPECT_GE(elapsed_ms, 25);
    EXPECT_LE(elapsed_ms, bound_ms);
    watch.restart();
    EXPECT_LT(watch.elapsed_ms(), elapsed_ms);
}

TEST(MonotonicTimer, ExpiresOnceItsTimeoutHasElapsedAndRestartsClearTheExpiry) {
    struct Case {
        std::int64_t timeout_ms;
        int sleep_ms;
        bool expired;
    };
    const Case cases[] = {
        {0, 0, true},       // a zero time-out is expired at its first test
        {-5, 0, true},      // so is one already past
        {20, 30, true},     // elapsed >= time-out
        {60000, 0, false},  // far from its time-out
    };
    for (const Case& c : cases) {
        MonotonicTimer timer(c.timeout_ms);
        sleep_ms(c.sleep_ms);
        EXPECT_EQ(timer.hasExpired(), c.expired) << "timeout " << c.timeout_ms;
        EXPECT_EQ(timer.timeout(), c.timeout_ms);
    }

    MonotonicTimer timer(0);
    ASSERT_TRUE(timer.hasExpired());
    timer.restart(60000);  // a new time-out forgets the earlier expiry
    EXPECT_FALSE(timer.hasExpired());
    EXPECT_EQ(timer.timeout(), 60000);

    MonotonicTimer shortTimer(20);
    sleep_ms(30);
    ASSERT_TRUE(shortTimer.hasExpired());
    shortTimer.restart();  // same time-out, the watch starts again
    EXPECT_FALSE(shortTimer.hasExpired());
    EXPECT_EQ(shortTimer.timeout(), 20);
    sleep_ms(30);
    EXPECT_TRUE(shortTimer.hasExpired());
}
