// Sync domains of device proxies against several simulated chassis, each its
// own HTTP server on 127.0.0.1, on the library's pool, through the exports.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "syncdomain/libraryThreadPool.h"
#include "syncdomain/syncDomain.h"
#include "syncdomain/syncableDeviceProxy.h"
#include "time/hostTimescale.h"
#include "unit/support/raisedError.h"
#include "unit/support/statusFixture.h"
#include "unit/support/timing.h"
#include "ztsd-sim/chassisSimulator.h"
#include "ztsdlib/ztsdlib.h"

using ztsdtest::captureRaise;

namespace {

constexpr int kChassis = 3;

class DomainOfChassis : public ::testing::Test {
protected:
    void SetUp() override {
        for (int i = 0; i < kChassis; ++i) {
            sims.push_back(std::make_unique<ztsdsim::ChassisSimulator>());
            sims.back()->start();
            const std::string uri = sims.back()->addDevice("chassis" + std::to_string(i));
            // A short HTTP time-out so that a stalled chassis frees its pool thread soon.
            devices.push_back(std::make_unique<ztsdlib::SyncableDeviceProxy>(uri, 2500));
        }
        domain = std::make_unique<ztsdlib::SyncDomain>("/domains/lab", timescale, 1000, 200, &pool);
        for (auto& d : devices) domain->addSyncableDevice(d.get());
    }
    void TearDown() override {
        for (auto& s : sims) s->stop();  // releases stalled requests
    }
    ztsdtest::OwnedStatus status;
    ztsdlib::HostTimescale timescale{"/localhost/ztsds/timescales/system"};
    std::vector<std::unique_ptr<ztsdsim::ChassisSimulator>> sims;
    std::vector<std::unique_ptr<ztsdlib::SyncableDeviceProxy>> devices;
    // Declared after the devices: destroyed first, so late tasks finish
    // before the devices they use go away.
    ztsdlib::LibraryThreadPool pool{kChassis};
    std::unique_ptr<ztsdlib::SyncDomain> domain;
};

}  // namespace

TEST_F(DomainOfChassis, PlacesRequirementsOnEveryChassisAndStartsInEachMode) {
    for (int i = 0; i < kChassis; ++i)
        EXPECT_EQ(sims[i]->requirementsOf("chassis" + std::to_string(i)), domain->getRequirementsJson());

    domain->startV2(false, false, 0);  // not saving: no traffic
    EXPECT_TRUE(domain->isRunning());
    EXPECT_EQ(sims[0]->getCountOf("chassis0"), 0u);
    domain->stop();

    sims[0]->addCoherencyLoss("chassis0");  // before the start: part of the state it saves
    domain->startV2(false, true, 0);         // not waiting: one check, latch left clear
    EXPECT_EQ(sims[0]->getCountOf("chassis0"), 1u);
    EXPECT_FALSE(domain->isCoherent());  // answered by the latch, without asking
    EXPECT_EQ(sims[0]->getCountOf("chassis0"), 1u);
    EXPECT_TRUE(domain->isCoherentSinceLastChecked());
    domain->stop();

    sims[1]->setCoherent("chassis1", false);
    std::thread recover([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        sims[1]->setCoherent("chassis1", true);
    });
    const auto before = sims[1]->getCountOf("chassis1");
    const auto began = std::chrono::steady_clock::now();
    EXPECT_TRUE(domain->start(5));  // waiting: passes until chassis1 comes round
    const long long took_ms = ztsdtest::msSince(began);
    recover.join();
    // Passes start at least 50 ms apart: one at once, then one per 50 ms.
    const auto gets = sims[1]->getCountOf("chassis1") - before;
    EXPECT_GE(gets, 2u);
    EXPECT_LE(gets, static_cast<std::uint64_t>(took_ms / 50 + 1)) << took_ms << " ms";
    EXPECT_TRUE(domain->isCoherent());
    EXPECT_TRUE(domain->isCoherentSinceLastChecked());
}

