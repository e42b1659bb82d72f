#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "errors/jsonWriter.h"
#include "errors/status.h"
#include "unit/support/statusFixture.h"

using namespace zterr;
using ztsdtest::OwnedStatus;

namespace {
// A record whose text is exactly `text`, ready for appends.
void start(OwnedStatus& st, const char* text) { ASSERT_TRUE(placeText(&st, text)); }
}  // namespace

TEST(JsonWriterEscaping, EscapesControlBytesQuotesAndBackslashesOnly) {
    OwnedStatus st;
    start(st, "{}");
    zterr_JsonCursor c = beginAppend(&st);
    const char value[] = {'\x01', '\x7f', '\xc3', '\xa9', '\b', '\t', '\n', '\f', '\r', '"', '\\', '/', 'a', '\x1f', 0};
    appendString(c.position, "k\x01\"", value, &c);
    EXPECT_EQ(st.text(), "{\"k\\u0001\\\"\":\"\\u0001\\u007f\xc3\xa9\\b\\t\\n\\f\\r\\\"\\\\/a\\u001f\"}");
    EXPECT_EQ(escapedLength(value, sizeof value - 1), 6 + 6 + 1 + 1 + 2 * 7 + 1 + 1 + 6);
}

// Commas between members are pinned by the next test's text; here the
// first member, behind whitespace or in front of others.
TEST(JsonWriterMembers, PlacesCommasOnlyBetweenMembers) {
    OwnedStatus spaced;
    start(spaced, "{ \r\n\t}");
    zterr_JsonCursor c = beginAppend(&spaced);
    appendBool(c.position, "x", true, &c);
    EXPECT_EQ(spaced.text(), "{ \r\n\t\"x\":true}");

    // Inserting behind an opening brace puts the member first.
    OwnedStatus first;
    start(first, "{\"z\":0}");
    zterr_JsonCursor firstCursor{nullptr, growStatusBuffer, &first.s};
    appendUInt32(first.s.json, "y", 1, &firstCursor);
    EXPECT_EQ(first.text(), "{\"y\":1,\"z\":0}");
}

TEST(JsonWriterMembers, FormatsEveryValueKindAndNestsContainers) {
    OwnedStatus st;
    start(st, "{}");
    zterr_JsonCursor c = beginAppend(&st);
    char* p = appendInt32(c.position, "i32", INT32_MIN, &c);
    p = appendUInt32(p, "u32", UINT32_MAX, &c);
    p = appendInt64(p, "i64", INT64_MIN, &c);
    p = appendUInt64(p, "u64", UINT64_MAX, &c);
    p = appendLine(p, 212, &c);
    p = appendRaw(p, "raw", "{\"r\":[1]}", &c);
    char* inner = appendEmptyObject(p, "obj", &c) - 1;
    inner = appendString(inner, "in", "side", &c);
    p = inner + 1;
    char* array = appendEmptyArray(p, "arr", &c) - 1;
    array = appendInt32(array, nullptr, 1, &c);
    array = appendString(array, nullptr, "two", &c);
    ASSERT_NE(array, nullptr);
    EXPECT_EQ(st.text(),
              "{\"i32\":-2147483648,\"u32\":4294967295,\"i64\":-9223372036854775808,\"u64\":18446744073709551615,"
              "\"line\":212,\"raw\":{\"r\":[1]},\"obj\":{\"in\":\"side\"},\"arr\":[1,\"two\"]}");
    EXPECT_TRUE(ztsdtest::hasSentinelLayout(st.s));
}

TEST(JsonWriterMembers, NullPositionOrNonContainerStopsTheChainQuietly) {
    OwnedStatus st;
    start(st, "{\"a\":1}");
    zterr_JsonCursor c = beginAppend(&st);
    EXPECT_EQ(appendInt32(nullptr, "k", 1, &c), nullptr);
    EXPECT_EQ(appendInt32(st.s.json + 1, "k", 1, &c), nullptr);  // points at a quote
    EXPECT_EQ(st.text(), "{\"a\":1}");

    // Text that is not an object gives no cursor.
    OwnedStatus notObject;
    start(notObject, "[1]");
    EXPECT_EQ(beginAppend(&notObject).position, nullptr);
}

TEST(JsonWriterRoom, FindsFreeRoomByTheSentinelAndGrowsThroughTheCallback) {
    ztsdtest::RecordingAllocator::reset();
    zterr_Status st{0, 0, &ztsdtest::RecordingAllocator::reallocate, nullptr};
    ASSERT_TRUE(placeText(&st, "{}"));
    ASSERT_EQ(st.capacity, 4u);
    zterr_JsonCursor c = beginAppend(&st);
    const std::string longValue(3000, 'v');
    char* p = appendString(c.position, "long", longValue.c_str(), &c);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(std::string(st.json), "{\"long\":\"" + longValue + "\"}");
    EXPECT_TRUE(ztsdtest::hasSentinelLayout(st));
    EXPECT_EQ(*p, '}');

    // A disturbed layout (stray byte behind the NUL) is treated as less room,
    // never written over.
    const std::uint32_t capacity = st.capacity;
    const std::size_t len = std::strlen(st.json);
    st.json[len + 3] = 'x';
    c = beginAppend(&st);
    ASSERT_NE(appendInt32(c.position, "n", 5, &c), nullptr);
    EXPECT_GT(st.capacity, capacity);  // had to grow because the room looked short
    EXPECT_TRUE(ztsdtest::strictlyValid(st.json));
    ztsdtest::RecordingAllocator::reallocate(&st, 0);
    // A callback that refuses, lies about growing or leaves garbage behind at
    // any call is the fuzz target's (statusWriterFuzz).
}

TEST(JsonWriterLookup, FindsTopLevelMembersOnly) {
    const char* text = "{ \"a\" : {\"nested_error\":[]}, \"s\":\"}{\\\"nested_error\\\":\", \"nested_error\" : [1,2] }";
    const char* found = findTopLevelMember(text, "nested_error");
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(std::string(found, 5), "[1,2]");
    EXPECT_EQ(std::string(findMatchingClose(found), 1), "]");
    EXPECT_EQ(findTopLevelMember(text, "missing"), nullptr);
    EXPECT_EQ(findTopLevelMember("[1]", "a"), nullptr);
    EXPECT_EQ(findMatchingClose("[1,[2"), nullptr);
}
