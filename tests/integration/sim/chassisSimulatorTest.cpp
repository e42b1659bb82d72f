// The simulator's resources over real HTTP: the listing, device GET and PUT,
// timescale entries, the device controls and the answers to bad requests.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

#include "integration/sim/simTestSupport.h"
#include "remote/uriKeyParser.h"
#include "ztsd-sim/chassisSimulator.h"

using simtest::exchange;
using simtest::member;
using simtest::printed;
using simtest::text;
using ztsdsim::ChassisSimulator;

namespace {

const std::string kListing = "/ztsdwebs/resources/";

class SimulatorResources : public ::testing::Test {
protected:
    void SetUp() override { sim.start(); }
    ChassisSimulator sim;
};

std::vector<std::pair<std::string, std::string>> listed(const simtest::Reply& reply) {
    std::vector<std::pair<std::string, std::string>> entries;
    const cJSON* resources = member(reply.result(), "resources");
    const cJSON* entry = nullptr;
    cJSON_ArrayForEach(entry, resources) {
        entries.emplace_back(text(member(entry, "uri")), text(member(entry, "resourceType")));
    }
    return entries;
}

}  // namespace

TEST_F(SimulatorResources, ListingNamesEveryDeviceThenEveryTimescaleWithFullUris) {
    const std::string a = sim.addDevice("chassis0");
    const std::string b = sim.addDevice("chassis1");
    const std::string t = sim.addTimescale("00-80-2F-AA-BB-CC-DD-EE");
    const std::string remoteHost = "127.0.0.1:" + std::to_string(sim.port());
    EXPECT_EQ(sim.remoteHost(), remoteHost);
    EXPECT_EQ(a, "/" + remoteHost + "/ztsdwebs/resources/ztsd/syncableDevices/chassis0");
    EXPECT_EQ(t, "/" + remoteHost + "/ztsdwebs/resources/ztsd/timescales/00-80-2F-AA-BB-CC-DD-EE");

    for (const std::string path : {kListing, std::string("/ztsdwebs/resources")}) {
        const simtest::Reply reply = exchange(sim, "GET", path);
        ASSERT_TRUE(reply.arrived) << path;
        EXPECT_EQ(reply.status, 200);
        EXPECT_EQ(reply.contentType, "vnd.zt.syncDomain.v0/json; charset=utf-8");
        ASSERT_NE(reply.document, nullptr) << reply.body;
        EXPECT_TRUE(reply.success());
        EXPECT_EQ(reply.errorCode(), 0);
        EXPECT_EQ(reply.errorText(), "");
        EXPECT_EQ(printed(reply.errorInfo()), "{}");
        EXPECT_EQ(printed(member(reply.result(), "version")), "1");
        const std::vector<std::pair<std::string, std::string>> expected{
            {a, "syncableDevices"}, {b, "syncableDevices"}, {t, "timescales"}};
        EXPECT_EQ(listed(reply), expected);
    }
    EXPECT_EQ(sim.deviceUris(), (std::vector<std::string>{a, b}));
    EXPECT_EQ(sim.timescaleUris(), std::vector<std::string>{t});
}

TEST_F(SimulatorResources, CollectionsBelowTheListingListOnlyTheirOwnResources) {
    const std::string device = sim.addDevice("d");
    const std::string timescale = sim.addTimescale("00-80-2F-00-00-00-00-01");
    using Entries = std::vector<std::pair<std::string, std::string>>;
    EXPECT_EQ(listed(exchange(sim, "GET", "/ztsdwebs/resources/ztsd")),
              (Entries{{device, "syncableDevices"}, {timescale, "timescales"}}));
    EXPECT_EQ(listed(exchange(sim, "GET", "/ztsdwebs/resources/ztsd/syncableDevices/")),
              (Entries{{device, "syncableDevices"}}));
    EXPECT_EQ(listed(exchange(sim, "GET", "/ztsdwebs/resources/ztsd/timescales")),
              (Entries{{timescale, "timescales"}}));
}

