// The simulated timestamp daemon itself, where the timescale proxy's tests
// and the fault matrix cannot see it through the library: its list by id,
// the true clock mapping those tests measure against, and a prompt stop.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <string>

#include <thrift/transport/TTransportException.h>

#include "integration/timestampservice/daemonTestSupport.h"
#include "timestampservice/timescaleProxySession.h"
#include "timestampservice/timescaleProxyThriftClient.h"
#include "timestampservice/timestampService.h"
#include "unit/support/raisedError.h"
#include "unit/support/statusFixture.h"
#include "ztsd-sim/timestampDaemonSimulator.h"

namespace {

namespace tss = ztsdlib::timestampservice;
using apache::thrift::transport::TTransportException;
using daemontest::elapsed_ms;
using daemontest::hostNow;
using daemontest::nanosBetween;
using ztsdsim::TimestampDaemonSimulator;

// The library's own client on a connection of its own, as a daemon's other users would have it.
std::unique_ptr<ztsdlib::TimescaleProxyThriftClient> connectedClient(std::uint16_t port, std::uint32_t timeout_ms = 2000) {
    auto client = std::make_unique<ztsdlib::TimescaleProxyThriftClient>("127.0.0.1", port, timeout_ms);
    client->open();
    return client;
}

TEST(TimestampDaemonSimulator, ListsEachTimescaleOnceAndServesItById) {
    TimestampDaemonSimulator daemon;
    EXPECT_EQ(daemon.addTimescale("A"), "/localhost/ztsds/timescales/A");
    daemon.addTimescale("B");
    daemon.addTimescale("A");  // listed already
    daemon.start();
    EXPECT_THROW(daemon.start(), std::logic_error);

    auto c = connectedClient(daemon.port());
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
}

TEST(TimestampDaemonSimulator, StopIsPromptWithStalledCallsAndIdleClients) {
    TimestampDaemonSimulator daemon;
    daemon.start();
    auto idle = connectedClient(daemon.port());
    EXPECT_EQ(idle->getApiVersion(), 2);
    daemon.stallCalls(1);
    auto stalled = std::async(std::launch::async, [&] {
        try {
            connectedClient(daemon.port(), 8000)->getApiVersion();
        } catch (const std::exception&) {
        }
    });
    ASSERT_TRUE(ztsdtest::eventually([&] { return daemon.stalledCallCount() == 1; }, std::chrono::seconds(2)));
    EXPECT_LT(elapsed_ms([&] { daemon.stop(); }), 1000);
    EXPECT_EQ(stalled.wait_for(std::chrono::seconds(2)), std::future_status::ready);
    EXPECT_FALSE(daemon.isRunning());
    EXPECT_THROW(idle->getApiVersion(), TTransportException);
    daemon.stop();  // again: nothing to do
}

// Each personality of the simulated daemon shows on the time calls of both
// API versions as the failure the proxy names, at once and without retries;
// the handshake stays faithful, a dripping reply is cut by the attempt's
// deadline, and clearFaults makes the daemon faithful again.
TEST(TimestampDaemonSimulator, PersonalitiesShowAsTheProxysNamedFailures) {
    using P = ztsdsim::DaemonPersonality;
    struct Case {
        P personality;
        const char* type;
    };
    const Case cases[] = {
        {P::wrongMethodName, "TApplicationException::WRONG_METHOD_NAME"},
        {P::invalidMessageType, "TApplicationException::INVALID_MESSAGE_TYPE"},
        {P::wrongSequenceId, "TApplicationException::BAD_SEQUENCE_ID"},
        {P::hugeLengths, "TProtocolException::SIZE_LIMIT"},
        {P::httpServer, "TProtocolException::BAD_VERSION"},
        {P::byteAtATime, "TTransportException::TIMED_OUT"},
    };
    for (const std::int32_t version : {1, 2}) {
        TimestampDaemonSimulator daemon;
        daemon.addTimescale(daemontest::kGmId);
        daemon.setApiVersion(version);
        daemon.start();
        // A 200 ms deadline per attempt and one attempt: the drip (a byte
        // every 20 ms) is cut within about a quarter of a second.
        auto client = std::make_shared<ztsdlib::TimescaleProxyThriftClient>(daemon.host(), daemon.port(), 200);
        ztsdlib::TimescaleProxySession session(client, daemontest::callerUri(), 1);
        ztsdlib_Timestamp t{};
        for (const Case& c : cases) {
            SCOPED_TRACE(c.type);
            daemon.setPersonality(c.personality, 20);
            const auto calls = daemon.callCount();
            ztsdtest::Raised r;
            EXPECT_LT(elapsed_ms([&] { r = ztsdtest::captureRaise([&] { session.getTime(t); }); }), 600);
            EXPECT_EQ(r.code, -52024);
            EXPECT_EQ(r.detail("ztsyncdomain_debug", "type"), c.type) << version << r.json;
            EXPECT_EQ(daemon.callCount(), calls + 1);
        }
        daemon.clearFaults();
        session.getTime(t);
        EXPECT_GT(t.seconds, 13000000000u);
    }
}

}  // namespace
