#include <gtest/gtest.h>

#include <chrono>
#include <climits>
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

// The conversion is the exact floor of counter * 1e9 / frequency at the
// rates performance counters run at and at counts of long uptimes, where
// the plain product would overflow.
TEST(MonotonicStopWatch, CountsBecomeExactNanosecondsAtOddFrequenciesAndLongUptimes) {
    const std::int64_t frequencies[] = {1, 3, 1000, 3579545, 10000000, 14318180, 2441406, 24000000,
                                        1000000000, 2399999999, 3000000007LL, 9223372036LL};
    for (const std::int64_t frequency : frequencies) {
        // From zero to about 292 years' worth, the largest the result can hold.
        const std::int64_t largest = static_cast<std::int64_t>(
            (static_cast<__int128>(INT64_MAX) * frequency) / 1000000000 - frequency);
        for (const std::int64_t counter : {std::int64_t{0}, std::int64_t{1}, frequency - 1, frequency,
                                           frequency * 7 + frequency / 3, largest / 1000003, largest / 3,
                                           largest - 1, largest}) {
            const __int128 exact = static_cast<__int128>(counter) * 1000000000 / frequency;
            ASSERT_EQ(static_cast<__int128>(ztsdtools::countsToNs(counter, frequency)), exact)
                << "counter " << counter << " at " << frequency << " Hz";
        }
    }
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
