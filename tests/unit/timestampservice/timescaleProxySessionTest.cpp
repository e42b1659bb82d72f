// The session over a scripted client, for what the simulated daemon cannot
// produce: replies that cannot be read, exact report texts, bad wire
// timestamps. The handshake, retries, attempt limits and the daemon's own
// failures are tested against the real daemon in
// tests/integration/timestampservice/timescaleProxyTest.cpp.
#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <memory>
#include <regex>
#include <string>

#include <thrift/TApplicationException.h>
#include <thrift/protocol/TProtocolException.h>
#include <thrift/transport/TTransportException.h>

#include "timestampservice/timescaleProxySession.h"
#include "timestampservice/timescaleProxyThriftClient.h"
#include "unit/support/raisedError.h"

namespace {

using apache::thrift::TApplicationException;
using apache::thrift::TException;
using apache::thrift::protocol::TProtocolException;
using apache::thrift::transport::TTransportException;
using ztsdlib::TimescaleProxySession;
using ztsdtest::captureRaise;
using ztsdtest::kDebug;
namespace tss = ztsdlib::timestampservice;

// A stand-in for a version 2 daemon's RPC client: each time call runs the
// next scripted step (which may throw what Thrift would), then answers.
class ScriptedThriftClient : public ztsdlib::TimescaleProxyThriftClientInterface {
public:
    tss::TimeInfo timeInfo;
    std::deque<std::function<void()>> callSteps;
    int timeInfoCalls = 0;