TEST_F(SimulatorResources, ListedDeviceUriSplitsIntoTheSixPartsTheDeviceProxyJoins) {
    sim.addDevice("chassis0");
    const auto entries = listed(exchange(sim, "GET", kListing));
    ASSERT_EQ(entries.size(), 1u);
    std::unordered_map<std::string, std::string> parts;
    ztsdtools::parseUriKeys(entries[0].first, {"remoteHost", "webService", "resource", "plugin", "type", "name"},
                            parts);
    EXPECT_EQ(parts["remoteHost"], sim.remoteHost());
    const std::string resourcePath = "/" + parts["webService"] + "/" + parts["resource"] + "/" + parts["plugin"] +
                                     "/" + parts["type"] + "/" + parts["name"];
    EXPECT_EQ(resourcePath, sim.deviceResourcePath("chassis0"));

    // The device answers at that path and reports that path as its "uri".
    const simtest::Reply reply = exchange(sim, "GET", resourcePath);
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(text(member(reply.result(), "uri")), resourcePath);
}

TEST_F(SimulatorResources, ListingFollowsRemovalsAndTheListingVersionControl) {
    sim.addDevice("a");
    sim.addDevice("b");
    sim.addTimescale("00-80-2F-00-00-00-00-01");
    sim.addTimescale("00-80-2F-00-00-00-00-02");
    sim.removeTimescale("00-80-2F-00-00-00-00-01");
    sim.removeDevice("a");
    auto entries = listed(exchange(sim, "GET", kListing));
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].first, sim.deviceUri("b"));
    EXPECT_EQ(entries[1].first, sim.timescaleUri("00-80-2F-00-00-00-00-02"));
    EXPECT_EQ(exchange(sim, "GET", "/ztsdwebs/resources/ztsd/syncableDevices/a").status, 404);

    sim.setListingVersion(2);
    EXPECT_EQ(printed(member(exchange(sim, "GET", kListing).result(), "version")), "2");
    sim.setListingVersion(std::nullopt);
    const simtest::Reply unversioned = exchange(sim, "GET", kListing);
    EXPECT_EQ(member(unversioned.result(), "version"), nullptr);
    EXPECT_NE(member(unversioned.result(), "resources"), nullptr);
}

TEST_F(SimulatorResources, NewDeviceReportsCoherentVersionOneItsPathAndNoRequirements) {
    sim.addDevice("chassis0");
    const simtest::Reply reply = exchange(sim, "GET", sim.deviceResourcePath("chassis0"));
    ASSERT_EQ(reply.status, 200);
    EXPECT_EQ(reply.contentType, ztsdsim::kMediaType);
    EXPECT_TRUE(reply.success());
    EXPECT_EQ(printed(member(reply.result(), "version")), "1");
    EXPECT_EQ(text(member(reply.result(), "uri")), "/ztsdwebs/resources/ztsd/syncableDevices/chassis0");
    EXPECT_TRUE(cJSON_IsTrue(member(reply.result(), "isCoherent")));
    EXPECT_EQ(printed(member(reply.result(), "coherencyLossCount")), "0");
    EXPECT_TRUE(cJSON_IsNull(member(reply.result(), "coherencyRequirements")));
    EXPECT_EQ(sim.getCountOf("chassis0"), 1u);
    EXPECT_EQ(sim.putCountOf("chassis0"), 0u);
}

