// Loading a chassis' resources as proxies through the exports, against
// simulated chassis (web service and timestamp daemon) on 127.0.0.1.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "integration/remote/remoteTestSupport.h"
#include "unit/support/statusFixture.h"
#include "ztsd-sim/simulatedChassis.h"
#include "ztsdlib/ztsdlib.h"

using remotetest::networkDeviceParams;
using ztsdtest::takeText;

namespace {

int allocations = 0;
void* countingAllocator(size_t size) {
    ++allocations;
    return std::malloc(size);
}
void* refusingAllocator(size_t) { return nullptr; }

// What ztsdlib_listSyncableDeviceUris gives, or "(null)" with the status set.
std::string listed(const std::string& json, ztsdtest::OwnedStatus& status) {
    return takeText(ztsdlib_listSyncableDeviceUris(json.c_str(), &status.s));
}

struct Loaded {
    ztsdlib_SyncableDevice* device = nullptr;
    ztsdlib_Timescale** timescales = nullptr;
    uint32_t count = 12345;
};

class Loading : public ::testing::Test {
protected:
    void SetUp() override { chassis.start(); }
    Loaded load(const std::string& json, ztsdlib_Allocator allocator = countingAllocator) {
        Loaded out;
        ztsdlib_loadProxyResources(json.c_str(), &out.device, &out.timescales, &out.count, allocator, &status);
        return out;
    }
    std::string hostParams() { return networkDeviceParams(chassis.webService().remoteHost(), chassis.daemonPort()); }
    ztsdsim::SimulatedChassis chassis;
    ztsdtest::OwnedStatus status;
};

}  // namespace

TEST_F(Loading, WithoutTimescalesNothingIsAllocatedAndFailuresWriteNothing) {
    chassis.webService().addDevice("chassis0");
    allocations = 0;
    Loaded out = load(hostParams());
    ASSERT_EQ(status.s.code, 0) << status.text();
    EXPECT_EQ(out.count, 0u);
    EXPECT_EQ(out.timescales, nullptr);
    EXPECT_EQ(allocations, 0);
    ztsdlib_SyncableDevice_delete(out.device);

    // No room for the timescales: the proxies made so far go.
    chassis.addTimescale("00-80-2F-AA-BB-01");
    ztsdtest::OwnedStatus refused;
    Loaded none;
    ztsdlib_loadProxyResources(hostParams().c_str(), &none.device, &none.timescales, &none.count, refusingAllocator,
                               &refused);
    EXPECT_EQ(refused.s.code, -52000);
    EXPECT_NE(refused.text().find("Unable to allocate memory for Timescales"), std::string::npos);
    EXPECT_EQ(none.device, nullptr);

    // Only timescales listed.
    chassis.webService().removeDevice("chassis0");
    ztsdtest::OwnedStatus noDevice;
    ztsdlib_loadProxyResources(hostParams().c_str(), &none.device, &none.timescales, &none.count, countingAllocator,
                               &noDevice);
    EXPECT_EQ(noDevice.s.code, -52006);
    EXPECT_NE(noDevice.text().find("No syncableDevices returned from remote chassis to load."), std::string::npos);
    EXPECT_NE(noDevice.text().find("\"resourceType\":\"syncableDevice\""), std::string::npos);
    EXPECT_EQ(none.device, nullptr);
    EXPECT_EQ(none.count, 12345u);
}

