// The simulator's fault controls over real HTTP: where a fault applies and
// for how long, envelope errors, latency, stalls, and stop() while requests
// are held or connections kept alive. What a status, a raw body or a dropped
// connection does to a client is covered by the HTTP client's tests.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "integration/sim/simTestSupport.h"
#include "ztsd-sim/chassisSimulator.h"

using simtest::elapsed_ms;
using simtest::exchange;
using simtest::member;
using simtest::printed;
using simtest::text;
using simtest::waitFor;
using ztsdsim::ChassisSimulator;
using ztsdsim::Fault;
using Clock = std::chrono::steady_clock;

namespace {

class SimulatorFaults : public ::testing::Test {
protected:
    void SetUp() override {
        sim.start();
        sim.addDevice("chassis0");
        sim.addDevice("chassis1");
        path0 = sim.deviceResourcePath("chassis0");
        path1 = sim.deviceResourcePath("chassis1");
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

    Fault envelope;
    envelope.envelopeError = true;
    envelope.errorCode = -7;
    sim.setFault(path0, envelope);
    EXPECT_EQ(exchange(sim, "PUT", path0, "{\"n\":2}").status, 200);
    EXPECT_EQ(sim.requirementsOf("chassis0"), "");

    Fault slow;
    slow.latency_ms = 1;
    sim.setFault(path0, slow);
    EXPECT_EQ(exchange(sim, "PUT", path0, "{\"n\":3}").status, 200);
    EXPECT_EQ(sim.requirementsOf("chassis0"), "{\"n\":3}");
    EXPECT_EQ(sim.putCountOf("chassis0"), 3u);  // every PUT that arrived is counted
}

TEST_F(SimulatorFaults, EnvelopeErrorCarriesCodeTextAndInfo) {
    Fault fault;
    fault.envelopeError = true;
    fault.errorCode = -1074100993;
    fault.errorText = "Device says \"no\".";
    fault.errorInfoJson = "{\"reason\":[1,2,{\"deep\":true}]}";
    sim.setFault(path0, fault);
    // Code and text as a client reads them are checked by the HTTP client's tests.
    simtest::Reply reply = exchange(sim, "GET", path0);
    EXPECT_EQ(reply.status, 200);
    ASSERT_NE(reply.document, nullptr) << reply.body;
    EXPECT_EQ(reply.errorText(), "Device says \"no\".");
    EXPECT_EQ(printed(reply.errorInfo()), fault.errorInfoJson);
    EXPECT_EQ(text(member(reply.result(), "uri")), path0);  // the payload still comes

    // "success":false with code 0, and an info text that is not JSON, go out as set.
    fault.errorCode = 0;
    fault.errorInfoJson = "{oops";
    sim.setFault(path0, fault);
    reply = exchange(sim, "GET", path0);
    EXPECT_NE(reply.body.find("\"success\":false,\"errorCode\":0,"), std::string::npos) << reply.body;
    EXPECT_NE(reply.body.find("\"errorInfo\":{oops"), std::string::npos) << reply.body;
    EXPECT_EQ(reply.document, nullptr);
}

TEST_F(SimulatorFaults, FaultAppliesToItsRemainingCountThenLapses) {
    sim.setFault("", statusFault(503, 2));
    EXPECT_EQ(exchange(sim, "GET", path0).status, 503);
    EXPECT_EQ(exchange(sim, "GET", path1).status, 503);
    EXPECT_EQ(exchange(sim, "GET", path0).status, 200);

    sim.setFault("", statusFault(503, 0));  // applies to nothing
    EXPECT_EQ(exchange(sim, "GET", path0).status, 200);
}

TEST_F(SimulatorFaults, LongestMatchingPrefixWinsAndClearingRestoresNormalAnswers) {
    sim.setFault("", statusFault(500));
    sim.setFault("/ztsdwebs/resources/ztsd/syncableDevices/", statusFault(502));
    sim.setFault(path0, statusFault(404));
    EXPECT_EQ(exchange(sim, "GET", path0).status, 404);
    EXPECT_EQ(exchange(sim, "GET", path1).status, 502);
    EXPECT_EQ(exchange(sim, "GET", "/ztsdwebs/resources/").status, 500);

    sim.clearFault(path0);
    EXPECT_EQ(exchange(sim, "GET", path0).status, 502);
    sim.clearFaults();
    EXPECT_EQ(exchange(sim, "GET", path0).status, 200);
    EXPECT_EQ(exchange(sim, "GET", "/ztsdwebs/resources/").status, 200);
}

TEST_F(SimulatorFaults, LatencyDelaysTheAnswer) {
    Fault slow;
    slow.latency_ms = 500;
    sim.setFault(path0, slow);
    const auto start = Clock::now();
    const simtest::Reply reply = exchange(sim, "GET", path0);
    EXPECT_GE(elapsed_ms(start), 500);
    EXPECT_EQ(reply.status, 200);

    const auto quick = Clock::now();
    EXPECT_EQ(exchange(sim, "GET", path1).status, 200);
    EXPECT_LT(elapsed_ms(quick), 500);
}

TEST_F(SimulatorFaults, StallHoldsTheRequestUntilItsFaultIsClearedAndAnswersWithTheStateThen) {
    sim.setFault(path0, stallFault());
    auto pending = std::async(std::launch::async, [&] { return exchange(sim, "GET", path0); });
    ASSERT_TRUE(waitFor([&] { return sim.heldRequestCount() == 1; }));
    EXPECT_EQ(sim.requestCount(), 1u);
    EXPECT_EQ(pending.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    // Other paths are answered meanwhile.
    EXPECT_EQ(exchange(sim, "GET", path1).status, 200);

    sim.setCoherent("chassis0", false);  // seen by the held request once released
    sim.clearFault(path0);
    ASSERT_EQ(pending.wait_for(std::chrono::seconds(3)), std::future_status::ready);
    const simtest::Reply reply = pending.get();
    EXPECT_EQ(reply.status, 200);
    EXPECT_TRUE(cJSON_IsFalse(member(reply.result(), "isCoherent")));
    EXPECT_EQ(sim.heldRequestCount(), 0u);
}

TEST_F(SimulatorFaults, StallIsReleasedByReplacingItsFaultOrByClearFaultsOnly) {
    Fault stallThenFail = stallFault();
    stallThenFail.httpStatus = 500;
    stallThenFail.remaining = 1;
    sim.setFault(path0, stallThenFail);
    auto first = std::async(std::launch::async, [&] { return exchange(sim, "GET", path0); });
    ASSERT_TRUE(waitFor([&] { return sim.heldRequestCount() == 1; }));
    // The single-use fault is taken, but the request stays held; a fault
    // on another prefix does not release it.
    EXPECT_EQ(exchange(sim, "GET", path0).status, 200);
    sim.setFault(path1, statusFault(500));
    EXPECT_EQ(first.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    sim.setFault(path0, statusFault(418));
    ASSERT_EQ(first.wait_for(std::chrono::seconds(3)), std::future_status::ready);
    EXPECT_EQ(first.get().status, 500);  // answered as the fault it took says

    sim.clearFaults();
    sim.setFault("", stallFault());
    auto second = std::async(std::launch::async, [&] { return exchange(sim, "GET", path1); });
    ASSERT_TRUE(waitFor([&] { return sim.heldRequestCount() == 1; }));
    sim.clearFaults();
    ASSERT_EQ(second.wait_for(std::chrono::seconds(3)), std::future_status::ready);
    EXPECT_EQ(second.get().status, 200);
}

TEST_F(SimulatorFaults, StopWhileRequestsAreStalledOrDelayedReturnsPromptlyAndEndsThem) {
    sim.setFault(path0, stallFault());
    Fault slow;
    slow.latency_ms = 20000;
    sim.setFault(path1, slow);
    std::vector<std::future<simtest::Reply>> stalled;
    for (int i = 0; i < 3; ++i) {
        stalled.push_back(std::async(std::launch::async, [&] { return exchange(sim, "GET", path0, "", 8); }));
    }
    auto delayed = std::async(std::launch::async, [&] { return exchange(sim, "GET", path1, "", 30); });
    ASSERT_TRUE(waitFor([&] { return sim.heldRequestCount() == 4; }));
    const auto start = Clock::now();
    sim.stop();
    EXPECT_LT(elapsed_ms(start), 1000);
    EXPECT_FALSE(sim.isRunning());
    ASSERT_EQ(delayed.wait_for(std::chrono::seconds(2)), std::future_status::ready);
    for (auto& reply : stalled) {
        ASSERT_EQ(reply.wait_for(std::chrono::seconds(2)), std::future_status::ready);
        const simtest::Reply answer = reply.get();
        // Either the refusal made it out before the connection was cut, or nothing did.
        if (answer.arrived) {
            EXPECT_EQ(answer.status, 503);
        }
    }
}

TEST_F(SimulatorFaults, StopCutsIdleKeptAliveConnectionsInsteadOfWaitingForThem) {
    httplib::Client client("127.0.0.1", sim.port());
    client.set_keep_alive(true);
    ASSERT_TRUE(client.Get(path0.c_str()));
    ASSERT_TRUE(client.Get(path1.c_str()));  // the same connection, now idle on the server
    const auto start = Clock::now();
    sim.stop();
    // The server would otherwise wait out its 5 s keep-alive time-out.
    EXPECT_LT(elapsed_ms(start), 1000);
    EXPECT_FALSE(client.Get(path0.c_str()));
}
