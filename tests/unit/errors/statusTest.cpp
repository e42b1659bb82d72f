#include <gtest/gtest.h>

#include <new>
#include <stdexcept>
#include <string>

#include "errors/errorCodes.h"
#include "errors/exception.h"
#include "errors/jsonWriter.h"
#include "errors/status.h"
#include "unit/support/statusFixture.h"

using namespace zterr;
using ztsdtest::OwnedStatus;
using ztsdtest::RecordingAllocator;

namespace {
const zterr_ErrorSite kSite{"objects\\codegen\\ztsdlib\\ztsdlib", 212, "ztsdlib", "ztapalerr_invalidParameter"};
const zterr_ErrorSite kOtherSite{"source\\x", 7, "ztsdlib", "ztapalerr_osFault"};
}  // namespace

TEST(StatusPrecedence, FirstErrorWinsAndWarningsGiveWayOnlyToErrors) {
    OwnedStatus st;
    EXPECT_FALSE(setError(&st, 0, kSite));  // success is never recorded
    EXPECT_EQ(st.s.json, nullptr);

    EXPECT_TRUE(setError(&st, 411369, kOtherSite));
    EXPECT_FALSE(setError(&st, 411370, kSite));  // a warning never replaces a warning
    EXPECT_EQ(st.s.code, 411369);
    EXPECT_TRUE(setError(&st, -52005, kSite));  // an error replaces a warning
    const std::string first = st.text();
    EXPECT_FALSE(setError(&st, -52008, kOtherSite));  // nor an error an error
    EXPECT_FALSE(setError(&st, 3, kOtherSite));       // nor a warning an error
    EXPECT_EQ(st.s.code, -52005);
    EXPECT_EQ(st.text(), first);
}

TEST(StatusSetError, WritesTheSiteReportInPlaceOrWithoutMemoryOnlyTheCode) {
    OwnedStatus st;
    ASSERT_TRUE(setError(&st, -52005, kSite));
    EXPECT_EQ(st.text(),
              "{\"error_constant\":\"ztapalerr_invalidParameter\",\"file\":\"objects\\\\codegen\\\\ztsdlib\\\\ztsdlib\","
              "\"line\":212,\"component\":\"ztsdlib\"}");
    EXPECT_EQ(st.s.capacity, 512u);
    EXPECT_TRUE(ztsdtest::hasSentinelLayout(st.s));

    OwnedStatus noComponent;
    setError(&noComponent, -1, zterr_ErrorSite{"f", -3, nullptr, "c"});
    EXPECT_EQ(noComponent.text(), "{\"error_constant\":\"c\",\"file\":\"f\",\"line\":-3}");

    zterr_Status zero{};  // no callback at all
    zterr_Status refusing{0, 0, &ztsdtest::refuseAll, nullptr};
    for (zterr_Status* s : {&zero, &refusing}) {
        EXPECT_TRUE(setError(s, -52005, kSite));
        EXPECT_EQ(s->code, -52005);
        EXPECT_EQ(s->json, nullptr);
    }
}

TEST(StatusSetError, GrowsACallersBufferByTheDoublingRuleAndKeepsTextValid) {
    RecordingAllocator::reset();
    zterr_Status st{0, 0, &RecordingAllocator::reallocate, nullptr};
    ASSERT_TRUE(setError(&st, -52005, kSite));
    // 4 first, then 2c - 2 each time until the report fits.
    ASSERT_GE(RecordingAllocator::requests.size(), 2u);
    EXPECT_EQ(RecordingAllocator::requests[0], 4u);
    for (std::size_t i = 1; i < RecordingAllocator::requests.size(); ++i)
        EXPECT_EQ(RecordingAllocator::requests[i], 2 * RecordingAllocator::requests[i - 1] - 2);
    EXPECT_TRUE(ztsdtest::hasSentinelLayout(st));
    EXPECT_TRUE(ztsdtest::strictlyValid(st.json));
    EXPECT_NE(std::string(st.json).find("\"component\":\"ztsdlib\""), std::string::npos);
    RecordingAllocator::reallocate(&st, 0);

    // A callback that gives up part way leaves a shorter report that is still
    // one object. (Giving up at any call, or lying, is the fuzz target's.)
    RecordingAllocator::reset();
    RecordingAllocator::refuseAfter = 3;
    zterr_Status partial{0, 0, &RecordingAllocator::reallocate, nullptr};
    EXPECT_TRUE(setError(&partial, -52005, kSite));
    ASSERT_NE(partial.json, nullptr);
    EXPECT_TRUE(ztsdtest::strictlyValid(partial.json)) << partial.json;
    EXPECT_EQ(partial.json[0], '{');
    RecordingAllocator::reallocate(&partial, 0);
}