TEST_F(SimulatorResources, PutStoresTheDocumentAsSentAndGetShowsIt) {
    sim.addDevice("chassis0");
    const std::string path = sim.deviceResourcePath("chassis0");
    const std::string document =
        "{\"version\":1,\"syncDomainUri\":\"/d/1\",\"coherencyRequirements\":{\"requiredTimescaleUri\":"
        "\"/h/ztsdwebs/resources/ztsd/timescales/00-80-2F-AA\",\"maxOffset_ns\":1000,\"minSyncDuration_ms\":50},"
        "\"data\":{}} \n";
    const simtest::Reply put = exchange(sim, "PUT", path, document);
    ASSERT_EQ(put.status, 200) << put.body;
    EXPECT_TRUE(put.success());
    const simtest::Json sent = simtest::parse(document);
    EXPECT_TRUE(cJSON_Compare(member(put.result(), "coherencyRequirements"), sent.get(), 1));
    EXPECT_EQ(sim.requirementsOf("chassis0"), document);  // byte for byte, white space included

    const simtest::Reply get = exchange(sim, "GET", path);
    EXPECT_TRUE(cJSON_Compare(member(get.result(), "coherencyRequirements"), sent.get(), 1));
    EXPECT_EQ(sim.putCountOf("chassis0"), 1u);
    EXPECT_EQ(sim.getCountOf("chassis0"), 1u);

    // The client's headers arrive as sent.
    const ztsdsim::RequestRecord last = sim.lastRequest();
    EXPECT_EQ(last.method, "GET");
    EXPECT_EQ(last.path, path);
    EXPECT_EQ(last.accept, ztsdsim::kMediaType);

    // A second document replaces the first.
    ASSERT_EQ(exchange(sim, "PUT", path, "[1,2]").status, 200);
    EXPECT_EQ(sim.requirementsOf("chassis0"), "[1,2]");
    EXPECT_EQ(printed(member(exchange(sim, "GET", path).result(), "coherencyRequirements")), "[1,2]");
}

TEST_F(SimulatorResources, PutOfTextThatIsNotOneJsonValueIsRefusedWith400AndStoresNothing) {
    sim.addDevice("chassis0");
    const std::string path = sim.deviceResourcePath("chassis0");
    ASSERT_EQ(exchange(sim, "PUT", path, "{\"kept\":true}").status, 200);
    for (const std::string bad : {std::string("{\"version\":"), std::string(""), std::string("{} {}"),
                                  std::string("{\"a\":1} trailing"), std::string("not json")}) {
        const simtest::Reply reply = exchange(sim, "PUT", path, bad);
        EXPECT_EQ(reply.status, 400) << bad;
        EXPECT_EQ(reply.contentType, ztsdsim::kMediaType);
        ASSERT_NE(reply.document, nullptr) << reply.body;
        EXPECT_FALSE(reply.success()) << bad;
        EXPECT_NE(reply.errorCode(), 0);
        EXPECT_FALSE(reply.errorText().empty());
        EXPECT_TRUE(cJSON_IsNull(reply.result()));
    }
    EXPECT_EQ(sim.requirementsOf("chassis0"), "{\"kept\":true}");
}

TEST_F(SimulatorResources, DeviceControlsShowInTheNextGet) {
    sim.addDevice("chassis0");
    const std::string path = sim.deviceResourcePath("chassis0");
    const auto get = [&] { return exchange(sim, "GET", path); };

    sim.setCoherent("chassis0", false);
    EXPECT_TRUE(cJSON_IsFalse(member(get().result(), "isCoherent")));
    EXPECT_FALSE(sim.isCoherent("chassis0"));
    // A loss moves the count only; the flag is its own control.
    sim.addCoherencyLoss("chassis0");
    sim.addCoherencyLoss("chassis0", 4);
    EXPECT_EQ(printed(member(get().result(), "coherencyLossCount")), "5");
    EXPECT_EQ(sim.coherencyLossCount("chassis0"), 5u);
    EXPECT_TRUE(cJSON_IsFalse(member(get().result(), "isCoherent")));
    sim.setCoherent("chassis0", true);
    EXPECT_TRUE(cJSON_IsTrue(member(get().result(), "isCoherent")));
    EXPECT_EQ(printed(member(get().result(), "coherencyLossCount")), "5");

    sim.setDeviceVersion("chassis0", 9007199254740993);  // beyond a double's exact integers
    EXPECT_NE(get().body.find("\"version\":9007199254740993"), std::string::npos);
    sim.setDeviceVersion("chassis0", std::nullopt);
    EXPECT_EQ(member(get().result(), "version"), nullptr);
    sim.setDeviceVersion("chassis0", 1);

    sim.setDeviceReportedUri("chassis0", std::string("/ztsdwebs/resources/ztsd/syncableDevices/other"));
    EXPECT_EQ(text(member(get().result(), "uri")), "/ztsdwebs/resources/ztsd/syncableDevices/other");
    sim.setDeviceReportedUri("chassis0", std::nullopt);
    const simtest::Reply withoutUri = get();
    EXPECT_EQ(member(withoutUri.result(), "uri"), nullptr);
    EXPECT_NE(member(withoutUri.result(), "isCoherent"), nullptr);
}

