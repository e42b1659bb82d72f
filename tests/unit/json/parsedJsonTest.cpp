// ParsedJson: several keys of one text read from one parse must give exactly
// what the one-key getters give for each key, failures included.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "json/jsonChecks.h"
#include "json/jsonKeyGetters.h"
#include "unit/support/raisedError.h"

using ztsdtest::captureRaise;
using namespace ztsynctools;

TEST(ParsedJson, AgreesWithTheOneKeyGettersKeyByKey) {
    const std::string json =
        R"({"Version":1,"isCoherent":true,"coherencyLossCount":7.9,"uri":"/a\u0000b","none":null,"text":"x"})";
    const ParsedJson parsed(json);

    std::uint32_t n1 = 99, n2 = 99;
    EXPECT_EQ(parsed.getUInt32("version", n1), getUInt32FromJsonString(json, "version", n2));  // any case
    EXPECT_EQ(n1, 1u);
    EXPECT_EQ(n1, n2);
    EXPECT_TRUE(parsed.getUInt32("coherencyLossCount", n1));
    EXPECT_EQ(n1, 7u);

    bool b = false;
    EXPECT_TRUE(parsed.getBool("isCoherent", b));
    EXPECT_TRUE(b);

    std::string s1 = "untouched", s2 = "untouched";
    EXPECT_TRUE(parsed.getString("uri", s1));
    EXPECT_TRUE(getStringFromJsonString(json, "uri", s2));
    EXPECT_EQ(s1, s2);
    EXPECT_EQ(s1, "/a");  // up to the first NUL
    s1 = "untouched";
    EXPECT_TRUE(parsed.getString("none", s1));  // null: present, output untouched
    EXPECT_EQ(s1, "untouched");
    EXPECT_FALSE(parsed.getString("absent", s1));

    // The type error names the key and carries the whole text, as the getter's does.
    const auto viaParsed = captureRaise([&] { parsed.getBool("text", b); });
    const auto viaGetter = captureRaise([&] { getBoolFromJsonString(json, "text", b); });
    ASSERT_TRUE(viaParsed.raised);
    EXPECT_EQ(viaParsed.code, -52004);
    EXPECT_EQ(viaParsed.json, viaGetter.json);
    EXPECT_EQ(viaParsed.detail("ztsync_debug", "key"), "text");
    EXPECT_EQ(viaParsed.detail("ztsync_debug", "JSON"), json);

    EXPECT_THROW(parsed.getUInt32("text", n1), zterr::Exception);
    EXPECT_THROW(ParsedJson("{\"a\":"), zterr::Exception);  // the parse failure of the getters
}

TEST(ParsedJson, VersionCheckOnAParsedTextMatchesTheTextForm) {
    for (const std::string json : {R"({"version":1})", R"({"version":null})", R"({"VERSION":0})"}) {
        EXPECT_NO_THROW(ztsdtools::checkRemoteApiVersion("/u", ParsedJson(json), "missing", "bad")) << json;
    }
    for (const std::string json : {R"({"version":2})", R"({})", R"({"version":"1"})"}) {
        SCOPED_TRACE(json);
        const auto fromText = captureRaise([&] { ztsdtools::checkRemoteApiVersion("/u", json, "missing", "bad"); });
        const auto fromParsed =
            captureRaise([&] { ztsdtools::checkRemoteApiVersion("/u", ParsedJson(json), "missing", "bad"); });
        EXPECT_NE(fromParsed.code, 0);
        EXPECT_EQ(fromText.json, fromParsed.json);
    }
    EXPECT_THROW(ztsdtools::checkRemoteApiVersion("/u", ParsedJson(R"({"version":-3})"), "m", "b"), NegativeOverflow);
}
