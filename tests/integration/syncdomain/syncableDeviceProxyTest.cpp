// The syncable device proxy against simulated chassis over real HTTP on
// 127.0.0.1: requirements and their conflicts, coherency, and the device's
// JSON, with the faults a chassis can show.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "ztsd-sim/chassisSimulator.h"
#include "syncdomain/syncableDeviceProxy.h"
#include "unit/support/raisedError.h"

using ztsdlib::SyncableDeviceProxy;
using ztsdtest::captureRaise;

namespace {

constexpr const char* kDebug = "ztsync_debug";

std::string requirements(const std::string& domain, std::uint32_t maxOffset, std::uint32_t minSync,
                         const std::string& timescale) {
    return "{\"version\":1,\"syncDomainUri\":\"" + domain + "\",\"coherencyRequirements\":{\"requiredTimescaleUri\":\"" +
           timescale + "\",\"maxOffset_ns\":" + std::to_string(maxOffset) +
           ",\"minSyncDuration_ms\":" + std::to_string(minSync) + "},\"data\":{}}";
}

// An envelope around a hand-made device payload.
std::string envelope(const std::string& payload) {
    return "{\"error\":{\"success\":true,\"errorCode\":0,\"errorText\":\"\",\"errorInfo\":{}},\"result\":" + payload +
           "}";
}

class DeviceProxy : public ::testing::Test {
protected:
    void SetUp() override {
        sim.start();
        uri = sim.addDevice("chassis0");
        proxy = std::make_unique<SyncableDeviceProxy>(uri, 2000);
    }
    ztsdsim::ChassisSimulator sim;
    std::string uri;
    std::unique_ptr<SyncableDeviceProxy> proxy;
    const std::string ts = "/host/ztsdwebs/resources/ztsd/timescales/00-80-2F-AA-BB-CC";
};

}  // namespace

TEST_F(DeviceProxy, SplitsItsUriIntoHostUrlAndResourcePath) {
    EXPECT_EQ(proxy->getUri(), uri);
    EXPECT_EQ(proxy->getHostUrl(), "http://" + sim.remoteHost());
    EXPECT_EQ(proxy->getResourcePath(), "/ztsdwebs/resources/ztsd/syncableDevices/chassis0");
    EXPECT_EQ(proxy->getResourcePath(), sim.deviceResourcePath("chassis0"));
    EXPECT_EQ(sim.requestCount(), 0u);  // making a proxy sends nothing

    auto bad = captureRaise([] { SyncableDeviceProxy("/host//ztsdwebs/resources/p/t/n"); });
    EXPECT_EQ(bad.code, -52005);
}

TEST_F(DeviceProxy, PlacesRequirementsAndRefusesConflictsUntilCleared) {
    const std::string first = requirements("/d/one", 1000, 500, ts);
    proxy->setCoherencyRequirements(first, "/d/one");
    EXPECT_EQ(sim.requirementsOf("chassis0"), first);  // sent unchanged
    EXPECT_EQ(proxy->syncDomainCount(), 1u);

    // Same values; the timescale differs only in case, "-" against ":" and
    // earlier path segments: they agree.
    const std::string second =
        requirements("/d/two", 1000, 500, "/other/path/timescales/00:80:2f:aa:bb:cc");
    proxy->setCoherencyRequirements(second, "/d/two");
    EXPECT_EQ(proxy->syncDomainCount(), 2u);
    EXPECT_EQ(sim.putCountOf("chassis0"), 2u);

    // A domain already holding the device is refused like any other.
    auto conflict = captureRaise([&] { proxy->setCoherencyRequirements(requirements("/d/one", 999, 500, ts), "/d/one"); });
    EXPECT_EQ(conflict.code, -1074100993);
    EXPECT_EQ(conflict.text("error_constant"), "ztsyncdomainerr_conflictingCoherencyRequirements");
    EXPECT_EQ(conflict.detailKeys(kDebug),
              (std::vector<std::string>{"message", "New SyncDomain URI", "Current maxOffset_ns", "New maxOffset_ns",
                                        "Current minSyncDuration_ms", "New minSyncDuration_ms",
                                        "Current requiredTimescaleUri", "New requiredTimescaleUri",
                                        "syncDomainUriSet.size()"}));
    EXPECT_EQ(conflict.number(kDebug, "Current maxOffset_ns"), 1000);
    EXPECT_EQ(conflict.number(kDebug, "New maxOffset_ns"), 999);
    EXPECT_EQ(conflict.number(kDebug, "syncDomainUriSet.size()"), 2);
    EXPECT_EQ(sim.putCountOf("chassis0"), 2u);  // nothing sent

    proxy->clearCoherencyRequirements("/d/one");
    proxy->clearCoherencyRequirements("/d/never");
    EXPECT_TRUE(captureRaise([&] { proxy->setCoherencyRequirements(requirements("/d/one", 999, 500, ts), "/d/one"); })
                    .raised);  // "/d/two" still holds it
    proxy->clearCoherencyRequirements("/d/two");
    proxy->setCoherencyRequirements(requirements("/d/one", 999, 500, ts), "/d/one");  // free again
    EXPECT_EQ(proxy->syncDomainCount(), 1u);
}