TEST_F(SimulatorResources, ControlsOfOneDeviceLeaveTheOthersAlone) {
    sim.addDevice("a");
    sim.addDevice("b");
    sim.setCoherent("a", false);
    sim.addCoherencyLoss("a", 2);
    ASSERT_EQ(exchange(sim, "PUT", sim.deviceResourcePath("a"), "{}").status, 200);
    const simtest::Reply b = exchange(sim, "GET", sim.deviceResourcePath("b"));
    EXPECT_TRUE(cJSON_IsTrue(member(b.result(), "isCoherent")));
    EXPECT_EQ(printed(member(b.result(), "coherencyLossCount")), "0");
    EXPECT_TRUE(cJSON_IsNull(member(b.result(), "coherencyRequirements")));
    EXPECT_EQ(sim.requirementsOf("b"), "");
}

TEST_F(SimulatorResources, TimescaleEntryAnswersWithItsPathAndGmId) {
    sim.addTimescale("00-80-2F-AA-BB-CC-DD-EE");
    const simtest::Reply reply = exchange(sim, "GET", "/ztsdwebs/resources/ztsd/timescales/00-80-2F-AA-BB-CC-DD-EE");
    ASSERT_EQ(reply.status, 200);
    EXPECT_EQ(text(member(reply.result(), "uri")), "/ztsdwebs/resources/ztsd/timescales/00-80-2F-AA-BB-CC-DD-EE");
    EXPECT_EQ(text(member(reply.result(), "gmId")), "00-80-2F-AA-BB-CC-DD-EE");
    EXPECT_EQ(exchange(sim, "PUT", "/ztsdwebs/resources/ztsd/timescales/00-80-2F-AA-BB-CC-DD-EE", "{}").status, 405);
}

TEST_F(SimulatorResources, UnknownPathsAndMethodsGetEnvelopeErrors) {
    sim.addDevice("chassis0");
    for (const std::string path :
         {std::string("/ztsdwebs/resources/ztsd/syncableDevices/nobody"), std::string("/other/resources/"),
          std::string("/ztsdwebs/resources/otherplugin/syncableDevices/chassis0"),
          std::string("/ztsdwebs/resources/ztsd/clocks/"),
          std::string("/ztsdwebs/resources/ztsd/syncableDevices/chassis0/"),
          std::string("/ztsdwebs//resources/"), std::string("/ztsdwebs/resources/ztsd/syncableDevices/chassis0/x")}) {
        const simtest::Reply reply = exchange(sim, "GET", path);
        EXPECT_EQ(reply.status, 404) << path;
        EXPECT_EQ(reply.contentType, ztsdsim::kMediaType);
        EXPECT_FALSE(reply.success()) << path;
        EXPECT_EQ(reply.errorCode(), -52006);
        EXPECT_TRUE(cJSON_IsNull(reply.result()));
    }
    const simtest::Reply onDevice = exchange(sim, "DELETE", sim.deviceResourcePath("chassis0"));
    EXPECT_EQ(onDevice.status, 405);
    EXPECT_FALSE(onDevice.success());
    const simtest::Reply onListing = exchange(sim, "POST", kListing, "{}");
    EXPECT_EQ(onListing.status, 405);
    EXPECT_FALSE(onListing.success());

    // A method the HTTP layer itself refuses still gets the envelope.
    httplib::Client client("127.0.0.1", sim.port());
    httplib::Request request;
    request.method = "FETCH";
    request.path = kListing;
    const httplib::Result refused = client.send(request);
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->status, 400);
    EXPECT_EQ(refused->get_header_value("Content-Type"), ztsdsim::kMediaType);
    const simtest::Json document = simtest::parse(refused->body);
    EXPECT_TRUE(cJSON_IsFalse(member(member(document.get(), "error"), "success"))) << refused->body;
    EXPECT_EQ(text(member(member(member(document.get(), "error"), "errorInfo"), "method")), "FETCH");
}