TEST(StatusDefaultReallocate, AllocatesPowersOfTwoFrom512AndKeepsText) {
    zterr_Status st = makeOwnedStatus();
    EXPECT_TRUE(defaultReallocate(&st, 4));
    EXPECT_EQ(st.capacity, 512u);
    EXPECT_STREQ(st.json, "{}");
    EXPECT_TRUE(ztsdtest::hasSentinelLayout(st));
    char* before = st.json;
    EXPECT_TRUE(defaultReallocate(&st, 300));  // not larger: nothing changes
    EXPECT_EQ(st.json, before);
    EXPECT_EQ(st.capacity, 512u);
    std::strcpy(st.json, "{\"k\":1}");
    EXPECT_TRUE(defaultReallocate(&st, 513));
    EXPECT_EQ(st.capacity, 1024u);
    EXPECT_STREQ(st.json, "{\"k\":1}");
    EXPECT_TRUE(ztsdtest::hasSentinelLayout(st));
    EXPECT_FALSE(defaultReallocate(&st, 0x80000000u));
    EXPECT_EQ(st.capacity, 1024u);
    EXPECT_TRUE(defaultReallocate(&st, 0));
    EXPECT_EQ(st.json, nullptr);
    EXPECT_EQ(st.capacity, 0u);
}

TEST(StatusMerge, MovesBetweenRecordsOfOneCallbackAndCopiesOtherwise) {
    OwnedStatus source, destination;
    setError(&source, -52008, kOtherSite);
    const std::string text = source.text();
    char* buffer = source.s.json;
    ASSERT_TRUE(mergeStatus(&destination, &source));
    EXPECT_EQ(destination.s.code, -52008);
    EXPECT_EQ(destination.s.json, buffer);  // moved, not copied
    EXPECT_EQ(source.s.json, nullptr);
    EXPECT_EQ(source.s.capacity, 0u);
    EXPECT_EQ(destination.text(), text);

    RecordingAllocator::reset();
    OwnedStatus other;
    setError(&other, 17, kSite);  // a warning
    zterr_Status callers{0, 0, &RecordingAllocator::reallocate, nullptr};
    ASSERT_TRUE(mergeStatus(&callers, &other));
    EXPECT_EQ(callers.code, 17);
    EXPECT_EQ(std::string(callers.json), other.text());
    EXPECT_NE(other.s.json, nullptr);  // the source keeps its copy
    EXPECT_TRUE(ztsdtest::hasSentinelLayout(callers));

    // Precedence applies: an error is not replaced.
    OwnedStatus error;
    setError(&error, -1, kSite);
    EXPECT_TRUE(mergeStatus(&callers, &error));
    EXPECT_EQ(callers.code, -1);
    EXPECT_FALSE(mergeStatus(&callers, &destination));
    EXPECT_EQ(callers.code, -1);
    RecordingAllocator::reallocate(&callers, 0);
}

TEST(StatusNestedError, CollectsEveryInnerErrorWithItsCodeInOneArray) {
    OwnedStatus outer, inner1, inner2;
    setError(&outer, -52024, kSite);
    setError(&inner1, -411361, kOtherSite);
    setError(&inner2, -52007, kSite);
    zterr_JsonCursor c = beginAppend(&inner2);
    appendInt32(c.position, "code", 99, &c);  // an inner report that names its own code keeps it

    EXPECT_TRUE(attachNestedError(&outer, &inner1));
    EXPECT_TRUE(attachNestedError(&outer, &inner2));
    EXPECT_EQ(outer.s.code, -52024);
    auto doc = ztsdtest::parseJson(outer.text());
    ASSERT_TRUE(doc) << outer.text();
    cJSON* nested = cJSON_GetObjectItemCaseSensitive(doc.get(), "nested_error");
    ASSERT_TRUE(cJSON_IsArray(nested));
    ASSERT_EQ(cJSON_GetArraySize(nested), 2);
    EXPECT_EQ(cJSON_GetObjectItem(cJSON_GetArrayItem(nested, 0), "code")->valueint, -411361);
    EXPECT_STREQ(cJSON_GetObjectItem(cJSON_GetArrayItem(nested, 0), "error_constant")->valuestring,
                 "ztapalerr_osFault");
    EXPECT_EQ(cJSON_GetObjectItem(cJSON_GetArrayItem(nested, 1), "code")->valueint, 99);
    EXPECT_TRUE(ztsdtest::strictlyValid(outer.s.json));

    // An inner record without text still contributes its code.
    zterr_Status bare{-5, 0, nullptr, nullptr};
    OwnedStatus host;
    setError(&host, -52024, kSite);
    EXPECT_TRUE(attachNestedError(&host, &bare));
    EXPECT_NE(host.text().find("\"nested_error\":[{\"code\":-5}]"), std::string::npos) << host.text();
}