TEST_F(DeviceProxy, AFailedPutRecordsNothing) {
    ztsdsim::Fault fault;
    fault.httpStatus = 500;
    fault.remaining = 1;
    sim.setFault(sim.deviceResourcePath("chassis0"), fault);
    auto failed = captureRaise([&] { proxy->setCoherencyRequirements(requirements("/d/one", 1, 1, ts), "/d/one"); });
    EXPECT_EQ(failed.code, -52024);
    EXPECT_EQ(proxy->syncDomainCount(), 0u);
    // So different requirements are still accepted afterwards.
    proxy->setCoherencyRequirements(requirements("/d/two", 2, 2, ts), "/d/two");
    EXPECT_EQ(proxy->syncDomainCount(), 1u);
}

TEST_F(DeviceProxy, RejectsMalformedRequirementsWithTheirOwnMessages) {
    auto invalid = captureRaise([&] { proxy->setCoherencyRequirements("{\"version\":1,", "/d"); });
    EXPECT_EQ(invalid.code, -52005);
    EXPECT_NE(invalid.json.find("jsonRequirements passed to setCoherencyRequirements() contains an invalid JSON string."),
              std::string::npos);
    auto noObject = captureRaise([&] { proxy->setCoherencyRequirements("{\"version\":1}", "/d"); });
    EXPECT_EQ(noObject.detail(kDebug, "message"), "Unable to retrieve 'coherencyRequirements' key from JSON.");
    EXPECT_EQ(noObject.detail(kDebug, "JSON"), "{\"version\":1}");
    auto noOffset = captureRaise(
        [&] { proxy->setCoherencyRequirements("{\"coherencyRequirements\":{\"minSyncDuration_ms\":1}}", "/d"); });
    EXPECT_NE(noOffset.json.find("SyncableDeviceProxy: maxOffset_ns key not found in coherencyRequirements"),
              std::string::npos);
    auto noTimescale = captureRaise([&] {
        proxy->setCoherencyRequirements("{\"coherencyRequirements\":{\"maxOffset_ns\":1,\"minSyncDuration_ms\":1}}", "/d");
    });
    EXPECT_NE(noTimescale.json.find("SyncableDeviceProxy: requiredTimescaleUri key not found in coherencyRequirements"),
              std::string::npos);
    auto wrongType = captureRaise([&] {
        proxy->setCoherencyRequirements("{\"coherencyRequirements\":{\"maxOffset_ns\":\"1\"}}", "/d");
    });
    EXPECT_EQ(wrongType.code, -52004);
    EXPECT_EQ(sim.putCountOf("chassis0"), 0u);
}

TEST_F(DeviceProxy, ReadsCoherencyAndLossCount) {
    std::uint32_t losses = 77;
    EXPECT_TRUE(proxy->isCoherent(&losses));
    EXPECT_EQ(losses, 0u);
    sim.addCoherencyLoss("chassis0", 3);
    sim.setCoherent("chassis0", false);
    EXPECT_FALSE(proxy->isCoherent(&losses));
    EXPECT_EQ(losses, 3u);

    const auto before = sim.getCountOf("chassis0");
    auto nullCount = captureRaise([&] { proxy->isCoherent(nullptr); });
    EXPECT_EQ(nullCount.code, -52005);
    EXPECT_EQ(nullCount.detail(kDebug, "coherencyLossCount"), "nullptr");
    EXPECT_EQ(sim.getCountOf("chassis0"), before);  // failed before any traffic
}

