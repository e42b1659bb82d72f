// The correlator family through the C interface, with real host timescales.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "time/timestamp.h"
#include "unit/support/statusFixture.h"
#include "unit/support/testTimescales.h"
#include "ztsdlib/ztsdlib.h"

using ztsdtest::OwnedStatus;

namespace {

const char* kOtherClockUri = "/localhost/ztsds/timescales/second";

long long difference_ns(const ztsdlib_Timestamp& a, const ztsdlib_Timestamp& b) {
    return static_cast<long long>(ztsdtest::nanosOf(a)) - static_cast<long long>(ztsdtest::nanosOf(b));
}

std::string takeText(char* text) {
    std::string copy = text ? text : "<null>";
    std::free(text);
    return copy;
}

struct HostClocks {
    OwnedStatus status;
    ztsdlib_Timescale* system = ztsdlib_HostTimescale_create(ZTSDLIB_HOST_TIMESCALE_URI, &status);
    ztsdlib_Timescale* second = ztsdlib_HostTimescale_create(kOtherClockUri, &status);
    ~HostClocks() {
        ztsdlib_Timescale_delete(system);
        ztsdlib_Timescale_delete(second);
    }
};

}  // namespace

TEST(CorrelatorExports, LinearCorrelatorBetweenTwoHostClocksMapsNowToNow) {
    HostClocks clocks;
    OwnedStatus st;
    ztsdlib_TimestampCorrelator* linear =
        ztsdlib_LinearCorrelator_create("/corr/linear", clocks.system, clocks.second, 5, 10, 3000, &st);
    ASSERT_NE(linear, nullptr);
    EXPECT_FALSE(ztsdlib_TimestampCorrelator_isRunning(linear, &st));
    ztsdlib_TimestampCorrelator_start(linear, &st);
    EXPECT_TRUE(ztsdlib_TimestampCorrelator_isRunning(linear, &st));
    ASSERT_EQ(st.s.code, 0) << st.text();

    ztsdlib_Timestamp now{}, mapped{}, back{};
    ztsdlib_Timescale_getTime(clocks.system, &now, &st);
    ztsdlib_TimestampCorrelator_correlate(linear, &now, ZTSDLIB_HOST_TIMESCALE_URI, &mapped, &st);
    ASSERT_EQ(st.s.code, 0) << st.text();
    // One clock read twice in a row: the line is the identity within the
    // time between two reads (well below 20 ms) and its jitter.
    EXPECT_LT(std::llabs(difference_ns(mapped, now)), 20000000LL);
    ztsdlib_TimestampCorrelator_correlate(linear, &mapped, kOtherClockUri, &back, &st);
    EXPECT_LT(std::llabs(difference_ns(back, now)), 1000LL);

    // Wrapped in a caching correlator: the same answer, then from the cache.
    ztsdlib_TimestampCorrelator* caching = ztsdlib_CachingCorrelator_create("/corr/caching", linear, &st);
    ztsdlib_Timestamp cached1{}, cached2{};
    ztsdlib_TimestampCorrelator_correlate(caching, &now, ZTSDLIB_HOST_TIMESCALE_URI, &cached1, &st);
    ztsdlib_TimestampCorrelator_stop(caching, &st);  // passed to the linear correlator
    EXPECT_FALSE(ztsdlib_TimestampCorrelator_isRunning(linear, &st));
    ztsdlib_TimestampCorrelator_correlate(caching, &now, ZTSDLIB_HOST_TIMESCALE_URI, &cached2, &st);
    ASSERT_EQ(st.s.code, 0) << st.text();
    EXPECT_TRUE(ztsdlib::sameTimestamp(cached1, cached2));
    EXPECT_STREQ(ztsdlib_TimestampCorrelator_getUri(caching, &st), "/corr/caching");
    EXPECT_EQ(takeText(ztsdlib_TimestampCorrelator_toJson(caching, &st)),
              takeText(ztsdlib_TimestampCorrelator_toJson(linear, &st)));

    // A stopped linear correlator refuses.
    ztsdlib_TimestampCorrelator_correlate(linear, &now, ZTSDLIB_HOST_TIMESCALE_URI, &mapped, &st);
    EXPECT_EQ(st.s.code, -52017);

    ztsdlib_TimestampCorrelator_delete(caching);
    ztsdlib_TimestampCorrelator_delete(linear);
}