    ScriptedThriftClient() {
        timeInfo.timestamp.seconds = 13300000001;
        timeInfo.timescaleUris = {"/localhost/ztsds/timescales/GM"};
    }
    void open() override { isOpenNow = true; }
    void close() noexcept override { isOpenNow = false; }
    bool isOpen() const override { return isOpenNow; }
    std::int32_t getApiVersion() override { return 2; }
    void getTime(tss::TimestampInfo&, std::int32_t) override { ADD_FAILURE() << "a version 2 session asked getTime"; }
    void getTimeAndCurrentTimescales(tss::TimeInfo& result) override {
        ++timeInfoCalls;
        if (!isOpenNow) throw TTransportException(TTransportException::NOT_OPEN, "Called write on non-open socket");
        if (!callSteps.empty()) {
            auto step = std::move(callSteps.front());
            callSteps.pop_front();
            step();
        }
        result = timeInfo;
    }

private:
    bool isOpenNow = false;
};

constexpr const char* kUri = "/10.0.0.1:8080/ztsdwebs/resources/ztsd/timescales/GM";

struct TimescaleProxySessionTest : ::testing::Test {
    std::shared_ptr<ScriptedThriftClient> client = std::make_shared<ScriptedThriftClient>();
    std::unique_ptr<TimescaleProxySession> make() { return std::make_unique<TimescaleProxySession>(client, kUri, 5); }
};

TEST(TimescaleProxySessionUri, ExpectedLocalUriIsTheDaemonsNameForTheGmId) {
    EXPECT_EQ(TimescaleProxySession::expectedLocalUriOf(kUri), "/localhost/ztsds/timescales/GM");
    EXPECT_EQ(TimescaleProxySession::expectedLocalUriOf(
                  "/127.0.0.1:41234/ztsdwebs/resources/other/clocks/00-80-2F-AA-BB-CC-DD-EE"),
              "/localhost/ztsds/timescales/00-80-2F-AA-BB-CC-DD-EE");
    EXPECT_EQ(TimescaleProxySession::expectedLocalUriOf("h/w/r/p/t/g"), "/localhost/ztsds/timescales/g");
    // The daemon's own name is not a timescale URI of a web service (the
    // parser's other refusals are tests/unit/remote/uriKeyParserTest.cpp's).
    EXPECT_EQ(captureRaise([] { TimescaleProxySession::expectedLocalUriOf("/localhost/ztsds/timescales/g"); }).code,
              -52005);
}

// The real daemon always answers in step; a reply that cannot be read (the
// stream may be out of step) is not retried and closes the connection.
TEST_F(TimescaleProxySessionTest, UnreadableRepliesEndTheReadingAtOnceAndCloseTheConnection) {
    auto session = make();
    ztsdlib_Timestamp t{};
    client->callSteps.push_back([] { throw TProtocolException(TProtocolException::NEGATIVE_SIZE, "Negative size"); });
    client->callSteps.push_back([] {
        throw TApplicationException(TApplicationException::MISSING_RESULT,
                                    "getTimeAndCurrentTimescales failed: unknown result");
    });
    for (const char* type : {"TProtocolException::NEGATIVE_SIZE", "TApplicationException::MISSING_RESULT"}) {
        const int callsBefore = client->timeInfoCalls;
        const auto r = captureRaise([&] { session->getTime(t); });
        EXPECT_EQ(r.code, -52024);
        EXPECT_EQ(r.detail(kDebug, "type"), type);
        EXPECT_EQ(client->timeInfoCalls, callsBefore + 1);
        EXPECT_FALSE(client->isOpen());
    }
}

TEST_F(TimescaleProxySessionTest, CommunicationsFaultReportIsExactAndEscaped) {
    auto session = make();
    ztsdlib_Timestamp t{1, 2, 3, true};
    for (int k = 1; k <= 5; ++k)
        client->callSteps.push_back([k] {
            throw TTransportException(TTransportException::END_OF_FILE, "say \"no\"\\ " + std::to_string(k));
        });
    std::string json;
    try {
        session->getTime(t);
    } catch (const zterr::Exception& e) {
        json = e.what();
    }
    EXPECT_EQ(client->timeInfoCalls, 5);
    EXPECT_TRUE(t.seconds == 1 && t.nanos == 2 && t.fractionalNanos == 3 && t.isNegative);  // untouched
    // The last attempt's failure is reported ("... 5").
    const std::string withoutLine = std::regex_replace(json, std::regex("\"line\":[0-9]+,"), "\"line\":L,");
    EXPECT_EQ(withoutLine,
              "{\"error_constant\":\"ztapalerr_communicationsFault\","
              "\"file\":\"source\\\\ztsdlib\\\\timescaleProxySession\",\"line\":L,\"component\":\"ztsdlib\","
              "\"timescaleUri\":\"/10.0.0.1:8080/ztsdwebs/resources/ztsd/timescales/GM\","
              "\"std_exception_what\":\"say \\\"no\\\"\\\\ 5\","
              "\"ztsyncdomain_debug\":{\"type_code\":3,\"type\":\"TTransportException::END_OF_FILE\","
              "\"message\":\"Encountered error getting time from zttimestampd on remote target.\"}}");
}

TEST(TimescaleProxySessionWire, TimestampsAreCheckedAndCarriedBitForBit) {
    ztsdlib_Timestamp t = ztsdlib::timestampFromWire(13300000000, 999999999, 77, false);
    EXPECT_EQ(t.seconds, 13300000000u);
    EXPECT_EQ(t.nanos, 999999999u);
    EXPECT_EQ(t.fractionalNanos, 77u);  // carried as it came
    EXPECT_FALSE(t.isNegative);

    t = ztsdlib::timestampFromWire(-1, 0, -1, true);
    EXPECT_EQ(t.seconds, 18446744073709551615u);
    EXPECT_EQ(t.fractionalNanos, 4294967295u);
    EXPECT_TRUE(t.isNegative);

    for (const std::int32_t nanos : {1000000000, -1, 2147483647}) {
        const auto r = captureRaise([&] { ztsdlib::timestampFromWire(5, nanos, 0, false); });
        ztsdtest::expectReport(r, -52005, R"({"message":"Nano seconds field greater than 1e+9"})");
    }
}

TEST_F(TimescaleProxySessionTest, BadWireTimestampLeavesTheCallersRecordAlone) {
    auto session = make();
    client->timeInfo.timestamp.nanos = 1000000000;
    ztsdlib_Timestamp t{4, 5, 6, false};
    EXPECT_EQ(captureRaise([&] { session->getTime(t); }).code, -52005);
    EXPECT_TRUE(t.seconds == 4 && t.nanos == 5 && t.fractionalNanos == 6 && !t.isNegative);
    EXPECT_EQ(client->timeInfoCalls, 1);
}

// The last name of each kind's table (earlier ones are met in the tests
// above and against the daemon), and the fallbacks.
TEST(TimescaleProxyThriftClientFailures, EveryThriftKindIsNamed) {
    struct Case {
        std::function<void()> raise;
        std::int32_t code;
        std::string type;
        bool transport;
    };
    const std::vector<Case> cases{
        {[] { throw TTransportException(TTransportException::CLIENT_DISCONNECT, "t"); }, 8,
         "TTransportException::CLIENT_DISCONNECT", true},
        {[] { throw TProtocolException(TProtocolException::DEPTH_LIMIT, "t"); }, 6, "TProtocolException::DEPTH_LIMIT",
         false},
        {[] { throw TApplicationException(TApplicationException::UNSUPPORTED_CLIENT_TYPE, "t"); }, 10,
         "TApplicationException::UNSUPPORTED_CLIENT_TYPE", false},
        {[] { throw TException("t"); }, 0, "TException", false},
        {[] { throw std::runtime_error("t"); }, 0, "std::exception", false},
    };
    for (const Case& c : cases) {
        try {
            c.raise();
        } catch (const std::exception& e) {
            const ztsdlib::RpcFailure f = ztsdlib::describeRpcFailure(e);
            EXPECT_EQ(f.what, "t");
            EXPECT_EQ(f.typeCode, c.code) << c.type;
            EXPECT_EQ(f.type, c.type);
            EXPECT_EQ(f.transport, c.transport) << c.type;
        }
    }
}

}  // namespace
