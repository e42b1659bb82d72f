#include <gtest/gtest.h>

#include <string>
#include <unordered_map>
#include <vector>

#include "remote/uriKeyParser.h"
#include "unit/support/raisedError.h"

using ztsdtest::captureRaise;
using Parts = std::unordered_map<std::string, std::string>;

namespace {
const std::vector<std::string> kDeviceKeys = {"remoteHost", "webService", "resource", "plugin", "type", "name"};
}

TEST(UriKeyParser, SplitsADeviceUriIntoItsSixNamedParts) {
    Parts parts;
    ztsdtools::parseUriKeys("/127.0.0.1:41234/ztsdwebs/resources/ztsd/syncableDevices/chassis0", kDeviceKeys,
                            parts);
    ASSERT_EQ(parts.size(), 6u);
    EXPECT_EQ(parts["remoteHost"], "127.0.0.1:41234");
    EXPECT_EQ(parts["webService"], "ztsdwebs");
    EXPECT_EQ(parts["resource"], "resources");
    EXPECT_EQ(parts["plugin"], "ztsd");
    EXPECT_EQ(parts["type"], "syncableDevices");
    EXPECT_EQ(parts["name"], "chassis0");

    // Without the leading "/" the parts are the same; an IPv6 host in brackets
    // keeps its colons.
    Parts bare;
    ztsdtools::parseUriKeys("[fe80::1]:80/w/r/p/t/n", kDeviceKeys, bare);
    EXPECT_EQ(bare["remoteHost"], "[fe80::1]:80");
    EXPECT_EQ(bare["name"], "n");
}

TEST(UriKeyParser, RefusesEmptyInputsContiguousDelimitersAndCountMismatches) {
    struct Case {
        std::string uri;
        std::vector<std::string> keys;
        const char* message;
    };
    const std::vector<Case> cases = {
        {"", {"a"}, "Failed to parse URI; URI is empty or was not provided URI keys."},
        {"/a/b", {}, "Failed to parse URI; URI is empty or was not provided URI keys."},
        {"/a//b", {"x", "y", "z"}, "Failed to parse URI; encountered contiguous delimiters."},
        {"//a", {"x", "y"}, "Failed to parse URI; encountered contiguous delimiters."},
        {"/a/b/c", {"x", "y"}, "Failed to parse URI; more URI parts than keys."},
        {"/a/b/", {"x", "y"}, "Failed to parse URI; more URI parts than keys."},
        {"/a", {"x", "y"}, "Failed to parse URI; more keys than URI parts."},
        {"/", {"x"}, "Failed to parse URI; more keys than URI parts."},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.uri);
        Parts parts;
        const auto r = captureRaise([&] { ztsdtools::parseUriKeys(c.uri, c.keys, parts); });
        EXPECT_EQ(r.text("error_constant"), "ztapalerr_invalidParameter");
        ztsdtest::expectReport(r, -52005, std::string(R"({"message":")") + c.message + R"(","uri":")" + c.uri +
                                              R"x(","uriKeys.size()":)x" + std::to_string(c.keys.size()) + "}");
    }
}

TEST(UriKeyParser, ATrailingSlashIsAnEmptyLastPartAndMalformedUrisInsertNothing) {
    Parts parts;
    ztsdtools::parseUriKeys("/a/b/", {"x", "y", "z"}, parts);
    EXPECT_EQ(parts.at("y"), "b");
    EXPECT_EQ(parts.at("z"), "");

    Parts untouched;
    captureRaise([&] { ztsdtools::parseUriKeys("/a/b//c", {"w", "x", "y", "z"}, untouched); });
    EXPECT_TRUE(untouched.empty());
}
