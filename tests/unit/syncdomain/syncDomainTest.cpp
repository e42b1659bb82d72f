#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "errors/exception.h"
#include "syncdomain/libraryThreadPool.h"
#include "syncdomain/nopSyncDomain.h"
#include "syncdomain/syncDomain.h"
#include "time/hostTimescale.h"
#include "unit/support/raisedError.h"
#include "unit/syncdomain/fakeDevice.h"

using ztsdlib::SyncDomain;
using ztsdtest::FakeDevice;

namespace {

const std::string kDomainUri = "/domains/d1";
const std::string kTimescaleUri = "/localhost/ztsds/timescales/system";

// The code and report of the library error op raised; a call that raises
// nothing fails the test, and every report is checked to be valid JSON.
template <typename Op>
std::pair<int, std::string> errorOf(Op op) {
    ztsdtest::Raised r = ztsdtest::captureRaise(op);
    return {r.code, r.json};
}

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
    // A domain of members "a" and "b", started and coherent.
    std::unique_ptr<SyncDomain> startedDomainOf(FakeDevice& a, FakeDevice& b) {
        auto d = domain();
        d->addSyncableDevice(&a);
        d->addSyncableDevice(&b);
        d->start(5);
        return d;
    }
};

}  // namespace

TEST_F(DomainFixture, PlacesItsRequirementsDocumentOnceOnEachMemberUri) {
    auto d = domain();
    EXPECT_EQ(d->getRequirementsJson(),
              "{\"version\":1,\"syncDomainUri\":\"/domains/d1\",\"coherencyRequirements\":{\"requiredTimescaleUri\":"
              "\"/localhost/ztsds/timescales/system\",\"maxOffset_ns\":1000,\"minSyncDuration_ms\":2000},\"data\":{}}");
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

    FakeDevice& refusing = device("refusing");
    refusing.refuseRequirements = true;
    auto [code, report] = errorOf([&] { d->addSyncableDevice(&refusing); });
    EXPECT_EQ(code, -1074100993);  // the device's own error, unchanged
    EXPECT_FALSE(d->isMember(refusing.uri));

    EXPECT_EQ(errorOf([&] { d->addSyncableDevice(nullptr); }).first, -52005);
    EXPECT_TRUE(contains(errorOf([&] { SyncDomain(kDomainUri, timescale, 1, 1, nullptr); }).second,
                         "\"threadPool\":\"nullptr\""));
}

TEST_F(DomainFixture, StartRefusesBadStatesAndArguments) {
    auto d = domain();
    auto [emptyCode, emptyReport] = errorOf([&] { d->start(5); });
    EXPECT_EQ(emptyCode, -52010);
    EXPECT_TRUE(contains(emptyReport, "Sync Domain cannot start without any members."));

    FakeDevice& a = device("a");
    d->addSyncableDevice(&a);
    auto [zeroCode, zeroReport] = errorOf([&] { d->startV2(true, true, 0); });
    EXPECT_EQ(zeroCode, -52005);
    EXPECT_TRUE(contains(zeroReport, "\"syncDomainUri\":\"/domains/d1\",\"waitTimeout_s\":0}"));
    auto [unsupportedCode, unsupportedReport] = errorOf([&] { d->startV2(true, false, 5); });
    EXPECT_EQ(unsupportedCode, -52002);
    EXPECT_TRUE(contains(unsupportedReport, "\"saveInitialCoherency\":false,\"waitToBecomeCoherent\":true"));
    EXPECT_FALSE(d->isRunning());

    EXPECT_EQ(errorOf([&] { d->isCoherent(); }).first, -52017);
    EXPECT_EQ(errorOf([&] { d->isCoherentSinceLastChecked(); }).first, -52017);

    d->startV2(false, false, 0);  // no traffic at all
    EXPECT_TRUE(d->isRunning());
    EXPECT_EQ(a.checkCalls, 0);
    auto [againCode, againReport] = errorOf([&] { d->start(5); });
    EXPECT_EQ(againCode, -52017);
    EXPECT_TRUE(contains(againReport, "\"isDomainRunning\":true,\"syncDomainUri\":\"/domains/d1\""));
    FakeDevice& late = device("late");
    EXPECT_EQ(errorOf([&] { d->addSyncableDevice(&late); }).first, -52017);
    d->stop();
    EXPECT_FALSE(d->isRunning());
}

