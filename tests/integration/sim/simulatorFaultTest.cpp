// The simulator's fault controls over real HTTP, as far as the fault matrix
// (tests/integration/reliability) cannot see them through the library:
// that a faulted PUT stores nothing, which prefix a request takes and for how
// many requests, what releases a stall, and stop() with requests held or
// connections kept alive. What each fault does to a caller is the matrix's.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>

#include "integration/sim/simTestSupport.h"
#include "ztsd-sim/chassisSimulator.h"

using ztsdtest::msSince;
using simtest::exchange;
using simtest::member;
using simtest::waitFor;
using ztsdsim::ChassisSimulator;
using ztsdsim::Fault;
using Clock = std::chrono::steady_clock;

namespace {

constexpr auto kBriefly = std::chrono::milliseconds(100);
constexpr auto kPromptly = std::chrono::seconds(3);

class SimulatorFaults : public ::testing::Test {
protected:
    void SetUp() override {
        sim.start();
        sim.addDevice("chassis0");
        sim.addDevice("chassis1");
        path0 = sim.deviceResourcePath("chassis0");
        path1 = sim.deviceResourcePath("chassis1");
    }
    std::future<simtest::Reply> get(const std::string& path, int readTimeout_s = 5) {
        return std::async(std::launch::async, [this, path, readTimeout_s] {
            return exchange(sim, "GET", path, "", readTimeout_s);
        });
    }
    ChassisSimulator sim;
    std::string path0;
    std::string path1;
};

Fault statusFault(int status, int remaining = -1) {
    Fault fault;
    fault.httpStatus = status;
    fault.remaining = remaining;
    return fault;
}

Fault stallFault() {
    Fault fault;
    fault.stall = true;
    return fault;
}

}  // namespace

TEST_F(SimulatorFaults, FaultedPutStoresNothingWhileLatencyOnlyPutDoes) {
    sim.setFault(path0, statusFault(500));
    EXPECT_EQ(exchange(sim, "PUT", path0, "{\"n\":1}").status, 500);
    EXPECT_EQ(sim.requirementsOf("chassis0"), "");

    // An envelope error goes out as set (its text escaped), an info text
    // that is not JSON as it stands.
    Fault envelope;
    envelope.envelopeError = true;
    envelope.errorCode = -7;
    envelope.errorText = "Device says \"no\".";
    envelope.errorInfoJson = "{oops";
    sim.setFault(path0, envelope);
    const simtest::Reply reply = exchange(sim, "PUT", path0, "{\"n\":2}");
    EXPECT_EQ(reply.status, 200);
    EXPECT_NE(reply.body.find("\"success\":false,\"errorCode\":-7,\"errorText\":\"Device says \\\"no\\\".\","),
              std::string::npos)
        << reply.body;
    EXPECT_NE(reply.body.find("\"errorInfo\":{oops"), std::string::npos) << reply.body;
    EXPECT_EQ(sim.requirementsOf("chassis0"), "");

    Fault slow;
    slow.latency_ms = 1;
    sim.setFault(path0, slow);
    EXPECT_EQ(exchange(sim, "PUT", path0, "{\"n\":3}").status, 200);
    EXPECT_EQ(sim.requirementsOf("chassis0"), "{\"n\":3}");
    EXPECT_EQ(sim.putCountOf("chassis0"), 3u);  // every PUT that arrived is counted
}

TEST_F(SimulatorFaults, LongestPrefixWinsForItsRemainingCountAndClearingRestores) {
    sim.setFault("", statusFault(500));
    sim.setFault("/ztsdwebs/resources/ztsd/syncableDevices/", statusFault(502, 2));  // one count for both devices
    sim.setFault(path0, statusFault(404));
    EXPECT_EQ(exchange(sim, "GET", path0).status, 404);
    EXPECT_EQ(exchange(sim, "GET", path1).status, 502);
    EXPECT_EQ(exchange(sim, "GET", "/ztsdwebs/resources/").status, 500);

    sim.clearFault(path0);
    EXPECT_EQ(exchange(sim, "GET", path0).status, 502);  // the last of its count
    EXPECT_EQ(exchange(sim, "GET", path1).status, 500);  // lapsed: the shorter prefix applies
    sim.setFault("", statusFault(503, 0));                // a count of 0 applies to nothing
    EXPECT_EQ(exchange(sim, "GET", path0).status, 200);

    sim.setFault(path0, statusFault(404));
    sim.clearFaults();
    EXPECT_EQ(exchange(sim, "GET", path0).status, 200);
}