TEST_F(Loading, RefusesMissingArgumentsAndMalformedDescriptions) {
    Loaded out;
    ztsdlib_loadProxyResources(hostParams().c_str(), &out.device, nullptr, &out.count, countingAllocator, &status);
    EXPECT_EQ(status.s.code, -52005);
    EXPECT_NE(status.text().find("\"nullptr\":\"timescalesOut\""), std::string::npos) << status.text();

    const std::pair<std::string, std::string> cases[] = {
        {"{\"version\":1,", "networkDeviceParamsJson contains an invalid JSON string."},
        {"{\"version\":0,\"type\":\"networkDeviceParams\",\"params\":{\"remoteHost\":\"h\"}}",
         "Sync Domain API version in networkDeviceParamsJson missing or incorrect."},
        {"{\"type\":\"networkDeviceParams\"}", "Sync Domain API version in networkDeviceParamsJson missing or incorrect."},
        {"{\"version\":1,\"type\":\"other\"}", "Type in networkDeviceParamsJson missing or invalid."},
        {"{\"version\":1,\"type\":\"networkDeviceParams\"}", "Error parsing 'params' key from networkDeviceParamsJson"},
        {"{\"version\":1,\"type\":\"networkDeviceParams\",\"params\":{}}",
         "Error parsing 'remoteHost' key from networkDeviceParamsJson"},
    };
    for (const auto& [json, message] : cases) {
        ztsdtest::OwnedStatus st;
        Loaded o;
        ztsdlib_loadProxyResources(json.c_str(), &o.device, &o.timescales, &o.count, countingAllocator, &st);
        EXPECT_EQ(st.s.code, -52005) << json;
        EXPECT_NE(st.text().find(message), std::string::npos) << st.text();
        EXPECT_EQ(o.device, nullptr);
        ztsdtest::OwnedStatus roots;
        char a[64], b[64];
        ztsdlib_getProxyResourceUriRootsToUnload(json.c_str(), sizeof a, a, b, &roots);
        EXPECT_NE(roots.text().find(message), std::string::npos) << roots.text();
        ztsdtest::OwnedStatus listing;
        EXPECT_EQ(listed(json, listing), "(null)");
        EXPECT_NE(listing.text().find(message), std::string::npos) << listing.text();
    }
}

TEST(UriRoots, BracketIpv6HostsAndNeedRoomForTheNul) {
    auto roots = [](const std::string& host, uint32_t size, std::string& device, std::string& timescale) {
        const std::string json = networkDeviceParams(host);
        ztsdtest::OwnedStatus st;
        char a[64] = "untouched", b[64] = "untouched";
        ztsdlib_getProxyResourceUriRootsToUnload(json.c_str(), size, a, b, &st);
        device = a;
        timescale = b;
        return std::make_pair(st.s.code, st.text());
    };
    std::string d, t;
    EXPECT_EQ(roots("fe80::1", 64, d, t).first, 0);
    EXPECT_EQ(d, "[fe80::1]");
    EXPECT_EQ(t, "[fe80::1]");
    roots("[fe80::1]", 64, d, t);
    EXPECT_EQ(d, "[fe80::1]");
    EXPECT_EQ(roots("abcd", 5, d, t).first, 0);  // four characters and the NUL
    EXPECT_EQ(d, "abcd");
    auto tooSmall = roots("abcd", 4, d, t);
    EXPECT_EQ(tooSmall.first, -52019);
    EXPECT_NE(tooSmall.second.find("\"remoteHost\":\"abcd\",\"bufferSize\":4"), std::string::npos);
    EXPECT_EQ(d, "untouched");

    ztsdtest::OwnedStatus st;
    char a[8];
    ztsdlib_getProxyResourceUriRootsToUnload("{}", sizeof a, a, nullptr, &st);
    EXPECT_NE(st.text().find("\"nullptr\":\"timescaleUriRootOut\""), std::string::npos);
}

