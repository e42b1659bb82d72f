// The domain's own logic over devices that answer from memory: its
// requirements, the states and arguments it refuses, the incoherent member
// that times a waiting start out, its JSON, the nop domain, and many members
// on a real pool. The paths over HTTP (waiting and non-waiting starts, losses,
// stalled and failing members) are in tests/integration/syncdomain.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "syncdomain/libraryThreadPool.h"
#include "syncdomain/nopSyncDomain.h"
#include "syncdomain/syncDomain.h"
#include "time/hostTimescale.h"
#include "unit/support/raisedError.h"
#include "unit/syncdomain/fakeDevice.h"

using ztsdlib::SyncDomain;
using ztsdtest::captureRaise;
using ztsdtest::FakeDevice;

namespace {

const std::string kDomainUri = "/domains/d1";
const std::string kTimescaleUri = "/localhost/ztsds/timescales/system";

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

struct DomainFixture : ::testing::Test {
    ztsdlib::HostTimescale timescale{kTimescaleUri};
    ztsdlib::LibraryThreadPool pool{4};
    std::vector<std::unique_ptr<FakeDevice>> devices;

    FakeDevice& device(const std::string& name) {
        devices.push_back(std::make_unique<FakeDevice>("/host/ztsdwebs/resources/ztsd/syncableDevices/" + name));
        return *devices.back();
    }
    std::unique_ptr<SyncDomain> domain(ztsdlib::ThreadPoolInterface* p = nullptr) {
        return std::make_unique<SyncDomain>(kDomainUri, timescale, 1000, 2000, p ? p : &pool);
    }
};

}  // namespace

TEST_F(DomainFixture, PlacesItsRequirementsDocumentOnceOnEachMemberUriAndDescribesItself) {
    auto d = domain();
    EXPECT_EQ(d->getRequirementsJson(),
              "{\"version\":1,\"syncDomainUri\":\"/domains/d1\",\"coherencyRequirements\":{\"requiredTimescaleUri\":"
              "\"/localhost/ztsds/timescales/system\",\"maxOffset_ns\":1000,\"minSyncDuration_ms\":2000},\"data\":{}}");
    EXPECT_TRUE(contains(d->toJson(), "\"isRunning\":false,\"syncableDevices\":[]}"));
    FakeDevice& a = device("a");
    FakeDevice twin(a.uri);  // another object for the same URI
    d->addSyncableDevice(&a);
    d->addSyncableDevice(&a);
    d->addSyncableDevice(&twin);
    EXPECT_EQ(a.setCalls, 1);
    EXPECT_EQ(twin.setCalls, 0);
    EXPECT_EQ(a.requirements(), d->getRequirementsJson());
    EXPECT_TRUE(d->isMember(a.uri));
    EXPECT_FALSE(d->isMember(a.uri + "x"));
    EXPECT_EQ(d->toJson(),
              "{\"type\":\"SyncDomain\",\"uri\":\"/domains/d1\",\"isCoherent\":false,\"coherencyRequirements\":{"
              "\"requiredTimescaleUri\":\"/localhost/ztsds/timescales/system\",\"maxOffset_ns\":1000,"
              "\"minSyncDuration_ms\":2000},\"isRunning\":false,\"syncableDevices\":[{\"uri\":\"" +
                  a.uri + "\",\"isCoherent\":true}]}");

    EXPECT_EQ(captureRaise([&] { d->addSyncableDevice(nullptr); }).code, -52005);
    EXPECT_TRUE(contains(captureRaise([&] { SyncDomain(kDomainUri, timescale, 1, 1, nullptr); }).json,
                         "\"threadPool\":\"nullptr\""));
}

TEST_F(DomainFixture, StartRefusesBadStatesAndArguments) {
    auto d = domain();
    auto empty = captureRaise([&] { d->start(5); });
    EXPECT_EQ(empty.code, -52010);
    EXPECT_TRUE(contains(empty.json, "Sync Domain cannot start without any members."));

    FakeDevice& a = device("a");
    d->addSyncableDevice(&a);
    EXPECT_EQ(captureRaise([&] { d->startV2(true, true, 0); }).code, -52005);  // waiting needs a time-out
    EXPECT_EQ(captureRaise([&] { d->startV2(true, false, 5); }).code, -52002);  // waiting needs the saved state
    EXPECT_FALSE(d->isRunning());
    EXPECT_EQ(captureRaise([&] { d->isCoherent(); }).code, -52017);
    EXPECT_EQ(captureRaise([&] { d->isCoherentSinceLastChecked(); }).code, -52017);

    d->startV2(false, false, 0);
    EXPECT_TRUE(d->isRunning());
    auto again = captureRaise([&] { d->start(5); });
    EXPECT_EQ(again.code, -52017);
    EXPECT_TRUE(contains(again.json, "\"isDomainRunning\":true,\"syncDomainUri\":\"/domains/d1\""));
    FakeDevice& late = device("late");
    EXPECT_EQ(captureRaise([&] { d->addSyncableDevice(&late); }).code, -52017);
    d->stop();
    EXPECT_FALSE(d->isRunning());
}