TEST_F(SimulatorFaults, StallHoldsTheRequestUntilItsFaultIsReplacedOrCleared) {
    sim.setFault(path0, stallFault());
    Fault stallThenFail = stallFault();
    stallThenFail.httpStatus = 500;
    stallThenFail.remaining = 1;
    sim.setFault(path1, stallThenFail);
    auto held0 = get(path0);
    auto held1 = get(path1);
    ASSERT_TRUE(waitFor([&] { return sim.heldRequestCount() == 2; }));
    EXPECT_EQ(sim.requestCount(), 2u);
    // The single-use fault is taken: path1 answers at once meanwhile.
    EXPECT_EQ(exchange(sim, "GET", path1).status, 200);
    // A fault on another prefix releases nothing.
    sim.setFault("/ztsdwebs/resources/", statusFault(500));
    EXPECT_EQ(held0.wait_for(kBriefly), std::future_status::timeout);
    EXPECT_EQ(sim.heldRequestCount(), 2u);

    // Replacing its fault releases a request, answered as the fault it took says.
    sim.setFault(path1, statusFault(418));
    ASSERT_EQ(held1.wait_for(kPromptly), std::future_status::ready);
    EXPECT_EQ(held1.get().status, 500);

    // Clearing it too, and the answer shows the state at the release.
    sim.setCoherent("chassis0", false);
    sim.clearFault(path0);
    ASSERT_EQ(held0.wait_for(kPromptly), std::future_status::ready);
    const simtest::Reply reply = held0.get();
    EXPECT_EQ(reply.status, 200);
    EXPECT_TRUE(cJSON_IsFalse(member(reply.result(), "isCoherent"))) << reply.body;
    EXPECT_EQ(sim.heldRequestCount(), 0u);

    // And clearFaults(), as the matrix clears every row.
    sim.clearFaults();
    sim.setFault("", stallFault());
    auto held = get(path1);
    ASSERT_TRUE(waitFor([&] { return sim.heldRequestCount() == 1; }));
    sim.clearFaults();
    ASSERT_EQ(held.wait_for(kPromptly), std::future_status::ready);
    EXPECT_EQ(held.get().status, 200);
}

TEST_F(SimulatorFaults, StopEndsStalledDelayedAndIdleKeptAliveConnectionsPromptly) {
    httplib::Client idle("127.0.0.1", sim.port());
    idle.set_keep_alive(true);
    ASSERT_TRUE(idle.Get(path0.c_str()));  // its connection now waits on the server
    sim.setFault(path0, stallFault());
    Fault slow;
    slow.latency_ms = 20000;
    sim.setFault(path1, slow);
    auto stalled = get(path0, 8);
    auto delayed = get(path1, 30);
    ASSERT_TRUE(waitFor([&] { return sim.heldRequestCount() == 2; }));

    const auto start = Clock::now();
    sim.stop();
    // Not the 20 s delay, nor the 5 s keep-alive time-out of the idle connection.
    EXPECT_LT(msSince(start), 1000);
    EXPECT_FALSE(sim.isRunning());
    for (auto* held : {&stalled, &delayed}) {
        ASSERT_EQ(held->wait_for(std::chrono::seconds(2)), std::future_status::ready);
        const simtest::Reply answer = held->get();
        // Either the refusal made it out before the connection was cut, or nothing did.
        if (answer.arrived) EXPECT_EQ(answer.status, 503);
    }
    EXPECT_FALSE(idle.Get(path0.c_str()));
}