// A chassis may list its resources by its own paths, without the host it was
// reached by: loading and listing name them by the caller's remoteHost,
// whichever form each entry takes, and the proxies reach the chassis and its
// daemon.
TEST(LoadingListingForms, EntriesWithAndWithoutTheirHostLoadUnderTheCallersHost) {
    for (const auto form : {ztsdsim::ListingForm::withHosts, ztsdsim::ListingForm::pathsOnly,
                            ztsdsim::ListingForm::mixed}) {
        ztsdsim::SimulatorOptions options;
        options.listingForm = form;
        ztsdsim::SimulatedChassis chassis("ztsd", options);
        chassis.start();
        const std::string ts1 = chassis.addTimescale("00-80-2F-AA-BB-01");
        const std::string ts2 = chassis.addTimescale("00-80-2F-AA-BB-02");
        ztsdtest::OwnedStatus status;
        Loaded out;
        const std::string json = networkDeviceParams(chassis.webService().remoteHost(), chassis.daemonPort());
        // Listing names every device under the caller's host as loading does.
        EXPECT_EQ(listed(json, status), "[]");
        const std::string device = chassis.webService().addDevice("chassis0");
        const std::string second = chassis.webService().addDevice("chassis1");
        EXPECT_EQ(listed(json, status), "[\"" + device + "\",\"" + second + "\"]") << static_cast<int>(form);
        allocations = 0;
        ztsdlib_loadProxyResources(json.c_str(), &out.device, &out.timescales, &out.count, countingAllocator,
                                   &status);
        ASSERT_EQ(status.s.code, 0) << static_cast<int>(form) << status.text();
        ASSERT_EQ(out.count, 2u);
        EXPECT_EQ(allocations, 1);  // the one array, of the caller's allocator; the second device is left alone
        EXPECT_STREQ(ztsdlib_SyncableDevice_getUri(out.device, &status), device.c_str());
        EXPECT_STREQ(ztsdlib_Timescale_getUri(out.timescales[0], &status), ts1.c_str());
        EXPECT_STREQ(ztsdlib_Timescale_getUri(out.timescales[1], &status), ts2.c_str());
        uint32_t losses = 9;
        EXPECT_TRUE(ztsdlib_SyncableDevice_isCoherent(out.device, &losses, &status));
        ztsdlib_Timestamp t{};
        ztsdlib_Timescale_getTime(out.timescales[1], &t, &status);
        EXPECT_EQ(status.s.code, 0) << status.text();
        EXPECT_GT(t.seconds, 13000000000u);
        ztsdlib_SyncableDevice_delete(out.device);
        for (uint32_t i = 0; i < out.count; ++i) ztsdlib_Timescale_delete(out.timescales[i]);
        std::free(out.timescales);
    }
}

// A bare IPv6 literal ("::1", which cannot carry a port) goes into HTTP
// addresses in brackets: a chassis on [::1] port 80 listing its device by
// path loads and answers. Port 80 needs root, as CI has; elsewhere skipped.
TEST(LoadingIpv6, ABareIpv6HostIsBracketedInEveryHttpAddress) {
    ztsdsim::SimulatorOptions options;
    options.host = "::1";
    options.port = 80;
    options.listingForm = ztsdsim::ListingForm::pathsOnly;
    ztsdsim::ChassisSimulator chassis("ztsd", options);
    try {
        chassis.start();
    } catch (const std::exception& e) {
        GTEST_SKIP() << "cannot listen on [::1]:80: " << e.what();
    }
    chassis.addDevice("chassis0");
    ztsdtest::OwnedStatus status;
    Loaded out;
    const std::string json = networkDeviceParams("::1", 9);
    ztsdlib_loadProxyResources(json.c_str(), &out.device, &out.timescales, &out.count, countingAllocator, &status);
    ASSERT_EQ(status.s.code, 0) << status.text();
    EXPECT_STREQ(ztsdlib_SyncableDevice_getUri(out.device, &status),
                 "/::1/ztsdwebs/resources/ztsd/syncableDevices/chassis0");
    uint32_t losses = 9;
    EXPECT_TRUE(ztsdlib_SyncableDevice_isCoherent(out.device, &losses, &status));
    EXPECT_EQ(status.s.code, 0) << status.text();
    EXPECT_EQ(chassis.getCountOf("chassis0"), 1u);

    // A device proxy made directly from such a URI reaches it too.
    ztsdlib_SyncableDevice* direct =
        ztsdlib_SyncableDeviceProxy_create("/::1/ztsdwebs/resources/ztsd/syncableDevices/chassis0", &status);
    EXPECT_TRUE(ztsdlib_SyncableDevice_isCoherent(direct, &losses, &status));
    EXPECT_EQ(status.s.code, 0) << status.text();
    ztsdlib_SyncableDevice_delete(direct);
    ztsdlib_SyncableDevice_delete(out.device);
}

