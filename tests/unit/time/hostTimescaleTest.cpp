#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "platform/clock.h"
#include "time/hostTimescale.h"
#include "time/monotonicTimer.h"

using ztsdlib::HostTimescale;

TEST(HostTimescale, SplitsIntervalsIntoSecondsAndNanos) {
    auto t = HostTimescale::fromIntervals100ns(123456789ULL);
    EXPECT_EQ(t.seconds, 12u);
    EXPECT_EQ(t.nanos, 345678900u);
    EXPECT_EQ(t.fractionalNanos, 0u);
    EXPECT_FALSE(t.isNegative);

    t = HostTimescale::fromIntervals100ns(10000000ULL * 13000000000ULL);
    EXPECT_EQ(t.seconds, 13000000000u);
    EXPECT_EQ(t.nanos, 0u);

    t = HostTimescale::fromIntervals100ns(UINT64_MAX);
    EXPECT_EQ(t.seconds, UINT64_MAX / 10000000ULL);
    EXPECT_EQ(t.nanos, static_cast<uint32_t>(UINT64_MAX % 10000000ULL) * 100u);
}

TEST(HostTimescale, ReadsTheWallClockCountedFrom1601) {
    HostTimescale ts("/localhost/ztsds/timescales/system");
    ztsdlib_Timestamp t{};
    t.fractionalNanos = 7;
    t.isNegative = true;
    zterr_Status status{};
    ts.getTime(t, &status);
    const auto unixSeconds = std::chrono::duration_cast<std::chrono::seconds>(
                                 std::chrono::system_clock::now().time_since_epoch())
                                 .count();
    // 11644473600 s separate 1601-01-01 from 1970-01-01.
    EXPECT_NEAR(static_cast<double>(t.seconds), static_cast<double>(unixSeconds + 11644473600LL), 2.0);
    EXPECT_EQ(t.nanos % 100u, 0u);
    EXPECT_LT(t.nanos, 1000000000u);
    EXPECT_EQ(t.fractionalNanos, 0u);
    EXPECT_FALSE(t.isNegative);
    EXPECT_EQ(status.code, 0);
    EXPECT_EQ(status.json, nullptr);
}

TEST(HostTimescale, DescribesItselfWithTheUriAsItStands) {
    EXPECT_EQ(HostTimescale("/localhost/ztsds/timescales/system").toJson(),
              "{\"uri\":\"/localhost/ztsds/timescales/system\"}");
    EXPECT_EQ(HostTimescale("").toJson(), "{\"uri\":\"\"}");
    // Deliberately not escaped.
    EXPECT_EQ(HostTimescale("a\"b\\").toJson(), "{\"uri\":\"a\"b\\\"}");
    EXPECT_EQ(HostTimescale("/u").getUri(), "/u");
}

TEST(MonotonicTimer, ExpiresAtItsTimeoutAndLatchesUntilRestarted) {
    ztsdtools::MonotonicTimer zero(0);
    EXPECT_TRUE(zero.hasExpired());

    ztsdtools::MonotonicTimer timer(20);
    EXPECT_FALSE(timer.hasExpired());
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_TRUE(timer.hasExpired());
    timer.restart(60000);
    EXPECT_FALSE(timer.hasExpired());  // a new time-out forgets the earlier expiry
    timer.restart(0);
    EXPECT_TRUE(timer.hasExpired());
    timer.restart(60000);
    EXPECT_FALSE(timer.hasExpired());
}

TEST(MonotonicStopWatch, MeasuresWholeMillisecondsOnTheSteadyClock) {
    ztsdtools::MonotonicStopWatch watch;
    EXPECT_GE(watch.elapsed_ms(), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(15));
    const auto elapsed = watch.elapsed_ms();
    EXPECT_GE(elapsed, 15);
    EXPECT_LT(elapsed, 5000);
    watch.restart();
    EXPECT_LT(watch.elapsed_ms(), elapsed);

    const auto a = ztsdtools::steadyNow_ns();
    const auto b = ztsdtools::steadyNow_ns();
    EXPECT_LE(a, b);
}