// A chassis slow to lock is asked about 20 times a second, not as fast as it
// answers, and the start's time-out still comes on time.
TEST_F(DomainOfChassis, AWaitingStartPacesItsPassesAndTimesOutOnTime) {
    sims[1]->setCoherent("chassis1", false);
    const auto began = std::chrono::steady_clock::now();
    auto timedOut = captureRaise([&] { domain->start(1); });
    const auto took = std::chrono::steady_clock::now() - began;
    EXPECT_EQ(timedOut.code, -52007);
    // Run out between two passes, the start says its own time-out; run out
    // inside a pass that a loaded machine made slow, the fan-out's.
    EXPECT_TRUE(timedOut.number(ztsdtest::kDebug, "timeoutInSeconds") == 1 ||
                timedOut.number(ztsdtest::kDebug, "timeout_ms") == 1000)
        << timedOut.json;
    EXPECT_EQ(timedOut.detail("ztsyncdomain_debug", "message"),
              "Timed out while waiting for one or more syncable devices to respond.");
    EXPECT_FALSE(domain->isRunning());
    EXPECT_GE(took, std::chrono::milliseconds(1000));
    EXPECT_LT(took, std::chrono::milliseconds(1050));
    for (int i = 0; i < kChassis; ++i) {
        const auto gets = sims[i]->getCountOf("chassis" + std::to_string(i));
        EXPECT_GE(gets, 10u) << i;  // 20 a second, give or take a slow pass
        EXPECT_LE(gets, 25u) << i;
    }
}

// Ctrl-C for a program whose start waits: another thread cancels it, whether
// the start is between passes (a member not coherent) or inside one (a member
// that does not answer). The start ends within 200 ms with -52007 and
// "cancelled", the domain stopped; a cancel with no start under way is
// dropped, so the next start waits its whole time again.
using StartCancelConcurrency = DomainOfChassis;

TEST_F(StartCancelConcurrency, EndsAStartFromAnotherThreadButNeverALaterOne) {
    struct Case {
        const char* name;
        bool stall;  // else: chassis1 answers "not coherent"
    };
    for (const Case& c : {Case{"between passes", false}, Case{"inside a pass", true}}) {
        SCOPED_TRACE(c.name);
        if (c.stall) {
            ztsdsim::Fault stall;
            stall.stall = true;
            sims[1]->setFault("", stall);
        } else {
            sims[1]->setCoherent("chassis1", false);
        }
        std::atomic<bool> cancelTaken{false};
        std::chrono::steady_clock::time_point cancelledAt;
        std::thread canceller([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
            cancelledAt = std::chrono::steady_clock::now();
            cancelTaken = domain->cancelStart();
        });
        const auto cancelled = captureRaise([&] { domain->start(10); });
        const auto ended = std::chrono::steady_clock::now();
        canceller.join();
        EXPECT_TRUE(cancelTaken.load());
        EXPECT_LT(ended - cancelledAt, std::chrono::milliseconds(200));
        EXPECT_EQ(cancelled.code, -52007);
        EXPECT_TRUE(cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(cancelled.debug("ztsyncdomain_debug"), "cancelled")))
            << cancelled.json;
        EXPECT_FALSE(domain->isRunning());
        sims[1]->clearFaults();
        sims[1]->setCoherent("chassis1", true);
    }
    // Nothing under way: the cancel is dropped, and a later start that
    // cannot succeed still waits for its whole time.
    EXPECT_FALSE(domain->cancelStart());
    sims[1]->setCoherent("chassis1", false);
    const auto began = std::chrono::steady_clock::now();
    const auto timedOut = captureRaise([&] { domain->start(1); });
    EXPECT_GE(std::chrono::steady_clock::now() - began, std::chrono::milliseconds(1000));
    EXPECT_EQ(timedOut.code, -52007);
    EXPECT_EQ(cJSON_GetObjectItemCaseSensitive(timedOut.debug(ztsdtest::kDebug), "cancelled"), nullptr) << timedOut.json;
}

