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

TEST_F(DeviceProxy, RejectsMalformedRequirementsWithTheirOwnMessagesBeforeSending) {
    const struct {
        const char* json;
        std::int32_t code;
        const char* message;
    } malformed[] = {
        {"{\"version\":1,", -52005, "jsonRequirements passed to setCoherencyRequirements() contains an invalid JSON string."},
        {"{\"version\":1}", -52005, "Unable to retrieve 'coherencyRequirements' key from JSON."},
        {"{\"coherencyRequirements\":{\"minSyncDuration_ms\":1}}", -52005,
         "SyncableDeviceProxy: maxOffset_ns key not found in coherencyRequirements"},
        {"{\"coherencyRequirements\":{\"maxOffset_ns\":1,\"minSyncDuration_ms\":1}}", -52005,
         "SyncableDeviceProxy: requiredTimescaleUri key not found in coherencyRequirements"},
        {"{\"coherencyRequirements\":{\"maxOffset_ns\":\"1\"}}", -52004,
         "Error parsing: expected data type does not match the parsed value."},
    };
    for (const auto& m : malformed) {
        auto refused = captureRaise([&] { proxy->setCoherencyRequirements(m.json, "/d"); });
        EXPECT_EQ(refused.code, m.code) << m.json;
        EXPECT_NE(refused.json.find(m.message), std::string::npos) << refused.json;
    }
    EXPECT_EQ(sim.putCountOf("chassis0"), 0u);
}

TEST_F(DeviceProxy, ReadsCoherencyAndLossCountAndChecksTheAnswerFirst) {
    std::uint32_t losses = 77;
    EXPECT_TRUE(proxy->isCoherent(&losses));
    EXPECT_EQ(losses, 0u);
    sim.addCoherencyLoss("chassis0", 3);
    sim.setCoherent("chassis0", false);
    sim.setDeviceVersion("chassis0", 0);  // 0 and 1 are both accepted
    EXPECT_FALSE(proxy->isCoherent(&losses));
    EXPECT_EQ(losses, 3u);

    const auto before = sim.getCountOf("chassis0");
    auto nullCount = captureRaise([&] { proxy->isCoherent(nullptr); });
    EXPECT_EQ(nullCount.code, -52005);
    EXPECT_EQ(nullCount.detail(kDebug, "coherencyLossCount"), "nullptr");
    EXPECT_EQ(sim.getCountOf("chassis0"), before);  // failed before any traffic

    const struct {
        const char* payload;
        std::int32_t code;
        const char* message;
    } answers[] = {
        {"{\"isCoherent\":true,\"coherencyLossCount\":1}", -52005, "Remote syncable device did not specify its API version."},
        {"{\"version\":2,\"isCoherent\":true,\"coherencyLossCount\":1}", -52002,
         "Remote syncable device specified an unsupported API version."},
        {"{\"version\":1,\"coherencyLossCount\":1}", -52005, "Remote syncable device did not specify its coherency state."},
        {"{\"version\":1,\"isCoherent\":true}", -52005,
         "Remote syncable device did not specify the number of times it has lost coherency."},
        {"{\"version\":1,\"isCoherent\":1,\"coherencyLossCount\":1}", -52004,
         "Error parsing: expected data type does not match the parsed value."},
    };
    ztsdsim::Fault fault;
    fault.hasRawBody = true;
    for (const auto& a : answers) {
        fault.rawBody = envelope(a.payload);
        sim.setFault("", fault);
        auto refused = captureRaise([&] { proxy->isCoherent(&losses); });
        EXPECT_EQ(refused.code, a.code) << a.payload;
        EXPECT_NE(refused.json.find(a.message), std::string::npos) << refused.json;
    }
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
    EXPECT_EQ(mismatch.detail(kDebug, "Remote syncable device URI"), "/ztsdwebs/resources/ztsd/syncableDevices/other");
    sim.setDeviceReportedUri("chassis0", std::nullopt);
    EXPECT_NE(captureRaise([&] { proxy->toJson(); }).json.find(
                  "URI key not found in the JSON object received from the remote syncable device."),
              std::string::npos);
}