// A listed name with an escaped NUL ("a\u0000b") is not the device "a": the
// listing is the chassis' malformed reply, -52024 for listing and loading.
TEST_F(Loading, AListedNameWithAnEscapedNulIsRefusedNotCut) {
    chassis.webService().setFault(
        "", remotetest::rawBody("{\"error\":{\"success\":true,\"errorCode\":0,\"errorText\":\"\",\"errorInfo\":{}},"
                                "\"result\":{\"version\":1,\"resources\":[{\"uri\":\"/" + chassis.webService().remoteHost() +
                                "/ztsdwebs/resources/ztsd/syncableDevices/a\\u0000b\",\"resourceType\":\"syncableDevices\"}]}}"));
    ztsdtest::OwnedStatus listing;
    EXPECT_EQ(listed(hostParams(), listing), "(null)");
    EXPECT_EQ(listing.s.code, -52024);
    EXPECT_NE(listing.text().find("escaped NUL"), std::string::npos) << listing.text();
    EXPECT_EQ(load(hostParams()).device, nullptr);
    EXPECT_EQ(status.s.code, -52024);
}

// A host that is empty, null or no host[:port] (a chassis', a device URI's, a
// daemon's) or a port out of range is the caller's mistake: -52005 naming the
// field, and nothing reaches the chassis (its request counter) or elsewhere.
TEST_F(Loading, AHostOrPortThatCannotBeAnAddressIsRefusedBeforeAnyRequest) {
    const std::string host = chassis.webService().remoteHost();
    const std::pair<std::string, const char*> cases[] = {
        {networkDeviceParams(""), "remoteHost"},
        {"{\"version\":1,\"type\":\"networkDeviceParams\",\"params\":{\"remoteHost\":null}}", "remoteHost"},
        {networkDeviceParams("x@" + host), "remoteHost"},
        {networkDeviceParams(host, 70000), "timestampDaemonPort"},
    };
    for (const auto& [json, field] : cases) {
        ztsdtest::OwnedStatus listing, loading;
        EXPECT_EQ(listed(json, listing), "(null)") << json;
        Loaded out;
        ztsdlib_loadProxyResources(json.c_str(), &out.device, &out.timescales, &out.count, countingAllocator, &loading);
        for (const std::string& report : {listing.text(), loading.text()})
            EXPECT_NE(report.find(std::string("\"message\":\"'") + field + "'"), std::string::npos) << report;
        EXPECT_EQ(listing.s.code, -52005) << json;
        EXPECT_EQ(loading.s.code, -52005) << json;
    }
    const std::string uri = "/" + host + "#/ztsdwebs/resources/ztsd/syncableDevices/d";
    ztsdtest::OwnedStatus device, daemon;
    EXPECT_EQ(ztsdlib_SyncableDeviceProxy_create(uri.c_str(), &device.s), nullptr);
    EXPECT_NE(device.text().find("\"message\":\"'uri'"), std::string::npos) << device.text();
    const std::string ts = "/" + host + "/ztsdwebs/resources/ztsd/timescales/00-80-2F-AA-BB-01";
    EXPECT_EQ(ztsdlib_TimescaleProxy_create(ts.c_str(), "127.0.0.1 ", chassis.daemonPort(), &daemon.s), nullptr);
    EXPECT_NE(daemon.text().find("'host'"), std::string::npos) << daemon.text();
    EXPECT_EQ(device.s.code, -52005);
    EXPECT_EQ(daemon.s.code, -52005);
    EXPECT_EQ(chassis.webService().requestCount(), 0u);
}
