// The simulated timestamp daemon itself, through the generated client on a
// real loopback connection: what it serves, its clock and a prompt stop
// (its refuse, drop, stall and fail controls are exercised, with their
// counters, by the timescale proxy's tests). Also the simulated chassis
// that lists its timescales.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include <thrift/TApplicationException.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>
#include <thrift/transport/TTransportException.h>

#include "integration/timestampservice/daemonTestSupport.h"
#include "timestampservice/timestampService.h"
#include "unit/support/raisedError.h"
#include "unit/support/statusFixture.h"
#include "ztsd-sim/simulatedChassis.h"

namespace {

namespace tss = ztsdlib::timestampservice;
using apache::thrift::TApplicationException;
using apache::thrift::transport::TTransportException;
using daemontest::elapsed_ms;
using daemontest::hostNow;
using daemontest::nanosBetween;
using ztsdsim::TimestampDaemonSimulator;

// The generated client on its own connection, as a daemon's other users would have it.
struct RawClient {
    std::shared_ptr<apache::thrift::transport::TSocket> socket;
    std::shared_ptr<apache::thrift::transport::TTransport> transport;
    std::shared_ptr<apache::thrift::protocol::TProtocol> protocol;
    std::unique_ptr<tss::timestampServiceClient> client;

    explicit RawClient(std::uint16_t port, int timeout_ms = 2000)
        : socket(std::make_shared<apache::thrift::transport::TSocket>("127.0.0.1", port)),
          transport(std::make_shared<apache::thrift::transport::TBufferedTransport>(socket)),
          protocol(std::make_shared<apache::thrift::protocol::TBinaryProtocol>(transport)),
          client(std::make_unique<tss::timestampServiceClient>(protocol)) {
        socket->setConnTimeout(timeout_ms);
        socket->setRecvTimeout(timeout_ms);
        socket->setSendTimeout(timeout_ms);
        transport->open();
    }
    tss::timestampServiceClient* operator->() { return client.get(); }
};

TEST(TimestampDaemonSimulator, ServesTheListedTimescalesInBothApiVersions) {
    TimestampDaemonSimulator daemon;
    EXPECT_EQ(daemon.port(), 0);
    EXPECT_FALSE(daemon.isRunning());
    EXPECT_EQ(daemon.addTimescale("A"), "/localhost/ztsds/timescales/A");
    daemon.addTimescale("B");
    daemon.addTimescale("A");  // listed already
    daemon.start();
    EXPECT_TRUE(daemon.isRunning());
    EXPECT_NE(daemon.port(), 0);
    EXPECT_THROW(daemon.start(), std::logic_error);

    RawClient c(daemon.port());
    EXPECT_EQ(c->getApiVersion(), 2);
    tss::TimeInfo info;
    c->getTimeAndCurrentTimescales(info);
    EXPECT_EQ(info.timescaleUris,
              (std::vector<std::string>{"/localhost/ztsds/timescales/A", "/localhost/ztsds/timescales/B"}));
    tss::TimestampInfo one;
    c->getTime(one, 1);
    EXPECT_EQ(one.uri, "/localhost/ztsds/timescales/B");
    try {
        c->getTime(one, 2);
        ADD_FAILURE() << "an id beyond the list was answered";
    } catch (const tss::thrift_zterr& e) {
        EXPECT_EQ(e.code, -52006);
        EXPECT_TRUE(ztsdtest::strictlyValid(e.json.c_str())) << e.json;
    }

    daemon.setApiVersion(1);
    EXPECT_EQ(c->getApiVersion(), 1);
    EXPECT_THROW(c->getTimeAndCurrentTimescales(info), TApplicationException);
    daemon.setReportedUri(std::string("/elsewhere"));
    c->getTime(one, 0);
    EXPECT_EQ(one.uri, "/elsewhere");
    daemon.clearFaults();
    c->getTime(one, 0);
    EXPECT_EQ(one.uri, "/localhost/ztsds/timescales/A");

    daemon.removeTimescale("A");
    EXPECT_EQ(daemon.timescaleUris(), std::vector<std::string>{"/localhost/ztsds/timescales/B"});
    daemon.setApiVersion(-4);
    EXPECT_EQ(c->getApiVersion(), -4);
    EXPECT_EQ(daemon.callCount(), 9u);
}

TEST(TimestampDaemonSimulator, ClockRunsAtTheSetOffsetAndRate) {
    TimestampDaemonSimulator daemon;
    daemon.setClock(2500000000, 50000);
    // Exactly 1000 host seconds apart, the target's clock moves 1000.05 s.
    const ztsdlib_Timestamp h1 = hostNow();
    ztsdlib_Timestamp h2 = h1;
    h2.seconds += 1000;
    EXPECT_EQ(nanosBetween(daemon.timeAt(h1), daemon.timeAt(h2)), 1000050000000);
    // Near the reference the offset dominates: 2.5 s plus at most a few ns of rate.
    const std::int64_t offset = nanosBetween(h1, daemon.timeAt(h1));
    EXPECT_GE(offset, 2500000000 - 1000);
    EXPECT_LE(offset, 2500000000 + 1000);
    // A slow clock: -100 ppm over 1000 s is 100 ms behind.
    daemon.setClock(0, -100000);
    EXPECT_EQ(nanosBetween(daemon.timeAt(h1), daemon.timeAt(h2)), 999900000000);

    daemon.setClock(-1000000, 0);
    daemon.addTimescale("A");
    daemon.start();
    RawClient c(daemon.port());
    const ztsdlib_Timestamp before = daemon.timeAt(hostNow());
    tss::TimestampInfo answer;
    c->getTime(answer, 0);
    const ztsdlib_Timestamp after = daemon.now();
    const ztsdlib_Timestamp served{static_cast<std::uint64_t>(answer.seconds), static_cast<std::uint32_t>(answer.nanos),
                                   0, false};
    EXPECT_TRUE(daemontest::notAfter(before, served) && daemontest::notAfter(served, after))
        << daemontest::show(before) << " " << daemontest::show(served) << " " << daemontest::show(after);
}

TEST(TimestampDaemonSimulator, StopIsPromptWithStalledCallsAndIdleClients) {
    TimestampDaemonSimulator daemon;
    daemon.start();
    RawClient idle(daemon.port());
    EXPECT_EQ(idle->getApiVersion(), 2);
    daemon.stallCalls(1);
    auto stalled = std::async(std::launch::async, [&] {
        RawClient c(daemon.port(), 8000);
        try {
            c->getApiVersion();
        } catch (const std::exception&) {
        }
    });
    for (int i = 0; i < 400 && daemon.stalledCallCount() == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    ASSERT_EQ(daemon.stalledCallCount(), 1u);
    EXPECT_LT(elapsed_ms([&] { daemon.stop(); }), 1000);
    EXPECT_EQ(stalled.wait_for(std::chrono::seconds(2)), std::future_status::ready);
    EXPECT_FALSE(daemon.isRunning());
    EXPECT_THROW(idle->getApiVersion(), TTransportException);
    daemon.stop();  // again: nothing to do
}

TEST(SimulatedChassis, ListedTimescaleUrisReadTheDaemonsClock) {
    ztsdsim::SimulatedChassis chassis;
    chassis.start();
    chassis.timestampDaemon().setClock(daemontest::kOffset_ns, daemontest::kRate_ppb);
    const std::string a = chassis.addTimescale("00-80-2F-AA-BB-CC-DD-EE");
    const std::string b = chassis.addTimescale("00-80-2F-11-22-33-44-55");
    EXPECT_EQ(a, "/" + chassis.webService().remoteHost() + "/ztsdwebs/resources/ztsd/timescales/00-80-2F-AA-BB-CC-DD-EE");

    // Listed by the web service (served over HTTP as the loading tests show).
    const std::vector<std::string> listed = chassis.webService().timescaleUris();
    ASSERT_EQ(listed, (std::vector<std::string>{a, b}));

    std::vector<std::unique_ptr<ztsdlib::TimescaleProxy>> proxies;
    for (const std::string& uri : listed) {
        proxies.push_back(std::make_unique<ztsdlib::TimescaleProxy>(uri, chassis.daemonHost(), chassis.daemonPort()));
        const ztsdlib_Timestamp before = chassis.timestampDaemon().timeAt(hostNow());
        ztsdlib_Timestamp t{};
        proxies.back()->getTime(t, nullptr);
        EXPECT_TRUE(daemontest::notAfter(before, t)) << daemontest::show(before) << " " << daemontest::show(t);
        EXPECT_TRUE(daemontest::notAfter(t, chassis.timestampDaemon().now()));
    }

    // Removed from the chassis: gone from the listing and from the daemon.
    chassis.removeTimescale("00-80-2F-AA-BB-CC-DD-EE");
    EXPECT_EQ(chassis.webService().timescaleUris(), std::vector<std::string>{b});
    ztsdlib_Timestamp t{};
    EXPECT_EQ(ztsdtest::captureRaise([&] { proxies[0]->getTime(t, nullptr); }).code, -52020);
    proxies[1]->getTime(t, nullptr);
    chassis.stop();
}

}  // namespace