TEST(SimulatorSetup, NamesAndOrderOfCallsAreChecked) {
    ChassisSimulator sim;
    EXPECT_EQ(sim.port(), 0);
    EXPECT_FALSE(sim.isRunning());
    EXPECT_THROW(sim.addDevice("early"), std::logic_error);  // URIs need the port
    EXPECT_THROW(sim.remoteHost(), std::logic_error);
    sim.start();
    EXPECT_TRUE(sim.isRunning());
    EXPECT_NE(sim.port(), 0);
    EXPECT_THROW(sim.start(), std::logic_error);

    for (const std::string bad : {std::string(""), std::string("a/b"), std::string("a b"), std::string("a?b"),
                                  std::string("a%20"), std::string("q\"")}) {
        EXPECT_THROW(sim.addDevice(bad), std::invalid_argument) << bad;
        EXPECT_THROW(sim.addTimescale(bad), std::invalid_argument) << bad;
    }
    EXPECT_THROW(ChassisSimulator("bad/plugin"), std::invalid_argument);

    const std::string uri = sim.addDevice("d");
    EXPECT_EQ(sim.addDevice("d"), uri);  // adding again keeps the device
    EXPECT_EQ(sim.deviceUris().size(), 1u);
    for (const auto& control : std::vector<std::function<void()>>{
             [&] { sim.setCoherent("nobody", true); }, [&] { sim.addCoherencyLoss("nobody"); },
             [&] { sim.requirementsOf("nobody"); }, [&] { sim.removeDevice("nobody"); },
             [&] { sim.removeTimescale("nobody"); }, [&] { sim.deviceResourcePath("nobody"); }}) {
        EXPECT_THROW(control(), std::invalid_argument);
    }
    sim.stop();
    EXPECT_FALSE(sim.isRunning());
    sim.stop();  // idempotent
}

TEST(SimulatorSetup, OtherPluginNameShapesEveryPath) {
    ChassisSimulator sim("vendorx");
    sim.start();
    const std::string uri = sim.addDevice("c");
    EXPECT_EQ(uri, "/" + sim.remoteHost() + "/ztsdwebs/resources/vendorx/syncableDevices/c");
    EXPECT_EQ(sim.deviceResourcePath("c"), "/ztsdwebs/resources/vendorx/syncableDevices/c");
    EXPECT_EQ(exchange(sim, "GET", "/ztsdwebs/resources/vendorx/syncableDevices/c").status, 200);
    EXPECT_EQ(exchange(sim, "GET", "/ztsdwebs/resources/ztsd/syncableDevices/c").status, 404);
}

TEST(SimulatorSetup, TwoSimulatorsAreTwoChassisOnTwoPorts) {
    ChassisSimulator first;
    ChassisSimulator second;
    first.start();
    second.start();
    EXPECT_NE(first.port(), second.port());
    first.addDevice("only-here");
    EXPECT_EQ(exchange(first, "GET", first.deviceResourcePath("only-here")).status, 200);
    EXPECT_EQ(exchange(second, "GET", "/ztsdwebs/resources/ztsd/syncableDevices/only-here").status, 404);
}