TEST_F(DomainFixture, StartWithoutWaitingSavesStateButLeavesTheLatchClear) {
    auto d = domain();
    FakeDevice& a = device("a");
    a.lossCountValue = 7;
    d->addSyncableDevice(&a);
    d->startV2(false, true, 0);
    EXPECT_EQ(a.checkCalls, 1);
    ASSERT_NE(d->memberState(a.uri), nullptr);
    EXPECT_TRUE(d->memberState(a.uri)->isCoherentAtStart);
    EXPECT_EQ(d->memberState(a.uri)->coherencyLossCountAtStart, 7u);
    EXPECT_FALSE(d->isCoherent());  // answered from the latch, nobody asked
    EXPECT_EQ(a.checkCalls, 1);
    EXPECT_TRUE(d->isCoherentSinceLastChecked());
    EXPECT_EQ(a.checkCalls, 2);
}

TEST_F(DomainFixture, WaitingStartRepeatsPassesUntilEveryMemberIsCoherent) {
    auto d = domain();
    FakeDevice& a = device("a");
    FakeDevice& b = device("b");
    b.incoherentChecks = 3;
    d->addSyncableDevice(&a);
    d->addSyncableDevice(&b);
    EXPECT_TRUE(d->start(10));
    EXPECT_TRUE(d->isRunning());
    EXPECT_EQ(b.checkCalls, 4);
    EXPECT_TRUE(d->isCoherent());
    EXPECT_TRUE(d->toJson().find("\"isCoherent\":true") != std::string::npos);
}

TEST_F(DomainFixture, WaitingStartTimesOutWhenAMemberStaysIncoherent) {
    auto d = domain();
    FakeDevice& a = device("a");
    a.coherent = false;
    a.delay_ms = 20;
    d->addSyncableDevice(&a);
    const auto began = std::chrono::steady_clock::now();
    auto [code, report] = errorOf([&] { d->start(1); });
    const auto took = std::chrono::steady_clock::now() - began;
    EXPECT_EQ(code, -52007);
    EXPECT_TRUE(contains(report, "Timed out while waiting for one or more syncable devices to respond."));
    // Either the walk's own check ("timeoutInSeconds") or the fan-out's timer
    // ("timeout_ms") ends it, depending on where the second runs out.
    EXPECT_TRUE(contains(report, "\"timeoutInSeconds\":1") || contains(report, "\"timeout_ms\":1000")) << report;
    EXPECT_LT(took, std::chrono::seconds(5));
    EXPECT_FALSE(d->isRunning());
    EXPECT_FALSE(d->memberState(a.uri)->isCoherentAtStart);
}

TEST_F(DomainFixture, AStalledMemberTimesTheFanOutOutWithItsTimeout) {
    auto d = domain();
    FakeDevice& a = device("a");
    a.stalled = true;
    d->addSyncableDevice(&a);
    const auto began = std::chrono::steady_clock::now();
    auto [code, report] = errorOf([&] { d->start(1); });
    const auto took = std::chrono::steady_clock::now() - began;
    EXPECT_EQ(code, -52007);
    EXPECT_TRUE(contains(report, "\"syncDomainUri\":\"/domains/d1\",\"timeout_ms\":1000}")) << report;
    EXPECT_GE(took, std::chrono::milliseconds(1000));
    EXPECT_LT(took, std::chrono::milliseconds(3000));
    a.release();  // the pool finishes the late task; it writes only its own fields
}

TEST_F(DomainFixture, AFailingMemberBecomesACommunicationsFaultWithItsErrorNested) {
    FakeDevice& a = device("a");
    FakeDevice& b = device("b");
    auto d = startedDomainOf(a, b);
    b.failing = true;
    auto [code, report] = errorOf([&] { d->isCoherentSinceLastChecked(); });
    EXPECT_EQ(code, -52024);
    auto doc = ztsdtest::parseJson(report);
    ASSERT_TRUE(doc) << report;
    cJSON* nested = cJSON_GetObjectItem(doc.get(), "nested_error");
    ASSERT_TRUE(cJSON_IsArray(nested));
    cJSON* inner = cJSON_GetArrayItem(nested, 0);
    EXPECT_EQ(cJSON_GetObjectItem(inner, "code")->valueint, -52024);
    EXPECT_TRUE(contains(report, "device unreachable"));
    EXPECT_TRUE(contains(report, "Encountered error while communicating with one or more syncable devices."));

    // toJson does not fail for one bad member: it reports it in place.
    const std::string json = d->toJson();
    EXPECT_TRUE(ztsdtest::strictlyValid(json.c_str())) << json;
    EXPECT_TRUE(contains(json, "{\"uri\":\"" + b.uri + "\",\"error\":{\"error_constant\""));
    EXPECT_TRUE(contains(json, "{\"uri\":\"" + a.uri + "\",\"isCoherent\":true}"));
}

