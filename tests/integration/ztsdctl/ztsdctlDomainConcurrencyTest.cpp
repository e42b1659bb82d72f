// ztsdctl domain, run as a child process against three simulated chassis in
// this process: the waiting start with its progress line, the time-out, the
// watch with a coherency loss injected while it watches, and Ctrl-C. The
// tool's start thread, its member queries and the library's pool all run
// here, so these tests also run under ThreadSanitizer.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <regex>
#include <sstream>
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
        std::vector<std::string> addresses;
        for (const auto& simulated : chassis)
            addresses.push_back(simulated->webService().remoteHost() + "@" + std::to_string(simulated->daemonPort()));
        return ctltest::domainCommand(addresses, more, "100");
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

TEST_F(ZtsdctlDomainConcurrency, StartsThenWatchesALossInjectedMeanwhileAndExits1) {
    ctltest::Ztsdctl child(domain({"--json", "--uri", "/localhost/tests/domainA", "--watch", "0.4", "--checks", "3"}));
    ASSERT_TRUE(child.waitForOutput("\"event\":\"check\"", 6000)) << child.out() << child.err();
    web(1).addCoherencyLoss(name(1), 2);
    EXPECT_EQ(child.finish(8000), 1) << child.err();
    const std::vector<ctltest::Json> events = jsonLines(child.out());
    ASSERT_EQ(events.size(), 5u) << child.out();

    EXPECT_EQ(str(at(events[0].get(), "event")), "started");
    const cJSON* document = at(events[0].get(), "domain");
    EXPECT_EQ(str(at(document, "uri")), "/localhost/tests/domainA");
    EXPECT_TRUE(cJSON_IsTrue(at(document, "isCoherent")));
    EXPECT_EQ(num(at(at(document, "coherencyRequirements"), "maxOffset_ns")), 1000);
    EXPECT_EQ(str(at(at(document, "coherencyRequirements"), "requiredTimescaleUri")), kTimescale);
    EXPECT_EQ(cJSON_GetArraySize(at(document, "syncableDevices")), static_cast<int>(kChassis));

    // Check 1 before the loss, 2 sees it, 3 is clean since 2 but not since the start.
    const struct {
        bool sinceLast, sinceStart;
        double losses, change;
    } expected[] = {{true, true, 0, 0}, {false, false, 2, 2}, {true, false, 2, 0}};
    for (int i = 0; i < 3; ++i) {
        SCOPED_TRACE(i + 1);
        const cJSON* check = events[i + 1].get();
        EXPECT_EQ(num(at(check, "check")), i + 1);
        EXPECT_EQ(cJSON_IsTrue(at(check, "coherentSinceLastCheck")), expected[i].sinceLast);
        EXPECT_EQ(cJSON_IsTrue(at(check, "coherentSinceStart")), expected[i].sinceStart);
        const cJSON* member = cJSON_GetArrayItem(at(check, "members"), 1);
        EXPECT_EQ(str(at(member, "uri")), uris[1]);
        EXPECT_EQ(num(at(member, "coherencyLossCount")), expected[i].losses);
        EXPECT_EQ(num(at(member, "lossesSinceLastCheck")), expected[i].change);
        EXPECT_EQ(num(at(cJSON_GetArrayItem(at(check, "members"), 0), "coherencyLossCount")), 0);
    }
    EXPECT_EQ(str(at(events[4].get(), "event")), "stopped");
    EXPECT_FALSE(cJSON_IsTrue(at(events[4].get(), "coherencyHeld")));
    EXPECT_EQ(num(at(events[4].get(), "checks")), 3);

    // A member whose web service no longer answers is a library error.
    chassis[1]->stop();
    const ctltest::Run unreachable = ctltest::run(domain({}));
    EXPECT_EQ(unreachable.exitStatus, 2) << unreachable.out;
    // One line: the chassis, the transfer's own message, the constant and code.
    EXPECT_TRUE(std::regex_match(unreachable.err, std::regex(R"(ztsdctl: chassis 127\.0\.0\.1:\d+\S*: .*Couldn't connect to server \[\w+ -\d+\]\n)")))
        << unreachable.err;
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
    std::smatch coherentAfter;
    ASSERT_TRUE(std::regex_search(child.out(), coherentAfter, std::regex(R"(coherent after (\d+\.\d{3}) s \(3 members\))")))
        << child.out();
    // The child needs part of the 1.3 s to start and load the chassis (much
    // of it under sanitizers), so only a clear wait is asserted.
    EXPECT_GE(std::stod(coherentAfter[1]), 0.5);
}