TEST(StatusTranslation, ClassifiesLibraryMemoryStandardAndUnknownExceptions) {
    auto translate = [](auto thrower, OwnedStatus& st) {
        try {
            thrower();
        } catch (...) {
            translateCurrentException(&st);
        }
    };
    OwnedStatus lib;
    translate([] { raise(kOtherSite, -52008, "ztsyncdomain_debug", {{"message", "m"}}); }, lib);
    EXPECT_EQ(lib.s.code, -52008);
    EXPECT_NE(lib.text().find("\"ztsyncdomain_debug\":{\"message\":\"m\"}"), std::string::npos);

    OwnedStatus memory;
    translate([] { throw std::bad_alloc(); }, memory);
    EXPECT_EQ(memory.s.code, -52000);
    EXPECT_EQ(memory.text(),
              "{\"error_constant\":\"ztapalerr_memoryFull\",\"file\":\"includes\\\\zterr/tools/exception_errStatus\","
              "\"line\":62,\"component\":\"ztsdlib\",\"std_exception_what\":\"std::bad_alloc\"}");

    OwnedStatus standard;
    translate([] { throw std::invalid_argument("invalid stoull argument"); }, standard);
    EXPECT_EQ(standard.s.code, -52003);
    EXPECT_NE(standard.text().find("\"line\":69"), std::string::npos);
    EXPECT_NE(standard.text().find("\"std_exception_what\":\"invalid stoull argument\""), std::string::npos);

    OwnedStatus unknown;
    translate([] { throw 42; }, unknown);
    EXPECT_EQ(unknown.s.code, -52003);
    EXPECT_NE(unknown.text().find("\"line\":74"), std::string::npos);
    EXPECT_EQ(unknown.text().find("std_exception_what"), std::string::npos);

    // A record that already holds an error keeps it.
    translate([] { throw std::bad_alloc(); }, lib);
    EXPECT_EQ(lib.s.code, -52008);
}

TEST(LibraryException, CarriesDetailsInOrderAndCopiesDeeply) {
    std::string owned = "owned text";
    try {
        raise(ZTERR_SITE("source\\ztsdlib\\linearRegression", name::ztapalerr_invalidParameter),
              code::ztapalerr_invalidParameter, "ztsyncdomain_debug",
              {{"message", "Max history size needs to be >= 2."},
               {"maxHistorySize", std::uint64_t{1}},
               {"signed", -7},
               {"big", std::int64_t{-9000000000}},
               {"flag", true},
               {"text", owned},
               Detail::raw("raw", "[1,{\"a\":null}]")});
        FAIL() << "raise returned";
    } catch (const Exception& e) {
        EXPECT_EQ(e.code(), -52005);
        const std::string what = e.what();
        EXPECT_NE(what.find("\"ztsyncdomain_debug\":{\"message\":\"Max history size needs to be >= 2.\","
                            "\"maxHistorySize\":1,\"signed\":-7,\"big\":-9000000000,\"flag\":true,"
                            "\"text\":\"owned text\",\"raw\":[1,{\"a\":null}]}"),
                  std::string::npos)
            << what;
        EXPECT_NE(what.find("\"file\":\"source\\\\ztsdlib\\\\linearRegression\""), std::string::npos);
        EXPECT_TRUE(ztsdtest::strictlyValid(e.what()));

        auto copy = std::make_unique<Exception>(e);
        EXPECT_NE(copy->status().json, e.status().json);
        EXPECT_STREQ(copy->what(), e.what());
        Exception assigned(makeOwnedStatus());
        assigned = *copy;
        copy.reset();
        EXPECT_STREQ(assigned.what(), e.what());
        EXPECT_EQ(assigned.code(), -52005);
    }
    // Made from a report, the exception takes its text over: the report is
    // left empty, so that releasing it cannot free the text a second time.
    zterr_Status report = makeReport(ZTERR_SITE("source\\ztsdlib\\x", name::ztapalerr_osFault), -52008, "d", {});
    const char* text = report.json;
    ASSERT_NE(text, nullptr);
    const Exception taken(std::move(report));
    EXPECT_EQ(taken.status().json, text);
    EXPECT_EQ(report.json, nullptr);
    EXPECT_EQ(report.capacity, 0u);
}
