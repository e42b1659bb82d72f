// ztsdctl domain, run as a child process against three simulated chassis in
// this process: the waiting start with its progress line, the time-out, the
// watch table, a coherency loss injected while it watches, and Ctrl-C. The
// tool's start thread, its member queries and the library's pool all run
// here, so these tests also run under ThreadSanitizer.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "integration/ztsdctl/ztsdctlTestSupport.h"
#include "ztsd-sim/simulatedChassis.h"

using ctltest::at;
using ctltest::num;
using ctltest::parse;
using ctltest::str;

namespace {

constexpr unsigned kChassis = 3;
constexpr const char* kTimescale = "/localhost/ztsds/timescales/system";

class ZtsdctlDomainConcurrency : public ::testing::Test {
protected:
    void SetUp() override {
        ZTSDCTL_REQUIRED();
        for (unsigned c = 0; c < kChassis; ++c) {
            chassis.push_back(std::make_unique<ztsdsim::SimulatedChassis>());
            chassis.back()->start();
            uris.push_back(chassis.back()->webService().addDevice(name(c)));
        }
    }
    static std::string name(unsigned c) { return "chassis" + std::to_string(c); }
    ztsdsim::ChassisSimulator& web(unsigned c) { return chassis[c]->webService(); }

    // domain over every chassis, with the given options after the required ones.
    std::vector<std::string> domain(const std::vector<std::string>& more) {
        std::vector<std::string> arguments{"domain"};
        for (const auto& simulated : chassis)
            arguments.push_back(simulated->webService().remoteHost() + "@" + std::to_string(simulated->daemonPort()));
        for (const char* option : {"--max-offset-ns", "1000", "--min-sync-ms", "100", "--timescale", kTimescale})
            arguments.push_back(option);
        arguments.insert(arguments.end(), more.begin(), more.end());
        return arguments;
    }

    std::vector<std::unique_ptr<ztsdsim::SimulatedChassis>> chassis;
    std::vector<std::string> uris;
};

// The JSON lines of an output, each parsed.
std::vector<ctltest::Json> jsonLines(const std::string& out) {
    std::vector<ctltest::Json> result;
    for (const std::string& line : ctltest::lines(out)) {
        result.push_back(parse(line));
        EXPECT_TRUE(result.back()) << "not JSON: " << line;
    }
    return result;
}

}  // namespace

TEST_F(ZtsdctlDomainConcurrency, StartsCoherentAndPlacesTheRequirementsOnEveryMember) {
    const ctltest::Run result = ctltest::run(domain({"--json", "--uri", "/localhost/tests/domainA"}));
    ASSERT_EQ(result.exitStatus, 0) << result.err;
    const std::vector<ctltest::Json> events = jsonLines(result.out);
    ASSERT_EQ(events.size(), 2u) << result.out;
    EXPECT_EQ(str(at(events[0].get(), "event")), "started");
    const cJSON* document = at(events[0].get(), "domain");
    EXPECT_EQ(str(at(document, "type")), "SyncDomain");
    EXPECT_EQ(str(at(document, "uri")), "/localhost/tests/domainA");
    EXPECT_TRUE(cJSON_IsTrue(at(document, "isCoherent")));
    EXPECT_EQ(num(at(at(document, "coherencyRequirements"), "maxOffset_ns")), 1000);
    EXPECT_EQ(str(at(at(document, "coherencyRequirements"), "requiredTimescaleUri")), kTimescale);
    EXPECT_EQ(cJSON_GetArraySize(at(document, "syncableDevices")), static_cast<int>(kChassis));
    EXPECT_EQ(str(at(events[1].get(), "event")), "stopped");
    EXPECT_TRUE(cJSON_IsTrue(at(events[1].get(), "coherencyHeld")));
    EXPECT_EQ(num(at(events[1].get(), "checks")), 0);

    for (unsigned c = 0; c < kChassis; ++c) {
        const ctltest::Json requirements = parse(web(c).requirementsOf(name(c)));
        ASSERT_TRUE(requirements) << name(c);
        EXPECT_EQ(str(at(requirements.get(), "syncDomainUri")), "/localhost/tests/domainA");
        EXPECT_EQ(num(at(at(requirements.get(), "coherencyRequirements"), "minSyncDuration_ms")), 100);
    }
}

TEST_F(ZtsdctlDomainConcurrency, WaitsForALateMemberWithAProgressLine) {
    web(2).setCoherent(name(2), false);
    ctltest::Ztsdctl child(domain({"--timeout-s", "8"}));
    ASSERT_TRUE(child.started());
    std::this_thread::sleep_for(std::chrono::milliseconds(1300));
    web(2).setCoherent(name(2), true);
    EXPECT_EQ(child.finish(8000), 0) << child.err();
    EXPECT_TRUE(std::regex_search(child.err(), std::regex(R"(waiting for coherency: 0\.0 s elapsed, 8\.0 s left)")))
        << child.err();
    // Written once a second while stderr is not a terminal.
    EXPECT_TRUE(std::regex_search(child.err(), std::regex(R"(waiting for coherency: 1\.\d s elapsed, [67]\.\d s left)")))
        << child.err();
    const std::smatch coherentAfter = [&] {
        std::smatch match;
        std::regex_search(child.out(), match, std::regex(R"(coherent after (\d+\.\d{3}) s \(3 members\))"));
        return match;
    }();
    ASSERT_FALSE(coherentAfter.empty()) << child.out();
    // The child needs part of the 1.3 s to start and load the chassis (much
    // of it under sanitizers), so only a clear wait is asserted.
    EXPECT_GE(std::stod(coherentAfter[1]), 0.5);
    for (const std::string& uri : uris) EXPECT_NE(child.out().find("loaded "), std::string::npos) << uri;
}