// A start that times out: the library's report, naming the member that was
// not coherent.
TEST_F(ZtsdctlDomainConcurrency, CoherencyNotReachedInTimeExits1WithTheLibrarysReport) {
    web(1).setCoherent(name(1), false);
    const ctltest::Run human = ctltest::run(domain({"--timeout-s", "1"}));
    EXPECT_EQ(human.exitStatus, 1) << human.err;
    EXPECT_NE(human.out.find("coherency NOT reached within 1 s"), std::string::npos) << human.out;
    EXPECT_NE(human.err.find("ztsdctl: coherency not reached within 1 s; not coherent: " + uris[1] +
                             " [ztapalerr_operationTimedOut -52007]\n"),
              std::string::npos)
        << human.err;

    const ctltest::Run json = ctltest::run(domain({"--timeout-s", "1", "--json"}));
    EXPECT_EQ(json.exitStatus, 1);
    const std::vector<ctltest::Json> events = jsonLines(json.out);
    ASSERT_EQ(events.size(), 1u) << json.out;
    EXPECT_EQ(str(at(events[0].get(), "event")), "notCoherent");
    EXPECT_EQ(num(at(events[0].get(), "code")), -52007);
    EXPECT_EQ(str(at(at(events[0].get(), "report"), "error_constant")), "ztapalerr_operationTimedOut");
    EXPECT_GE(num(at(events[0].get(), "elapsed_ms")), 1000);
    EXPECT_TRUE(std::regex_match(str(at(events[0].get(), "time")), ctltest::kRfc3339));
    const cJSON* members = at(events[0].get(), "notCoherentMembers");
    ASSERT_EQ(cJSON_GetArraySize(members), 1);
    EXPECT_EQ(str(cJSON_GetArrayItem(members, 0)), uris[1]);
}

// Ctrl-C while the start waits for a member that is not coherent ends the
// start at once (the library cancels it), not at the end of its 60 s: exit 1,
// a line or a stopped event saying so. The bound allows a loaded machine;
// the tool and the library take well under 0.2 s between them.
TEST_F(ZtsdctlDomainConcurrency, CtrlCEndsAWaitingStartAtOnce) {
    web(1).setCoherent(name(1), false);
    for (const bool json : {false, true}) {
        SCOPED_TRACE(json ? "json" : "text");
        std::vector<std::string> more{"--timeout-s", "60"};
        if (json) more.push_back("--json");
        ctltest::Ztsdctl child(domain(more));
        ASSERT_TRUE(child.started());
        // The start is under way once the member has been asked twice.
        const auto asked = web(1).getCountOf(name(1));
        for (int i = 0; i < 100 && web(1).getCountOf(name(1)) < asked + 2; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        const auto signalled = std::chrono::steady_clock::now();
        child.signal(SIGINT);
        EXPECT_EQ(child.finish(5000), 1) << child.err();
        EXPECT_LT(std::chrono::steady_clock::now() - signalled, std::chrono::milliseconds(1000));
        if (json) {
            const std::vector<ctltest::Json> events = jsonLines(child.out());
            ASSERT_EQ(events.size(), 1u) << child.out();
            EXPECT_EQ(str(at(events[0].get(), "event")), "stopped");
            EXPECT_TRUE(cJSON_IsTrue(at(events[0].get(), "interrupted")));
            EXPECT_EQ(child.err(), "");
        } else {
            EXPECT_NE(child.out().find("interrupted; start cancelled after "), std::string::npos) << child.out();
        }
    }
}

TEST_F(ZtsdctlDomainConcurrency, CtrlCStopsTheWatchCleanlyAndReportsHeldCoherency) {
    ctltest::Ztsdctl child(domain({"--watch", "0.2"}));
    ASSERT_TRUE(child.waitForOutput("check 1 at", 6000)) << child.out() << child.err();
    child.signal(SIGINT);
    EXPECT_EQ(child.finish(5000), 0) << child.err();
    const std::string& out = child.out();
    EXPECT_NE(out.find("coherent since last check: yes, since start: yes"), std::string::npos) << out;
    // A member's row in the check table: coherent, losses, change.
    const std::size_t row = out.find("  " + uris[2] + " ");
    ASSERT_NE(row, std::string::npos) << out;
    std::istringstream fields(out.substr(row + uris[2].size() + 2, out.find('\n', row) - row - uris[2].size() - 2));
    std::string coherent, losses, change;
    fields >> coherent >> losses >> change;
    EXPECT_EQ(coherent + " " + losses + " " + change, "yes 0 +0") << out;
    EXPECT_NE(out.find("interrupted; domain stopped\ncoherency held ("), std::string::npos) << out;
    // Nothing on stderr but the start's progress line.
    EXPECT_EQ(std::regex_replace(child.err(), std::regex("waiting for coherency[^\n]*\n"), ""), "") << child.err();
}