TEST_F(DomainFixture, APoolThatRunsTasksInsideSubmitWorks) {
    ztsdtest::InlinePool inlinePool;
    auto d = domain(&inlinePool);
    FakeDevice& a = device("a");
    FakeDevice& b = device("b");
    b.incoherentChecks = 2;
    d->addSyncableDevice(&a);
    d->addSyncableDevice(&b);
    EXPECT_TRUE(d->start(5));
    EXPECT_EQ(b.checkCalls, 3);  // passes repeat until every member is coherent
    EXPECT_TRUE(d->isCoherent());
    b.coherent = false;
    EXPECT_FALSE(d->isCoherentSinceLastChecked());
    EXPECT_FALSE(d->isCoherent());
}

TEST(NopSyncDomain, KeepsMembersAndIsCoherentExactlyWhileRunning) {
    ztsdlib::HostTimescale timescale(kTimescaleUri);
    ztsdlib::NopSyncDomain d("/nop", timescale);
    FakeDevice a("/a"), b("/b"), aTwin("/a");
    EXPECT_EQ(captureRaise([&] { d.startV2(true, false, 0); }).code, -52010);
    d.addSyncableDevice(&a);
    d.addSyncableDevice(&b);
    d.addSyncableDevice(&aTwin);
    EXPECT_EQ(a.setCalls + b.setCalls, 0);  // nothing is sent
    EXPECT_TRUE(d.isMember("/b"));
    EXPECT_EQ(captureRaise([&] { d.isCoherent(); }).code, -52017);
    d.startV2(true, false, 0);  // arguments not looked at
    EXPECT_TRUE(d.isCoherent());
    EXPECT_TRUE(d.isCoherentSinceLastChecked());
    EXPECT_EQ(d.toJson(), "{\"type\":\"NopSyncDomain\",\"uri\":\"/nop\",\"isCoherent\":true,\"isRunning\":true,"
                          "\"syncableDevices\":[\"/a\",\"/b\"]}");
    EXPECT_EQ(captureRaise([&] { d.start(1); }).code, -52017);
    EXPECT_EQ(captureRaise([&] { d.addSyncableDevice(&a); }).code, -52017);
    d.stop();
    EXPECT_EQ(captureRaise([&] { d.isCoherentSinceLastChecked(); }).code, -52017);
    EXPECT_TRUE(d.start(0));
    EXPECT_EQ(a.checkCalls + b.checkCalls, 0);
}

TEST(SyncDomainConcurrency, ManyMembersOnARealPoolThroughStartStopCycles) {
    ztsdlib::HostTimescale timescale(kTimescaleUri);
    ztsdlib::LibraryThreadPool pool(8);
    std::vector<std::unique_ptr<FakeDevice>> devices;
    SyncDomain d(kDomainUri, timescale, 1, 1, &pool);
    for (int i = 0; i < 64; ++i) {
        devices.push_back(std::make_unique<FakeDevice>("/dev/" + std::to_string(i)));
        devices.back()->delay_ms = i % 3;
        d.addSyncableDevice(devices.back().get());
    }
    for (int cycle = 0; cycle < 5; ++cycle) {
        devices[cycle]->incoherentChecks = 2;
        ASSERT_TRUE(d.start(10));
        EXPECT_TRUE(d.isCoherent());
        devices[cycle + 10]->lossCountValue = devices[cycle + 10]->lossCountValue + 1;
        EXPECT_FALSE(d.isCoherentSinceLastChecked());
        EXPECT_TRUE(d.isCoherentSinceLastChecked());
        EXPECT_FALSE(d.isCoherent());
        EXPECT_TRUE(ztsdtest::strictlyValid(d.toJson().c_str()));
        d.stop();
    }
}