TEST_F(DomainOfChassis, ALossOnOneMemberIsFinalForIsCoherentAndReportedOnceSinceLastCheck) {
    ASSERT_TRUE(domain->start(5));
    sims[2]->addCoherencyLoss("chassis2");
    EXPECT_FALSE(domain->isCoherentSinceLastChecked());
    EXPECT_TRUE(domain->isCoherentSinceLastChecked());
    EXPECT_FALSE(domain->isCoherent());
    const auto gets = sims[0]->getCountOf("chassis0");
    EXPECT_FALSE(domain->isCoherent());  // for good: the latch answers without asking
    EXPECT_EQ(sims[0]->getCountOf("chassis0"), gets);
    domain->stop();
    ASSERT_TRUE(domain->start(5));
    EXPECT_TRUE(domain->isCoherent());
}

TEST_F(DomainOfChassis, AStalledMemberEndsTheStartWithTheFanOutTimeout) {
    ztsdsim::Fault stall;
    stall.stall = true;
    sims[1]->setFault("", stall);
    const auto began = std::chrono::steady_clock::now();
    auto timedOut = captureRaise([&] { domain->start(1); });
    const auto took = std::chrono::steady_clock::now() - began;
    EXPECT_GE(took, std::chrono::milliseconds(1000));
    EXPECT_LT(took, std::chrono::milliseconds(2500));
    EXPECT_EQ(timedOut.code, -52007);
    EXPECT_EQ(timedOut.number("ztsyncdomain_debug", "timeout_ms"), 1000);
    EXPECT_FALSE(domain->isRunning());
    sims[1]->clearFaults();
}

TEST_F(DomainOfChassis, ARefusingMemberIsACommunicationsFaultWithItsErrorNested) {
    ASSERT_TRUE(domain->start(5));
    sims[0]->stop();
    auto failed = captureRaise([&] { domain->isCoherentSinceLastChecked(); });
    EXPECT_EQ(failed.code, -52024);
    EXPECT_EQ(failed.detail("ztsyncdomain_debug", "message"),
              "Encountered error while communicating with one or more syncable devices.");
    const cJSON* nested = failed.member("nested_error");
    ASSERT_TRUE(cJSON_IsArray(nested));
    ASSERT_EQ(cJSON_GetArraySize(nested), 1);
    EXPECT_EQ(cJSON_GetObjectItem(cJSON_GetArrayItem(nested, 0), "code")->valueint, -52024);
    // toJson with one member failing: DomainFaultMatrix's toJson cells.
}

TEST_F(DomainOfChassis, ASecondDomainWithOtherRequirementsIsRefusedByTheDevices) {
    ztsdlib::SyncDomain other("/domains/other", timescale, 5000, 200, &pool);
    auto conflict = captureRaise([&] { other.addSyncableDevice(devices[0].get()); });
    EXPECT_EQ(conflict.code, -1074100993);
    EXPECT_FALSE(other.isMember(devices[0]->getUri()));
}