TEST_F(ZtsdctlDomainConcurrency, CoherencyNotReachedInTimeExits1WithTheLibrarysReport) {
    web(1).setCoherent(name(1), false);
    const ctltest::Run human = ctltest::run(domain({"--timeout-s", "1"}));
    EXPECT_EQ(human.exitStatus, 1) << human.err;
    EXPECT_NE(human.out.find("coherency NOT reached within 1 s"), std::string::npos) << human.out;
    EXPECT_NE(human.err.find("-52007 (ztapalerr_operationTimedOut)"), std::string::npos) << human.err;

    const ctltest::Run json = ctltest::run(domain({"--timeout-s", "1", "--json"}));
    EXPECT_EQ(json.exitStatus, 1);
    const std::vector<ctltest::Json> events = jsonLines(json.out);
    ASSERT_EQ(events.size(), 1u) << json.out;
    EXPECT_EQ(str(at(events[0].get(), "event")), "notCoherent");
    EXPECT_EQ(num(at(events[0].get(), "code")), -52007);
    // The start's own time-out or that of the member check it was in.
    const cJSON* debug = at(at(events[0].get(), "report"), "ztsyncdomain_debug");
    EXPECT_EQ(str(at(debug, "message")), "Timed out while waiting for one or more syncable devices to respond.");
    EXPECT_TRUE(num(at(debug, "timeoutInSeconds")) == 1 || num(at(debug, "timeout_ms")) == 1000)
        << ctltest::lines(json.out)[0];
    EXPECT_GE(num(at(events[0].get(), "elapsed_ms")), 1000);
}

TEST_F(ZtsdctlDomainConcurrency, WatchTableShowsALossAndTheExitSaysCoherencyWasLost) {
    ctltest::Ztsdctl child(domain({"--watch", "0.4", "--checks", "3"}));
    ASSERT_TRUE(child.started());
    ASSERT_TRUE(child.waitForOutput("check 1 at", 6000)) << child.out() << child.err();
    web(1).addCoherencyLoss(name(1), 2);
    EXPECT_EQ(child.finish(8000), 1) << child.err();

    // Split the output into the three check tables.
    const std::string& out = child.out();
    const std::size_t second = out.find("check 2 at"), third = out.find("check 3 at");
    ASSERT_NE(second, std::string::npos) << out;
    ASSERT_NE(third, std::string::npos) << out;
    const std::string table1 = out.substr(out.find("check 1 at"), second - out.find("check 1 at"));
    const std::string table2 = out.substr(second, third - second);
    const std::string table3 = out.substr(third);
    EXPECT_NE(table1.find("coherent since last check: yes, since start: yes"), std::string::npos) << table1;
    EXPECT_NE(table2.find("coherent since last check: NO, since start: NO"), std::string::npos) << table2;
    EXPECT_NE(table3.find("coherent since last check: yes, since start: NO"), std::string::npos) << table3;
    auto row = [](const std::string& table, const std::string& uri) {
        std::smatch match;
        const std::regex pattern(std::regex_replace(uri, std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)") +
                                 R"( +(yes|NO) +(\d+) +([+-]\d+))");
        return std::regex_search(table, match, pattern) ? match[1].str() + " " + match[2].str() + " " + match[3].str()
                                                        : std::string("<no row>");
    };
    EXPECT_EQ(row(table1, uris[1]), "yes 0 +0");
    EXPECT_EQ(row(table2, uris[1]), "yes 2 +2");
    EXPECT_EQ(row(table3, uris[1]), "yes 2 +0");
    EXPECT_EQ(row(table2, uris[0]), "yes 0 +0");
    EXPECT_NE(out.find("coherency LOST (3 checks)"), std::string::npos) << out;
}

TEST_F(ZtsdctlDomainConcurrency, CtrlCStopsTheWatchCleanlyAndReportsHeldCoherency) {
    ctltest::Ztsdctl child(domain({"--watch", "0.2", "--json"}));
    ASSERT_TRUE(child.started());
    ASSERT_TRUE(child.waitForOutput("\"event\":\"check\"", 6000)) << child.out() << child.err();
    child.signal(SIGINT);
    EXPECT_EQ(child.finish(5000), 0) << child.err();
    const std::vector<ctltest::Json> events = jsonLines(child.out());
    ASSERT_GE(events.size(), 3u);
    EXPECT_EQ(str(at(events.front().get(), "event")), "started");
    const cJSON* check = events[1].get();
    EXPECT_EQ(num(at(check, "check")), 1);
    ASSERT_EQ(cJSON_GetArraySize(at(check, "members")), static_cast<int>(kChassis));
    EXPECT_EQ(str(at(cJSON_GetArrayItem(at(check, "members"), 2), "uri")), uris[2]);
    EXPECT_EQ(num(at(cJSON_GetArrayItem(at(check, "members"), 2), "lossesSinceLastCheck")), 0);
    const cJSON* last = events.back().get();
    EXPECT_EQ(str(at(last, "event")), "stopped");
    EXPECT_TRUE(cJSON_IsTrue(at(last, "interrupted")));
    EXPECT_TRUE(cJSON_IsTrue(at(last, "coherencyHeld")));
    EXPECT_EQ(num(at(last, "checks")), static_cast<double>(events.size() - 2));
    EXPECT_EQ(child.err(), "");
}

TEST_F(ZtsdctlDomainConcurrency, AnUnreachableMemberIsALibraryError) {
    std::vector<std::string> arguments = domain({});
    chassis[1]->stop();  // its web service no longer answers
    const ctltest::Run result = ctltest::run(arguments);
    EXPECT_EQ(result.exitStatus, 2) << result.out;
    EXPECT_TRUE(std::regex_search(result.err, std::regex(R"(library error -\d+ \(\w+\))"))) << result.err;
}