TEST(CorrelatorExports, GettersReturnStoredTextAndToJsonAFreshCopy) {
    HostClocks clocks;
    OwnedStatus st;
    ztsdlib_TimestampCorrelator* linear =
        ztsdlib_LinearCorrelator_create("/corr/l", clocks.system, clocks.second, 1000, 2, 500, &st);
    ztsdlib_TimestampCorrelator* nop = ztsdlib_NopCorrelator_create("/corr/n", clocks.system, clocks.second, &st);
    ASSERT_EQ(st.s.code, 0) << st.text();

    const char* uri = ztsdlib_TimestampCorrelator_getUri(linear, &st);
    EXPECT_STREQ(uri, "/corr/l");
    EXPECT_EQ(uri, ztsdlib_TimestampCorrelator_getUri(linear, &st));  // the object's own text, not a copy
    // The timescales' own stored URIs.
    EXPECT_EQ(ztsdlib_TimestampCorrelator_getTimescale1Uri(linear, &st), ztsdlib_Timescale_getUri(clocks.system, &st));
    EXPECT_EQ(ztsdlib_TimestampCorrelator_getTimescale2Uri(nop, &st), ztsdlib_Timescale_getUri(clocks.second, &st));

    char* json = ztsdlib_TimestampCorrelator_toJson(linear, &st);
    ztsdlib_TimestampCorrelator_delete(linear);
    EXPECT_STREQ(json,
                 "{ \"type\" : \"linear\", \"uri\" : \"/corr/l\", \"timescaleUri1\" : "
                 "\"/localhost/ztsds/timescales/system\", \"timescaleUri2\" : \"/localhost/ztsds/timescales/second\", "
                 "\"samplingIntervalMs\" : 1000, \"maxSampleSize\" : 2, \"maxWaitForFirstCorrelateMs\" : 500, "
                 "\"isThreadRunning\" : false }");
    std::free(json);

    ztsdlib_Timestamp t{3, 7, 1, true}, out{};
    ztsdlib_TimestampCorrelator_correlate(nop, &t, kOtherClockUri, &out, &st);
    EXPECT_TRUE(ztsdlib::sameTimestamp(out, t));
    EXPECT_TRUE(ztsdlib_TimestampCorrelator_isRunning(nop, &st));
    EXPECT_EQ(takeText(ztsdlib_TimestampCorrelator_toJson(nop, &st)),
              "{ \"type\" : \"nop\", \"uri\" : \"/corr/n\", \"timescaleUri1\" : \"/localhost/ztsds/timescales/system\", "
              "\"timescaleUri2\" : \"/localhost/ztsds/timescales/second\", \"isRunning\" : true }");
    EXPECT_EQ(st.s.code, 0) << st.text();
    ztsdlib_TimestampCorrelator_delete(nop);
}

// What the export frame does with an earlier error or a warning is tested
// once, in the frame's tests; here the names each export gives its arguments.
TEST(CorrelatorExports, ReportTheFirstMissingArgumentByName) {
    HostClocks clocks;
    ztsdlib_Timestamp t{}, out{};
    const std::string missing = "\"ztsyncdomain_debug\":{\"message\":\"Encountered missing parameter needed for task "
                                "completion.\",";
    {
        OwnedStatus st;  // null handle and null output: only the handle is named
        ztsdlib_TimestampCorrelator_correlate(nullptr, &t, "/x", nullptr, &st);
        EXPECT_EQ(st.s.code, -52005);
        EXPECT_NE(st.text().find(missing + "\"handle\":\"nullptr\"}"), std::string::npos) << st.text();
        EXPECT_EQ(st.text().find("correlatedTimestamp"), std::string::npos);
    }
    ztsdlib_TimestampCorrelator* nop = nullptr;
    {
        OwnedStatus st;
        nop = ztsdlib_NopCorrelator_create("/n", clocks.system, clocks.second, &st);
        const struct {
            const char* name;
            void (*call)(ztsdlib_TimestampCorrelator*, ztsdlib_Timestamp*, ztsdlib_Timestamp*, zterr_Status*);
        } cases[] = {
            {"timestampInSourceTimescale",
             [](ztsdlib_TimestampCorrelator* h, ztsdlib_Timestamp*, ztsdlib_Timestamp* o, zterr_Status* s) {
                 ztsdlib_TimestampCorrelator_correlate(h, nullptr, "/x", o, s);
             }},
            {"sourceTimescale",
             [](ztsdlib_TimestampCorrelator* h, ztsdlib_Timestamp* i, ztsdlib_Timestamp* o, zterr_Status* s) {
                 ztsdlib_TimestampCorrelator_correlate(h, i, nullptr, o, s);
             }},
            {"correlatedTimestamp",
             [](ztsdlib_TimestampCorrelator* h, ztsdlib_Timestamp* i, ztsdlib_Timestamp*, zterr_Status* s) {
                 ztsdlib_TimestampCorrelator_correlate(h, i, "/x", nullptr, s);
             }},
        };
        for (const auto& c : cases) {
            OwnedStatus one;
            c.call(nop, &t, &out, &one);
            EXPECT_NE(one.text().find(missing + "\"" + c.name + "\":\"nullptr\"}"), std::string::npos) << one.text();
        }
    }
    {
        OwnedStatus st;
        EXPECT_EQ(ztsdlib_LinearCorrelator_create("/l", clocks.system, nullptr, 1, 2, 3, &st), nullptr);
        EXPECT_NE(st.text().find(missing + "\"timescale2\":\"nullptr\"}"), std::string::npos);
        OwnedStatus st2;
        EXPECT_EQ(ztsdlib_NopCorrelator_create(nullptr, nullptr, nullptr, &st2), nullptr);
        EXPECT_NE(st2.text().find(missing + "\"correlatorUri\":\"nullptr\"}"), std::string::npos);
        OwnedStatus st3;
        EXPECT_EQ(ztsdlib_CachingCorrelator_create("/c", nullptr, &st3), nullptr);
        EXPECT_NE(st3.text().find(missing + "\"correlator\":\"nullptr\"}"), std::string::npos);
        OwnedStatus st4;
        EXPECT_FALSE(ztsdlib_TimestampCorrelator_isRunning(nullptr, &st4));
        EXPECT_EQ(st4.s.code, -52005);
    }
    ztsdlib_TimestampCorrelator_delete(nop);
    ztsdlib_TimestampCorrelator_delete(nullptr);
}
