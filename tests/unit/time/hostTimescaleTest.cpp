#include <gtest/gtest.h>

#include <chrono>

#include "time/hostTimescale.h"

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
    EXPECT_EQ(t.seconds, 1844674407370u);
    EXPECT_EQ(t.nanos, 955161500u);
}

TEST(HostTimescale, ReadsTheWallClockCountedFrom1601AndDescribesItself) {
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

    EXPECT_EQ(HostTimescale("a\"b\\").toJson(), "{\"uri\":\"a\"b\\\"}");  // deliberately not escaped
}
