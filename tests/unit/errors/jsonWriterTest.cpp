#include <gtest/gtest.h>

#include <climits>
#include <random>
#include <string>
#include <vector>

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

TEST(JsonWriterMembers, PlacesCommasOnlyBetweenMembers) {
    OwnedStatus st;
    start(st, "{}");
    zterr_JsonCursor c = beginAppend(&st);
    char* p = appendInt32(c.position, "a", 1, &c);
    EXPECT_EQ(st.text(), "{\"a\":1}");
    p = appendBool(p, "b", false, &c);
    EXPECT_EQ(st.text(), "{\"a\":1,\"b\":false}");

    OwnedStatus spaced;
    start(spaced, "{ \r\n\t}");
    c = beginAppend(&spaced);
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

    // A callback that says yes but does not grow cannot make the writer spin.
    zterr_Status liar{0, 0, [](zterr_Status* s, std::uint32_t n) {
                          if (n == 0) { std::free(s->json); s->json = nullptr; s->capacity = 0; return true; }
                          if (!s->json) { s->json = static_cast<char*>(std::calloc(1, 8)); s->capacity = 8; }
                          return true;
                      }, nullptr};
    ASSERT_TRUE(placeText(&liar, "{}"));
    c = beginAppend(&liar);
    EXPECT_EQ(appendString(c.position, "key", "a value that does not fit", &c), nullptr);
    EXPECT_STREQ(liar.json, "{}");
    liar.reallocate(&liar, 0);
}

TEST(JsonWriterProperty, AnyBytesInKeysAndValuesGiveValidJsonThatReadsBack) {
    std::mt19937 rng(20261122);
    std::uniform_int_distribution<int> byte(1, 255), length(0, 40), kind(0, 4);
    for (int round = 0; round < 300; ++round) {
        OwnedStatus st;
        start(st, "{}");
        zterr_JsonCursor c = beginAppend(&st);
        char* p = c.position;
        std::vector<std::pair<std::string, std::string>> written;
        const int members = 1 + round % 12;
        for (int m = 0; m < members && p; ++m) {
            std::string key = "k" + std::to_string(m), value;
            for (int i = length(rng); i > 0; --i) key.push_back(static_cast<char>(byte(rng)));
            for (int i = length(rng); i > 0; --i) value.push_back(static_cast<char>(byte(rng)));
            switch (kind(rng)) {
                case 0: p = appendInt64(p, key.c_str(), static_cast<std::int64_t>(rng()) << 20, &c); break;
                case 1: p = appendBool(p, key.c_str(), rng() & 1, &c); break;
                case 2: {
                    char* inner = appendEmptyObject(p, key.c_str(), &c);
                    if (inner) inner = appendString(inner - 1, value.c_str(), value.c_str(), &c);
                    p = inner ? inner + 1 : nullptr;
                    break;
                }
                default:
                    p = appendString(p, key.c_str(), value.c_str(), &c);
                    written.emplace_back(key, value);
            }
        }
        ASSERT_NE(p, nullptr);
        ASSERT_TRUE(ztsdtest::hasSentinelLayout(st.s));
        // Random bytes are not always UTF-8, so validity is judged by the strict
        // validator and the values are read back by an independent parser.
        ASSERT_TRUE(ztsdtest::strictlyValid(st.s.json)) << st.text();
        auto doc = ztsdtest::parseJson(st.text());
        ASSERT_TRUE(doc) << st.text();
        for (const auto& [key, value] : written) {
            cJSON* item = cJSON_GetObjectItemCaseSensitive(doc.get(), key.c_str());
            ASSERT_TRUE(cJSON_IsString(item)) << key;
            EXPECT_EQ(std::string(item->valuestring), value);
        }
    }
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