TEST_F(DomainOfChassis, WorksThroughTheCInterfaceOnTheLibraryPool) {
    void* cPool = ztsdlib_ThreadPool_create(2, &status);
    ztsdlib_Timescale* ts = ztsdlib_HostTimescale_create(ZTSDLIB_HOST_TIMESCALE_URI, &status);
    ztsdlib_SyncDomain* d = ztsdlib_SyncDomain_create("/domains/c", ts, 1000, 200, cPool, &status);
    ztsdlib_SyncableDevice* dev = ztsdlib_SyncableDeviceProxy_create(sims[0]->deviceUri("chassis0").c_str(), &status);
    ASSERT_EQ(status.s.code, 0) << status.text();
    ztsdlib_SyncDomain_addSyncableDevice(d, dev, &status);
    EXPECT_TRUE(ztsdlib_SyncDomain_isMember(d, sims[0]->deviceUri("chassis0").c_str(), &status));
    EXPECT_FALSE(ztsdlib_SyncDomain_cancelStart(d, &status));  // no start to end
    EXPECT_TRUE(ztsdlib_SyncDomain_start(d, 5, &status));
    EXPECT_TRUE(ztsdlib_SyncDomain_isCoherent(d, &status));
    std::uint32_t losses = 99;
    EXPECT_TRUE(ztsdlib_SyncableDevice_isCoherent(dev, &losses, &status));
    EXPECT_EQ(losses, 0u);
    char* json = ztsdlib_SyncableDevice_toJson(dev, &status);
    ASSERT_NE(json, nullptr);
    // A proxy of its own: only this domain's requirements are recorded on it.
    EXPECT_NE(std::string(json).find("\"syncDomainUris\":[\"/domains/c\"]"), std::string::npos) << json;
    std::free(json);
    ztsdlib_SyncableDevice_clearCoherencyRequirements(dev, "/domains/c", &status);
    EXPECT_EQ(status.s.code, 0) << status.text();

    ztsdlib_SyncDomain_delete(d);
    ztsdlib_SyncableDevice_delete(dev);
    ztsdlib_Timescale_delete(ts);
    ztsdlib_ThreadPool_delete(cPool);
}

// One device proxy in two domains and in the caller's own hands. Domain A's
// start times out on a stalled request, which its pool task keeps waiting
// on; meanwhile domain B's start and direct calls on the same proxy from
// other threads all succeed at once, each on a connection of its own (run
// under ThreadSanitizer too: no race on the proxy's state).
TEST(SharedDeviceConcurrency, AStalledLeftoverRequestNeitherFailsNorDelaysOtherUsersOfTheDevice) {
    ztsdsim::ChassisSimulator sim;
    sim.start();
    ztsdlib::SyncableDeviceProxy device(sim.addDevice("chassis0"), 3000);
    ztsdlib::HostTimescale timescale{"/localhost/ztsds/timescales/system"};
    ztsdlib::LibraryThreadPool pool{4};
    auto domainA = std::make_unique<ztsdlib::SyncDomain>("/domains/a", timescale, 1000, 200, &pool);
    auto domainB = std::make_unique<ztsdlib::SyncDomain>("/domains/b", timescale, 1000, 200, &pool);
    domainA->addSyncableDevice(&device);
    domainB->addSyncableDevice(&device);
    EXPECT_EQ(device.syncDomainCount(), 2u);

    ztsdsim::Fault stallOnce;
    stallOnce.stall = true;
    stallOnce.remaining = 1;
    sim.setFault("", stallOnce);
    const auto timedOut = captureRaise([&] { domainA->start(1); });
    EXPECT_EQ(timedOut.code, -52007);
    EXPECT_EQ(timedOut.number("ztsyncdomain_debug", "timeout_ms"), 1000);

    const auto began = std::chrono::steady_clock::now();
    std::atomic<int> failures{0};
    std::vector<std::thread> callers;
    callers.emplace_back([&] {
        if (!domainB->start(5) || !domainB->isCoherentSinceLastChecked()) ++failures;
    });
    for (int t = 0; t < 2; ++t) {
        callers.emplace_back([&] {
            for (int i = 0; i < 10; ++i) {
                std::uint32_t losses = 99;
                if (!device.isCoherent(&losses) || losses != 0) ++failures;
                if (device.toJson().find("\"/domains/b\"") == std::string::npos) ++failures;
            }
        });
    }
    for (auto& c : callers) c.join();
    const auto took = std::chrono::steady_clock::now() - began;
    EXPECT_EQ(failures.load(), 0);
    EXPECT_LT(took, std::chrono::milliseconds(1500));  // nobody waited for the stalled request
    EXPECT_TRUE(domainA->start(5));  // A itself recovers at once as well

    sim.stop();  // ends the stalled request; the domains then go without waiting long
    domainA.reset();
    domainB.reset();
}
