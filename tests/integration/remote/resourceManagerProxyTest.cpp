// CurlResourceManagerProxy against the simulated chassis over real HTTP on
// 127.0.0.1: listing, get and put of resources, and the errors callers see.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "integration/remote/remoteTestSupport.h"
#include "json/jsonKeyGetters.h"
#include "remote/curlResourceManagerProxy.h"
#include "unit/support/raisedError.h"
#include "unit/support/timing.h"

using remotetest::SimulatorTest;
using zt::syncdomain::CurlResourceManagerProxy;
using ztsdtest::captureRaise;
using ztsdtest::Raised;

namespace {

using ztsdtest::kDebug;

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

    // The listing's checks are unit-tested (and a bad version is the fault
    // matrix's H27 and H28); here only that the proxy names its own host.
    sim.setListingVersion(2);
    EXPECT_EQ(captureRaise([&] { proxy->fetchResourceListing(); }).detail(kDebug, "remoteHost"), host);
}

TEST_F(ResourceManagerProxy, GetsAndPutsTheDeviceResource) {
    std::string uri;
    EXPECT_TRUE(ztsynctools::getStringFromJsonString(proxy->getResource(devicePath), "uri", uri));
    EXPECT_EQ(uri, devicePath);

    const std::string requirements = "{\"version\":1,\"coherencyRequirements\":{\"maxOffset_ns\":1000}}";
    proxy->putResource(devicePath, requirements);
    EXPECT_EQ(sim.requirementsOf("chassis0"), requirements);
    EXPECT_EQ(sim.lastRequest().path, devicePath);

    // The same resource named without the leading "/ztsdwebs".
    proxy->getResource(devicePath.substr(std::string("/ztsdwebs").size()));
    EXPECT_EQ(sim.lastRequest().path, devicePath);
    EXPECT_EQ(sim.getCountOf("chassis0"), 2u);

    // Every request so far went over one connection.
    proxy->fetchResourceListing();
    EXPECT_EQ(sim.acceptedConnectionCount(), 1u);
}

// Statuses, stalls and refusals through every operation are the fault
// matrix's (its device proxies are this proxy); here that the proxy's
// time-out ends a stall on one path in time while its other paths answer.
TEST_F(ResourceManagerProxy, AStallEndsAtTheTimeOutAndOtherPathsStillAnswer) {
    ztsdsim::Fault stall;
    stall.stall = true;
    sim.setFault(devicePath, stall);
    proxy->setTimeoutInMS(250);
    const auto start = std::chrono::steady_clock::now();
    const Raised stalled = captureRaise([&] { proxy->putResource(devicePath, "{}"); });
    const long long elapsed_ms = ztsdtest::msSince(start);
    EXPECT_EQ(stalled.code, -52024);
    EXPECT_EQ(stalled.detail(kDebug, "callingFn"), "ztsdtools::sendPutRequest");
    EXPECT_EQ(stalled.detail(kDebug, "data"), "{}");
    EXPECT_GE(elapsed_ms, 230);
    EXPECT_LT(elapsed_ms, 250 + 1000);
    EXPECT_EQ(sim.requirementsOf("chassis0"), "");
    EXPECT_NO_THROW(proxy->fetchResourceListing());
}

// One proxy called from several threads at once: each request has a
// connection of its own, none fails, and afterwards a few connections stay
// open for reuse, so sequential requests open no new ones.
class ResourceManagerProxyConcurrency : public ResourceManagerProxy {};

TEST_F(ResourceManagerProxyConcurrency, OneProxyOnSeveralThreadsGivesEachRequestItsOwnConnection) {
    constexpr int kThreads = 6;
    constexpr int kRounds = 15;
    for (int t = 0; t < kThreads; ++t) sim.addDevice("d" + std::to_string(t));
    std::atomic<int> failures{0};
    ztsdtest::FanOut(kThreads, [&](int t) {
        try {
            const std::string path = sim.deviceResourcePath("d" + std::to_string(t));
            for (int i = 0; i < kRounds; ++i) {
                proxy->putResource(path, "{\"round\":" + std::to_string(i) + "}");
                std::string uri;
                ztsynctools::getStringFromJsonString(proxy->getResource(path), "uri", uri);
                if (uri != path) ++failures;
            }
        } catch (...) {
            ++failures;
        }
    }).join();
    EXPECT_EQ(failures.load(), 0);
    for (int t = 0; t < kThreads; ++t) {
        const std::string name = "d" + std::to_string(t);
        EXPECT_EQ(sim.putCountOf(name), static_cast<std::uint64_t>(kRounds));
        EXPECT_EQ(sim.getCountOf(name), static_cast<std::uint64_t>(kRounds));
        EXPECT_EQ(sim.requirementsOf(name), "{\"round\":" + std::to_string(kRounds - 1) + "}");
    }
    const auto opened = sim.acceptedConnectionCount();
    EXPECT_LE(opened, static_cast<std::uint64_t>(kThreads));
    EXPECT_LE(proxy->idleClientCount(), CurlResourceManagerProxy::kMaxIdleClients);
    for (int i = 0; i < 5; ++i) proxy->fetchResourceListing();
    EXPECT_EQ(sim.acceptedConnectionCount(), opened);
}