TEST_F(DeviceProxy, ChecksTheDevicesAnswerBeforeReadingIt) {
    std::uint32_t losses = 0;
    sim.setDeviceVersion("chassis0", std::nullopt);
    EXPECT_NE(captureRaise([&] { proxy->isCoherent(&losses); }).json.find(
                  "Remote syncable device did not specify its API version."),
              std::string::npos);
    sim.setDeviceVersion("chassis0", 2);
    auto unsupported = captureRaise([&] { proxy->isCoherent(&losses); });
    EXPECT_EQ(unsupported.code, -52002);
    EXPECT_NE(unsupported.json.find("Remote syncable device specified an unsupported API version."), std::string::npos);
    sim.setDeviceVersion("chassis0", 0);  // 0 and 1 are both accepted
    EXPECT_TRUE(proxy->isCoherent(&losses));

    ztsdsim::Fault fault;
    fault.hasRawBody = true;
    fault.rawBody = envelope("{\"version\":1,\"coherencyLossCount\":1}");
    sim.setFault("", fault);
    auto noState = captureRaise([&] { proxy->isCoherent(&losses); });
    EXPECT_EQ(noState.code, -52005);
    EXPECT_NE(noState.json.find("Remote syncable device did not specify its coherency state."), std::string::npos);
    fault.rawBody = envelope("{\"version\":1,\"isCoherent\":true}");
    sim.setFault("", fault);
    EXPECT_NE(captureRaise([&] { proxy->isCoherent(&losses); }).json.find(
                  "Remote syncable device did not specify the number of times it has lost coherency."),
              std::string::npos);
    fault.rawBody = envelope("{\"version\":1,\"isCoherent\":1,\"coherencyLossCount\":1}");
    sim.setFault("", fault);
    EXPECT_EQ(captureRaise([&] { proxy->isCoherent(&losses); }).code, -52004);
    fault.rawBody = "{\"result\":[1,]}";
    sim.setFault("", fault);
    EXPECT_EQ(captureRaise([&] { proxy->isCoherent(&losses); }).code, -52024);  // the HTTP layer refuses the body
}

TEST_F(DeviceProxy, DescribesTheDeviceUnderItsOwnUri) {
    proxy->setCoherencyRequirements(requirements("/d/one", 1000, 500, ts), "/d/one");
    auto doc = ztsdtest::parseJson(proxy->toJson());
    ASSERT_TRUE(doc);
    EXPECT_STREQ(cJSON_GetObjectItem(doc.get(), "uri")->valuestring, uri.c_str());
    cJSON* domains = cJSON_GetObjectItem(doc.get(), "syncDomainUris");
    ASSERT_TRUE(cJSON_IsArray(domains));
    ASSERT_EQ(cJSON_GetArraySize(domains), 1);
    EXPECT_STREQ(cJSON_GetArrayItem(domains, 0)->valuestring, "/d/one");
    EXPECT_TRUE(cJSON_IsTrue(cJSON_GetObjectItem(doc.get(), "isCoherent")));  // other keys pass through
    EXPECT_TRUE(cJSON_IsObject(cJSON_GetObjectItem(doc.get(), "coherencyRequirements")));

    sim.setDeviceReportedUri("chassis0", std::string("/ztsdwebs/resources/ztsd/syncableDevices/other"));
    auto mismatch = captureRaise([&] { proxy->toJson(); });
    EXPECT_EQ(mismatch.code, -52005);
    EXPECT_EQ(mismatch.detail(kDebug, "Expected URI"), "/ztsdwebs/resources/ztsd/syncableDevices/chassis0");
    EXPECT_EQ(mismatch.detail(kDebug, "Remote syncable device URI"), "/ztsdwebs/resources/ztsd/syncableDevices/other");
    sim.setDeviceReportedUri("chassis0", std::nullopt);
    EXPECT_NE(captureRaise([&] { proxy->toJson(); }).json.find(
                  "URI key not found in the JSON object received from the remote syncable device."),
              std::string::npos);
}

TEST_F(DeviceProxy, AnUnreachableChassisIsACommunicationsFault) {
    sim.stop();
    std::uint32_t losses = 0;
    auto refused = captureRaise([&] { proxy->isCoherent(&losses); });
    EXPECT_EQ(refused.code, -52024);
}
