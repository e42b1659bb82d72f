// The typed key getters: presence, null, conversion and the one type error;
// and ParsedJson, which must read several keys of one text from one parse
// exactly as the one-key getters read each.
#include <gtest/gtest.h>

#include <boost/numeric/conversion/converter_policies.hpp>

#include <cstdint>
#include <string>
#include <typeinfo>
#include <vector>

#include "json/jsonKeyGetters.h"
#include "unit/support/raisedError.h"

using ztsdtest::captureRaise;
using ztsdtest::Raised;
using namespace ztsynctools;

namespace {

void expectTypeError(const Raised& r, const std::string& key, const std::string& json) {
    ztsdtest::expectSite(r, -52004, "errCode", "ztsynctools_cjson/jsonHelperFunctions", 50);
    ztsdtest::expectReport(r, -52004,
                           R"({"message":"Error parsing: expected data type does not match the parsed value.","key":)" +
                               ztsdtest::jsonString(key) + R"(,"JSON":)" + ztsdtest::jsonString(json) + "}",
                           "ztsync_debug");
}

}  // namespace

TEST(JsonKeyGetters, UInt32TruncatesTowardZeroAndRangeChecksTheDouble) {
    const std::string json =
        "{\"a\":1.9,\"b\":-0.5,\"c\":4294967295,\"d\":-0.999,\"big\":4294967296,\"neg\":-1,\"inf\":1e400}";
    struct Case {
        const char* key;
        std::uint32_t expected;
    };
    for (const Case& c : {Case{"a", 1}, Case{"b", 0}, Case{"c", 4294967295u}, Case{"d", 0}}) {
        std::uint32_t v = 12345;
        EXPECT_TRUE(getUInt32FromJsonString(json, c.key, v)) << c.key;
        EXPECT_EQ(v, c.expected) << c.key;
    }

    // Out of range passes through as the numeric-cast failure, which the
    // export frame reports with its what() text.
    std::uint32_t v = 7;
    EXPECT_THROW(getUInt32FromJsonString(json, "big", v), boost::numeric::positive_overflow);
    EXPECT_THROW(getUInt32FromJsonString(json, "inf", v), boost::numeric::positive_overflow);
    try {
        getUInt32FromJsonString(json, "neg", v);
        ADD_FAILURE() << "-1 was accepted";
    } catch (const boost::numeric::negative_overflow& e) {
        EXPECT_STREQ(e.what(), "bad cast");
        EXPECT_NE(dynamic_cast<const std::bad_cast*>(&e), nullptr);
    }
    EXPECT_EQ(v, 7u);
}

// Absent: false; null: true; neither writes. Malformed text is the parse error.
TEST(JsonKeyGetters, AbsentKeysReturnFalseNullsReturnTrueAndNeitherWrites) {
    const std::string json = "{\"n\":null}";
    std::uint32_t u = 5;
    std::string s = "keep";
    bool b = true;
    std::vector<std::string> vs = {"keep"};
    for (const char* key : {"missing", "n"}) {
        const bool present = key[0] == 'n';
        EXPECT_EQ(getUInt32FromJsonString(json, key, u), present) << key;
        EXPECT_EQ(getStringFromJsonString(json, key, s), present) << key;
        EXPECT_EQ(getBoolFromJsonString(json, key, b), present) << key;
        EXPECT_EQ(getObjectFromJsonString(json, key, s), present) << key;
        EXPECT_EQ(getObjectArrayFromJsonString(json, key, vs), present) << key;
    }
    EXPECT_EQ(u, 5u);
    EXPECT_EQ(s, "keep");
    EXPECT_TRUE(b);
    EXPECT_EQ(vs, std::vector<std::string>{"keep"});

    // A root that is not an object has no keys.
    EXPECT_FALSE(getUInt32FromJsonString("[{\"version\":1}]", "version", u));
    EXPECT_EQ(captureRaise([&] { getUInt32FromJsonString("{\"a\":1,}", "a", u); }).text("error_constant"),
              "jsonErrorsInvalidJSON");
    EXPECT_EQ(u, 5u);
}

