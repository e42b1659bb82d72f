// CurlResourceManagerProxy against the simulated chassis over real HTTP on
// 127.0.0.1: listing, get and put of resources, and the errors callers see.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "integration/remote/remoteTestSupport.h"
#include "json/jsonKeyGetters.h"
#include "remote/curlResourceManagerProxy.h"
#include "unit/support/raisedError.h"

using remotetest::SimulatorTest;
using zt::syncdomain::CurlResourceManagerProxy;
using ztsdtest::captureRaise;
using ztsdtest::Raised;

namespace {

const char* kDebug = "ztsyncdomain_debug";

class ResourceManagerProxy : public SimulatorTest {
protected:
    void SetUp() override {
        SimulatorTest::SetUp();
        proxy = std::make_unique<CurlResourceManagerProxy>(host, 3000);
    }
    std::unique_ptr<CurlResourceManagerProxy> proxy;
};

}  // namespace

TEST_F(ResourceManagerProxy, ListsTheChassisResourcesByType) {
    const std::string second = sim.addDevice("chassis1");
    const std::string timescale2 = sim.addTimescale("gm2");

    const auto listing = proxy->fetchResourceListing();
    EXPECT_EQ(listing.syncableDevices, sim.deviceUris());
    EXPECT_EQ(listing.timescales, sim.timescaleUris());
    ASSERT_EQ(listing.syncableDevices.size(), 2u);
    EXPECT_EQ(listing.syncableDevices[1], second);
    EXPECT_EQ(sim.lastRequest().path, "/ztsdwebs/resources/");

    // A qualifier narrows the listing; a leading "/" is not doubled.
    const std::string devicesOnly = proxy->listResources("/ztsd/syncableDevices");
    EXPECT_EQ(sim.lastRequest().path, "/ztsdwebs/resources/ztsd/syncableDevices");
    const auto narrowed = zt::syncdomain::parseResourceListing(devicesOnly, host);
    EXPECT_EQ(narrowed.syncableDevices, sim.deviceUris());
    EXPECT_TRUE(narrowed.timescales.empty());
}

// The listing's own checks are unit-tested; here only that a served listing
// reaches them through the envelope.
TEST_F(ResourceManagerProxy, RefusesAListingWithTheWrongVersion) {
    sim.setListingVersion(2);
    const Raised wrong = captureRaise([&] { proxy->fetchResourceListing(); });
    EXPECT_EQ(wrong.code, -52005);
    EXPECT_EQ(wrong.detail(kDebug, "message"),
              "Sync Domain API version in JSON response from chassis missing or incorrect.");
    EXPECT_EQ(wrong.detail(kDebug, "remoteHost"), host);
}

TEST_F(ResourceManagerProxy, GetsAndPutsTheDeviceResource) {
    sim.setCoherent("chassis0", false);
    sim.addCoherencyLoss("chassis0", 3);
    const std::string device = proxy->getResource(devicePath);
    std::string uri;
    bool coherent = true;
    std::uint32_t losses = 0;
    EXPECT_TRUE(ztsynctools::getStringFromJsonString(device, "uri", uri));
    EXPECT_TRUE(ztsynctools::getBoolFromJsonString(device, "isCoherent", coherent));
    EXPECT_TRUE(ztsynctools::getUInt32FromJsonString(device, "coherencyLossCount", losses));
    EXPECT_EQ(uri, devicePath);
    EXPECT_EQ(coherent, sim.isCoherent("chassis0"));
    EXPECT_EQ(losses, 3u);

    const std::string requirements = "{\"version\":1,\"coherencyRequirements\":{\"maxOffset_ns\":1000}}";
    proxy->putResource(devicePath, requirements);
    EXPECT_EQ(sim.requirementsOf("chassis0"), requirements);
    EXPECT_EQ(sim.lastRequest().path, devicePath);

    // The same resource named without the leading "/ztsdwebs".
    proxy->getResource(devicePath.substr(std::string("/ztsdwebs").size()));
    EXPECT_EQ(sim.lastRequest().path, devicePath);
    EXPECT_EQ(sim.getCountOf("chassis0"), 2u);
}

TEST_F(ResourceManagerProxy, TransportAndStatusFailuresReachTheCallerTranslated) {
    const Raised missing = captureRaise([&] { proxy->getResource("/ztsdwebs/resources/ztsd/syncableDevices/nobody"); });
    EXPECT_EQ(missing.code, -52024);
    EXPECT_EQ(missing.number(kDebug, "originalCode"), -411356);
    EXPECT_EQ(missing.detail(kDebug, "url"), "http://" + host + "/ztsdwebs/resources/ztsd/syncableDevices/nobody");

    ztsdsim::Fault stall;
    stall.stall = true;
    sim.setFault(devicePath, stall);
    proxy->setTimeoutInMS(250);
    const auto start = std::chrono::steady_clock::now();
    const Raised stalled = captureRaise([&] { proxy->putResource(devicePath, "{}"); });
    const auto elapsed_ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
    EXPECT_EQ(stalled.code, -52024);
    EXPECT_EQ(stalled.detail(kDebug, "callingFn"), "ztsdtools::sendPutRequest");
    EXPECT_EQ(stalled.detail(kDebug, "data"), "{}");
    EXPECT_LT(elapsed_ms, 250 + 1000);
    EXPECT_EQ(sim.requirementsOf("chassis0"), "");

    // Other resources of the chassis are still reachable by the same proxy.
    EXPECT_NO_THROW(proxy->fetchResourceListing());
    sim.clearFaults();
    EXPECT_NO_THROW(proxy->getResource(devicePath));

    sim.stop();
    const Raised refused = captureRaise([&] { proxy->getResource(devicePath); });
    EXPECT_EQ(refused.code, -52024);
    EXPECT_EQ(refused.number(kDebug, "originalCode"), -411361);
}

TEST_F(ResourceManagerProxy, ConsecutiveRequestsShareOneConnection) {
    for (int i = 0; i < 4; ++i) proxy->getResource(devicePath);
    proxy->putResource(devicePath, "{}");
    proxy->fetchResourceListing();
    EXPECT_EQ(remotetest::clientSocketsTo(sim.port()), 1u);
}

// Several proxies, one per thread, against one chassis at once.
class ResourceManagerProxyConcurrency : public ResourceManagerProxy {};

TEST_F(ResourceManagerProxyConcurrency, IndependentProxiesOnSeveralThreadsAllGetThrough) {
    constexpr int kThreads = 6;
    constexpr int kRounds = 15;
    for (int t = 0; t < kThreads; ++t) sim.addDevice("d" + std::to_string(t));
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            try {
                CurlResourceManagerProxy own(host, 3000);
                const std::string path = sim.deviceResourcePath("d" + std::to_string(t));
                for (int i = 0; i < kRounds; ++i) {
                    own.putResource(path, "{\"round\":" + std::to_string(i) + "}");
                    std::string uri;
                    ztsynctools::getStringFromJsonString(own.getResource(path), "uri", uri);
                    if (uri != path) ++failures;
                }
            } catch (...) {
                ++failures;
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(failures.load(), 0);
    for (int t = 0; t < kThreads; ++t) {
        const std::string name = "d" + std::to_string(t);
        EXPECT_EQ(sim.putCountOf(name), static_cast<std::uint64_t>(kRounds));
        EXPECT_EQ(sim.getCountOf(name), static_cast<std::uint64_t>(kRounds));
        EXPECT_EQ(sim.requirementsOf(name), "{\"round\":" + std::to_string(kRounds - 1) + "}");
    }
}