TEST_F(DomainFixture, ALossSinceStartIsFinalButALossSinceLastCheckIsReportedOnce) {
    FakeDevice& a = device("a");
    FakeDevice& b = device("b");
    auto d = startedDomainOf(a, b);
    EXPECT_TRUE(d->isCoherent());
    EXPECT_TRUE(d->isCoherentSinceLastChecked());

    b.lossCountValue = 1;  // lost coherency once and regained it
    EXPECT_FALSE(d->isCoherentSinceLastChecked());
    EXPECT_TRUE(d->isCoherentSinceLastChecked());
    EXPECT_FALSE(d->isCoherent());
    const int calls = a.checkCalls;
    EXPECT_FALSE(d->isCoherent());  // the latch answers without traffic
    EXPECT_EQ(a.checkCalls, calls);

    d->stop();
    EXPECT_TRUE(d->toJson().find("\"isRunning\":false") != std::string::npos);
    d->start(5);  // re-reads the initial coherency
    EXPECT_TRUE(d->isCoherent());
    EXPECT_EQ(d->memberState(b.uri)->coherencyLossCountAtStart, 1u);
}

TEST_F(DomainFixture, APoolThatRunsTasksInsideSubmitWorks) {
    ztsdtest::InlinePool inlinePool;
    auto d = domain(&inlinePool);
    FakeDevice& a = device("a");
    FakeDevice& b = device("b");
    d->addSyncableDevice(&a);
    d->addSyncableDevice(&b);
    EXPECT_TRUE(d->start(1));
    EXPECT_TRUE(d->isCoherent());
    b.coherent = false;
    EXPECT_FALSE(d->isCoherentSinceLastChecked());
    EXPECT_FALSE(d->isCoherent());
}

TEST_F(DomainFixture, DescribesItselfExactly) {
    auto d = domain();
    EXPECT_EQ(d->toJson(),
              "{\"type\":\"SyncDomain\",\"uri\":\"/domains/d1\",\"isCoherent\":false,\"coherencyRequirements\":{"
              "\"requiredTimescaleUri\":\"/localhost/ztsds/timescales/system\",\"maxOffset_ns\":1000,"
              "\"minSyncDuration_ms\":2000},\"isRunning\":false,\"syncableDevices\":[]}");
    FakeDevice& a = device("a");
    d->addSyncableDevice(&a);
    EXPECT_EQ(d->toJson(),
              "{\"type\":\"SyncDomain\",\"uri\":\"/domains/d1\",\"isCoherent\":false,\"coherencyRequirements\":{"
              "\"requiredTimescaleUri\":\"/localhost/ztsds/timescales/system\",\"maxOffset_ns\":1000,"
              "\"minSyncDuration_ms\":2000},\"isRunning\":false,\"syncableDevices\":[{\"uri\":\"" +
                  a.uri + "\",\"isCoherent\":true}]}");
    EXPECT_EQ(d->getUri(), kDomainUri);
    EXPECT_EQ(d->getTimescaleUri(), kTimescaleUri);
}

TEST(NopSyncDomain, KeepsMembersAndIsCoherentExactlyWhileRunning) {
    ztsdlib::HostTimescale timescale(kTimescaleUri);
    ztsdlib::NopSyncDomain d("/nop", timescale);
    FakeDevice a("/a"), b("/b"), aTwin("/a");
    EXPECT_EQ(errorOf([&] { d.startV2(true, false, 0); }).first, -52010);
    d.addSyncableDevice(&a);
    d.addSyncableDevice(&b);
    d.addSyncableDevice(&aTwin);
    EXPECT_EQ(a.setCalls + b.setCalls, 0);  // nothing is sent
    EXPECT_TRUE(d.isMember("/b"));
    EXPECT_EQ(errorOf([&] { d.isCoherent(); }).first, -52017);
    d.startV2(true, false, 0);  // arguments not looked at
    EXPECT_TRUE(d.isCoherent());
    EXPECT_TRUE(d.isCoherentSinceLastChecked());
    EXPECT_EQ(d.toJson(), "{\"type\":\"NopSyncDomain\",\"uri\":\"/nop\",\"isCoherent\":true,\"isRunning\":true,"
                          "\"syncableDevices\":[\"/a\",\"/b\"]}");
    EXPECT_EQ(errorOf([&] { d.start(1); }).first, -52017);
    EXPECT_EQ(errorOf([&] { d.addSyncableDevice(&a); }).first, -52017);
    d.stop();
    EXPECT_EQ(errorOf([&] { d.isCoherentSinceLastChecked(); }).first, -52017);
    EXPECT_TRUE(d.start(0));
    EXPECT_TRUE(d.isCoherent());
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
