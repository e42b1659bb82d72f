// The resource manager proxy without a network: listing checks, resource
// paths and the unsupported operation. Its HTTP exchanges are tested against
// the simulator in the integration tests.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "remote/curlResourceManagerProxy.h"
#include "unit/support/raisedError.h"

using zt::syncdomain::CurlResourceManagerProxy;
using zt::syncdomain::parseResourceListing;
using ztsdtest::captureRaise;
using ztsdtest::expectReport;
using ztsdtest::kDebug;
using ztsdtest::Raised;

namespace {
const char* kBadType = "ResourceType in one of the resources returned from chassis is missing or invalid.";
}  // namespace

TEST(ResourceListing, SplitsUrisByTypeInArrayOrder) {
    const auto listing = parseResourceListing(
        "{\"version\":1,\"resources\":["
        "{\"uri\":\"/h/ztsdwebs/resources/ztsd/timescales/t1\",\"resourceType\":\"timescales\"},"
        "{\"uri\":\"/h/ztsdwebs/resources/ztsd/syncableDevices/d1\",\"resourceType\":\"syncableDevices\"},"
        "{\"uri\":\"/h/ztsdwebs/resources/ztsd/timescales/t2\",\"resourceType\":\"timescales\",\"extra\":1},"
        "{\"uri\":\"/h/ztsdwebs/resources/ztsd/syncableDevices/d2\",\"resourceType\":\"syncableDevices\"}]}",
        "h");
    EXPECT_EQ(listing.syncableDevices, (std::vector<std::string>{"/h/ztsdwebs/resources/ztsd/syncableDevices/d1",
                                                                 "/h/ztsdwebs/resources/ztsd/syncableDevices/d2"}));
    EXPECT_EQ(listing.timescales, (std::vector<std::string>{"/h/ztsdwebs/resources/ztsd/timescales/t1",
                                                            "/h/ztsdwebs/resources/ztsd/timescales/t2"}));
}

TEST(ResourceListing, RefusesAWrongVersionNamingTheHost) {
    // Missing and 2 are served by the simulator in the fault matrix (H27, H28).
    for (const char* text : {"{\"version\":0,\"resources\":[]}", "{\"version\":null,\"resources\":[]}",
                             "{\"version\":\"1\",\"resources\":[]}"}) {
        SCOPED_TRACE(text);
        expectReport(captureRaise([&] { parseResourceListing(text, "10.0.0.9:80"); }), -52005,
                     R"({"message":"Sync Domain API version in JSON response from chassis missing or incorrect.",)"
                     R"("remoteHost":"10.0.0.9:80"})");
    }
}

TEST(ResourceListing, RefusesMissingResourcesUrisAndUnknownTypes) {
    expectReport(captureRaise([] { parseResourceListing("{\"version\":1}", "h"); }), -52006,
                 R"({"message":"Error parsing 'resources' key from JSON response."})");
    expectReport(
        captureRaise([] { parseResourceListing("{\"version\":1,\"resources\":[{\"resourceType\":\"timescales\"}]}", "h"); }),
        -52005, R"({"message":"Error parsing 'uri' key from resource JSON array element.",)"
                R"("resource":"{\"resourceType\":\"timescales\"}"})");

    // An unknown type, none, and a known one in another letter case.
    const char* devices = "{\"uri\":\"/x\",\"resourceType\":\"devices\"}";
    expectReport(
        captureRaise([&] { parseResourceListing(std::string("{\"version\":1,\"resources\":[") + devices + "]}", "h"); }),
        -52005, std::string(R"({"message":")") + kBadType + R"(","resourceType":"devices",)" +
                    R"("expectedType1":"syncableDevices","expectedType2":"timescales",)" +
                    R"("resource":"{\"uri\":\"/x\",\"resourceType\":\"devices\"}"})");
    for (const char* element : {"{\"uri\":\"/x\"}", "{\"uri\":\"/x\",\"resourceType\":\"Timescales\"}"}) {
        const std::string text = std::string("{\"version\":1,\"resources\":[") + element + "]}";
        EXPECT_EQ(captureRaise([&] { parseResourceListing(text, "h"); }).detail(kDebug, "message"), kBadType)
            << element;
    }

    // Wrong JSON types are the getters' type errors.
    EXPECT_EQ(captureRaise([] { parseResourceListing("{\"version\":1,\"resources\":{}}", "h"); }).code, -52004);
    EXPECT_EQ(captureRaise([] { parseResourceListing("{\"version\":1,\"resources\":[1]}", "h"); }).code, -52004);
}

TEST(CurlResourceManagerProxy, ResourcePathsNameOneResourceUnderTheService) {
    EXPECT_EQ(CurlResourceManagerProxy::resourceUriOf("/ztsdwebs/resources/ztsd/syncableDevices/chassis0"),
              "resources/ztsd/syncableDevices/chassis0");
    EXPECT_EQ(CurlResourceManagerProxy::resourceUriOf("ztsdwebs/resources/a"), "resources/a");
    EXPECT_EQ(CurlResourceManagerProxy::resourceUriOf("/resources/a/b"), "resources/a/b");
    EXPECT_EQ(CurlResourceManagerProxy::resourceUriOf("resources/a"), "resources/a");

    for (const char* bad : {"", "/", "/ztsdwebs", "/ztsdwebs/resources", "/ztsdwebs/resources/", "/ztsdwebs/resources//a",
                            "/other/resources/a", "//ztsdwebs/resources/a", "/ztsdwebs/ztsdwebs/resources/a"}) {
        SCOPED_TRACE(bad);
        expectReport(captureRaise([&] { CurlResourceManagerProxy::resourceUriOf(bad); }), -52005,
                     R"({"message":"Unable to retrieve 'resourceQualifier' from uri.","uri":")" + std::string(bad) + "\"}");
    }
}

TEST(CurlResourceManagerProxy, IsMadeForOneHostAndRefusesTimescaleInfo) {
    CurlResourceManagerProxy proxy("[fe80::1]:8080");
    EXPECT_EQ(proxy.remoteHost(), "[fe80::1]:8080");
    EXPECT_EQ(proxy.servicePrefix(), "http://[fe80::1]:8080/ztsdwebs");
    EXPECT_EQ(proxy.getTimeoutInMS(), 5000u);

    zt::syncdomain::ResourceManagerInterface& manager = proxy;
    const Raised r = captureRaise([&] { manager.getTimescaleInfo("/h/ztsdwebs/resources/ztsd/timescales/t"); });
    EXPECT_EQ(r.text("error_constant"), "ztapalerr_featureUnsupported");
    expectReport(r, -52002, R"({"message":"CurlResourceManagerProxy::getTimescaleInfo is not implemented."})");

    // A malformed path fails before any traffic (there is no server at this address).
    EXPECT_EQ(captureRaise([&] { manager.getResource("/nowhere"); }).code, -52005);
    EXPECT_EQ(captureRaise([&] { manager.putResource("", "{}"); }).code, -52005);
}