TEST(JsonKeyGetters, StringBoolObjectAndObjectArrayReadTheirTypes) {
    const std::string json =
        "{\"s\":\"t\\u00e9xt\",\"t\":true,\"f\":false,\"o\":{ \"k\" : [ 1 ] },"
        "\"arr\":[{\"a\":1},{ }],\"empty\":[]}";
    std::string s;
    EXPECT_TRUE(getStringFromJsonString(json, "s", s));
    EXPECT_EQ(s, "t\xC3\xA9xt");
    bool b = false;
    EXPECT_TRUE(getBoolFromJsonString(json, "t", b));
    EXPECT_TRUE(b);
    EXPECT_TRUE(getBoolFromJsonString(json, "f", b));
    EXPECT_FALSE(b);
    EXPECT_TRUE(getObjectFromJsonString(json, "o", s));
    EXPECT_EQ(s, "{\"k\":[1]}");

    std::vector<std::string> vs = {"old"};
    EXPECT_TRUE(getObjectArrayFromJsonString(json, "arr", vs));
    EXPECT_EQ(vs, (std::vector<std::string>{"{\"a\":1}", "{}"}));
    EXPECT_TRUE(getObjectArrayFromJsonString(json, "empty", vs));
    EXPECT_TRUE(vs.empty());
}

TEST(JsonKeyGetters, AWrongTypeIsOneErrorNamingTheKeyAndTheText) {
    const std::string json = "{\"num\":\"1\",\"str\":1,\"flag\":\"true\",\"obj\":[],\"arr\":{},\"mixed\":[{},2]}";
    std::uint32_t u = 0;
    std::string s;
    bool b = false;
    std::vector<std::string> vs = {"unchanged"};
    expectTypeError(captureRaise([&] { getUInt32FromJsonString(json, "num", u); }), "num", json);
    expectTypeError(captureRaise([&] { getStringFromJsonString(json, "str", s); }), "str", json);
    expectTypeError(captureRaise([&] { getBoolFromJsonString(json, "flag", b); }), "flag", json);
    expectTypeError(captureRaise([&] { getObjectFromJsonString(json, "obj", s); }), "obj", json);
    expectTypeError(captureRaise([&] { getObjectArrayFromJsonString(json, "arr", vs); }), "arr", json);

    // A non-object element of an object array keeps its own error and leaves
    // the output as it was.
    const Raised r = captureRaise([&] { getObjectArrayFromJsonString(json, "mixed", vs); });
    EXPECT_EQ(r.code, -52004);
    EXPECT_EQ(r.text("error_constant"), "jsonErrorsNotAnObject");
    EXPECT_EQ(r.detail("ztsync_debug", "type"), "number");
    EXPECT_EQ(vs, std::vector<std::string>{"unchanged"});
}

TEST(ParsedJson, AgreesWithTheOneKeyGettersKeyByKey) {
    const std::string json = R"({"Version":1.9,"isCoherent":true,"uri":"/a\u00e9b","text":"x"})";
    const ParsedJson parsed(json);
    std::uint32_t n = 99;
    EXPECT_TRUE(parsed.getUInt32("version", n));  // any case
    EXPECT_EQ(n, 1u);
    bool b = false;
    EXPECT_TRUE(parsed.getBool("isCoherent", b));
    EXPECT_TRUE(b);
    std::string s = "untouched";
    EXPECT_TRUE(parsed.getString("uri", s));
    EXPECT_EQ(s, "/a\xC3\xA9" "b");  // decoded, as getStringFromJsonString reads it
    // A string with an escaped NUL is refused by both, never cut.
    EXPECT_EQ(captureRaise([] { ParsedJson(R"({"uri":"/a\u0000b"})"); }).code, -52005);
    EXPECT_EQ(captureRaise([&] { getStringFromJsonString(R"({"uri":"/a\u0000b"})", "uri", s); }).code, -52005);
    EXPECT_FALSE(parsed.getString("absent", s));

    // The type error names the key and carries the whole text, as the getter's does.
    const Raised viaParsed = captureRaise([&] { parsed.getBool("text", b); });
    ASSERT_TRUE(viaParsed.raised);
    EXPECT_EQ(viaParsed.json, captureRaise([&] { getBoolFromJsonString(json, "text", b); }).json);
    EXPECT_EQ(captureRaise([&] { parsed.getUInt32("text", n); }).code, -52004);
    EXPECT_THROW(ParsedJson("{\"a\":"), zterr::Exception);  // the parse failure of the getters
}
