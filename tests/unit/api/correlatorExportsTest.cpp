// The correlator family through the C interface, with real host timescales.
// A running linear correlator through these exports is the C consumer test's
// (tests/c); what the correlators compute is their own tests' (unit/time).
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "time/timestamp.h"
#include "unit/support/statusFixture.h"
#include "ztsdlib/ztsdlib.h"

using ztsdtest::OwnedStatus;
using ztsdtest::takeText;

namespace {

const char* kOtherClockUri = "/localhost/ztsds/timescales/second";

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

// Each create passes its arguments in their places (the describing texts
// show them), and the getters hand out the objects' own stored text.
TEST(CorrelatorExports, CreatesWireTheirArgumentsAndGettersReturnStoredText) {
    HostClocks clocks;
    OwnedStatus st;
    ztsdlib_TimestampCorrelator* linear =
        ztsdlib_LinearCorrelator_create("/corr/l", clocks.system, clocks.second, 1000, 2, 500, &st);
    EXPECT_EQ(takeText(ztsdlib_TimestampCorrelator_toJson(linear, &st)),
              "{ \"type\" : \"linear\", \"uri\" : \"/corr/l\", \"timescaleUri1\" : "
              "\"/localhost/ztsds/timescales/system\", \"timescaleUri2\" : \"/localhost/ztsds/timescales/second\", "
              "\"samplingIntervalMs\" : 1000, \"maxSampleSize\" : 2, \"maxWaitForFirstCorrelateMs\" : 500, "
              "\"isThreadRunning\" : false }");
    ztsdlib_TimestampCorrelator_delete(linear);
    ztsdlib_TimestampCorrelator* symmetric =
        ztsdlib_LinearCorrelator_createSymmetric("/corr/s", clocks.system, clocks.second, 7, 3, 9, &st);
    EXPECT_EQ(takeText(ztsdlib_TimestampCorrelator_toJson(symmetric, &st)),
              "{ \"type\" : \"linear\", \"uri\" : \"/corr/s\", \"timescaleUri1\" : "
              "\"/localhost/ztsds/timescales/system\", \"timescaleUri2\" : \"/localhost/ztsds/timescales/second\", "
              "\"samplingIntervalMs\" : 7, \"maxSampleSize\" : 3, \"maxWaitForFirstCorrelateMs\" : 9, "
              "\"sampling\" : \"symmetric\", \"isThreadRunning\" : false }");
    // No quality before a start (as correlate: too few samples).
    ztsdlib_CorrelationQuality quality{};
    OwnedStatus early;
    ztsdlib_TimestampCorrelator_getQuality(symmetric, &quality, &early);
    EXPECT_EQ(early.s.code, -52010) << early.text();
    ztsdlib_TimestampCorrelator_delete(symmetric);

    ztsdlib_TimestampCorrelator* nop = ztsdlib_NopCorrelator_create("/corr/n", clocks.system, clocks.second, &st);
    ztsdlib_TimestampCorrelator* caching = ztsdlib_CachingCorrelator_create("/corr/c", nop, &st);
    ASSERT_NE(caching, nullptr) << st.text();
    const char* uri = ztsdlib_TimestampCorrelator_getUri(caching, &st);
    EXPECT_STREQ(uri, "/corr/c");
    EXPECT_EQ(uri, ztsdlib_TimestampCorrelator_getUri(caching, &st));  // not a copy
    EXPECT_EQ(ztsdlib_TimestampCorrelator_getTimescale1Uri(nop, &st), ztsdlib_Timescale_getUri(clocks.system, &st));
    EXPECT_EQ(ztsdlib_TimestampCorrelator_getTimescale2Uri(nop, &st), ztsdlib_Timescale_getUri(clocks.second, &st));

    ztsdlib_Timestamp t{3, 7, 1, true}, out{};
    ztsdlib_TimestampCorrelator_correlate(caching, &t, kOtherClockUri, &out, &st);
    EXPECT_TRUE(ztsdlib::sameTimestamp(out, t));
    EXPECT_TRUE(ztsdlib_TimestampCorrelator_isRunning(caching, &st));
    OwnedStatus notLinear;
    ztsdlib_TimestampCorrelator_getQuality(caching, &quality, &notLinear);
    EXPECT_EQ(notLinear.s.code, -52005) << notLinear.text();
    char* json = ztsdlib_TimestampCorrelator_toJson(caching, &st);  // the wrapped correlator's
    ztsdlib_TimestampCorrelator_delete(caching);
    ztsdlib_TimestampCorrelator_delete(nop);
    EXPECT_NE(takeText(json).find("\"type\" : \"nop\", \"uri\" : \"/corr/n\""), std::string::npos);
    EXPECT_EQ(st.s.code, 0) << st.text();
}

// What the export frame does with the first null pointer is tested once, in
// the frame's tests; here the names each export gives its arguments.
TEST(CorrelatorExports, ReportTheFirstMissingArgumentByName) {
    HostClocks clocks;
    OwnedStatus made;
    ztsdlib_TimestampCorrelator* nop = ztsdlib_NopCorrelator_create("/n", clocks.system, clocks.second, &made);
    ztsdlib_Timescale* system = clocks.system;
    ztsdlib_Timestamp t{}, out{};
    const std::vector<std::pair<std::string, std::function<void(zterr_Status*)>>> cases = {
        // Null handle and null output: only the handle is named.
        {"handle", [&](zterr_Status* s) { ztsdlib_TimestampCorrelator_correlate(nullptr, &t, "/x", nullptr, s); }},
        {"timestampInSourceTimescale",
         [&](zterr_Status* s) { ztsdlib_TimestampCorrelator_correlate(nop, nullptr, "/x", &out, s); }},
        {"sourceTimescale", [&](zterr_Status* s) { ztsdlib_TimestampCorrelator_correlate(nop, &t, nullptr, &out, s); }},
        {"correlatedTimestamp",
         [&](zterr_Status* s) { ztsdlib_TimestampCorrelator_correlate(nop, &t, "/x", nullptr, s); }},
        {"timescale2", [&](zterr_Status* s) { ztsdlib_LinearCorrelator_create("/l", system, nullptr, 1, 2, 3, s); }},
        {"correlatorUri", [&](zterr_Status* s) { ztsdlib_NopCorrelator_create(nullptr, nullptr, nullptr, s); }},
        {"correlator", [&](zterr_Status* s) { ztsdlib_CachingCorrelator_create("/c", nullptr, s); }},
        {"timescale1",
         [&](zterr_Status* s) { ztsdlib_LinearCorrelator_createSymmetric("/l", nullptr, system, 1, 2, 3, s); }},
        {"quality", [&](zterr_Status* s) { ztsdlib_TimestampCorrelator_getQuality(nop, nullptr, s); }},
    };
    const std::string missing = "\"ztsyncdomain_debug\":{\"message\":\"Encountered missing parameter needed for task "
                                "completion.\",";
    for (const auto& [name, call] : cases) {
        OwnedStatus st;
        call(&st);
        EXPECT_EQ(st.s.code, -52005) << name;
        EXPECT_NE(st.text().find(missing + "\"" + name + "\":\"nullptr\"}"), std::string::npos) << st.text();
    }
    ztsdlib_TimestampCorrelator_delete(nop);
}
