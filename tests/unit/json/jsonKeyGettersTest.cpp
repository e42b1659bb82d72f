// The typed key getters: presence, null, conversion and the one type error.
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
    EXPECT_EQ(r.code, -52004) << r.json;
    EXPECT_EQ(r.text("error_constant"), "errCode");
    EXPECT_EQ(r.text("file"), "ztsynctools_cjson/jsonHelperFunctions");
    EXPECT_EQ(r.member("line") ? r.member("line")->valueint : 0, 50);
    EXPECT_EQ(r.detailKeys("ztsync_debug"), (std::vector<std::string>{"message", "key", "JSON"}));
    EXPECT_EQ(r.detail("ztsync_debug", "message"),
              "Error parsing: expected data type does not match the parsed value.");
    EXPECT_EQ(r.detail("ztsync_debug", "key"), key);
    EXPECT_EQ(r.detail("ztsync_debug", "JSON"), json);
}

}  // namespace

TEST(JsonKeyGetters, UInt32TruncatesTowardZeroAndRangeChecksTheDouble) {
    const std::string json =
        "{\"a\":1.9,\"b\":-0.5,\"c\":4294967295,\"d\":-0.999,\"e\":0,\"big\":4294967296,\"neg\":-1,\"inf\":1e400}";
    struct Case {
        const char* key;
        std::uint32_t expected;
    };
    for (const Case& c : {Case{"a", 1}, Case{"b", 0}, Case{"c", 4294967295u}, Case{"d", 0}, Case{"e", 0}}) {
        std::uint32_t v = 12345;
        EXPECT_TRUE(getUInt32FromJsonString(json, c.key, v)) << c.key;
        EXPECT_EQ(v, c.expected) << c.key;
    }

    std::uint32_t v = 7;
    try {
        getUInt32FromJsonString(json, "big", v);
        ADD_FAILURE() << "4294967296 was accepted";
    } catch (const boost::numeric::positive_overflow& e) {
        EXPECT_STREQ(e.what(), "bad cast");
    }
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

TEST(JsonKeyGetters, AbsentKeysReturnFalseNullsReturnTrueAndNeitherWrites) {
    const std::string json = "{\"n\":null,\"Version\":3}";
    std::uint32_t u = 5;
    std::string s = "keep";
    bool b = true;
    std::vector<std::string> vs = {"keep"};

    EXPECT_FALSE(getUInt32FromJsonString(json, "missing", u));
    EXPECT_FALSE(getStringFromJsonString(json, "missing", s));
    EXPECT_FALSE(getBoolFromJsonString(json, "missing", b));
    EXPECT_FALSE(getObjectFromJsonString(json, "missing", s));
    EXPECT_FALSE(getObjectArrayFromJsonString(json, "missing", vs));

    EXPECT_TRUE(getUInt32FromJsonString(json, "n", u));
    EXPECT_TRUE(getStringFromJsonString(json, "n", s));
    EXPECT_TRUE(getBoolFromJsonString(json, "n", b));
    EXPECT_TRUE(getObjectFromJsonString(json, "n", s));
    EXPECT_TRUE(getObjectArrayFromJsonString(json, "n", vs));
    EXPECT_EQ(u, 5u);
    EXPECT_EQ(s, "keep");
    EXPECT_TRUE(b);
    EXPECT_EQ(vs, std::vector<std::string>{"keep"});

    // Lookup ignores letter case; a root that is not an object has no keys.
    EXPECT_TRUE(getUInt32FromJsonString(json, "version", u));
    EXPECT_EQ(u, 3u);
    EXPECT_FALSE(getUInt32FromJsonString("[{\"version\":1}]", "version", u));
    EXPECT_FALSE(getUInt32FromJsonString("\"version\"", "version", u));
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
    const std::string json = "{\"num\":\"1\",\"str\":1,\"flag\":\"true\",\"obj\":[],\"arr\":{}}";
    std::uint32_t u = 0;
    std::string s;
    bool b = false;
    std::vector<std::string> vs;
    expectTypeError(captureRaise([&] { getUInt32FromJsonString(json, "num", u); }), "num", json);
    expectTypeError(captureRaise([&] { getStringFromJsonString(json, "str", s); }), "str", json);
    expectTypeError(captureRaise([&] { getBoolFromJsonString(json, "flag", b); }), "flag", json);
    expectTypeError(captureRaise([&] { getObjectFromJsonString(json, "obj", s); }), "obj", json);
    expectTypeError(captureRaise([&] { getObjectArrayFromJsonString(json, "arr", vs); }), "arr", json);
}

TEST(JsonKeyGetters, ANonObjectArrayElementKeepsItsOwnErrorAndLeavesTheVector) {
    const std::string json = "{\"arr\":[{\"a\":1},2]}";
    std::vector<std::string> vs = {"unchanged"};
    const Raised r = captureRaise([&] { getObjectArrayFromJsonString(json, "arr", vs); });
    EXPECT_EQ(r.code, -52004);
    EXPECT_EQ(r.text("error_constant"), "jsonErrorsNotAnObject");
    EXPECT_EQ(r.detail("ztsync_debug", "type"), "number");
    EXPECT_EQ(vs, std::vector<std::string>{"unchanged"});
}

TEST(JsonKeyGetters, MalformedTextFailsAsInvalidJson) {
    std::uint32_t u = 9;
    for (const char* bad : {"", "{", "{\"a\":1,}", "nope"}) {
        const Raised r = captureRaise([&] { getUInt32FromJsonString(bad, "a", u); });
        EXPECT_EQ(r.code, -52005) << bad;
        EXPECT_EQ(r.text("error_constant"), "jsonErrorsInvalidJSON") << bad;
    }
    EXPECT_EQ(u, 9u);
}
