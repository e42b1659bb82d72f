// The session's conversation rules over a scripted client: the expected
// local URI, the version handshake, attempts and what ends them, the
// reports and their members, and the conversion of wire timestamps.
#include <gtest/gtest.h>

#include <memory>
#include <regex>
#include <string>

#include <thrift/TApplicationException.h>
#include <thrift/protocol/TProtocolException.h>

#include "timestampservice/timescaleProxySession.h"
#include "unit/support/raisedError.h"
#include "unit/timestampservice/scriptedThriftClient.h"

namespace {

using apache::thrift::TApplicationException;
using apache::thrift::TException;
using apache::thrift::protocol::TProtocolException;
using ztsdlib::TimescaleProxySession;
using ztsdtest::captureRaise;
using ztsdtest::ScriptedThriftClient;
using ztsdtest::TTransportException;
namespace tss = ztsdlib::timestampservice;

constexpr const char* kUri = "/10.0.0.1:8080/ztsdwebs/resources/ztsd/timescales/GM";
constexpr const char* kDebug = "ztsyncdomain_debug";
constexpr const char* kTimeFailed = "Encountered error getting time from zttimestampd on remote target.";

struct TimescaleProxySessionTest : ::testing::Test {
    std::shared_ptr<ScriptedThriftClient> client = std::make_shared<ScriptedThriftClient>();
    std::unique_ptr<TimescaleProxySession> make(std::uint32_t attempts = 5, const std::string& uri = kUri) {
        return std::make_unique<TimescaleProxySession>(client, uri, attempts);
    }
};

TEST(TimescaleProxySessionUri, ExpectedLocalUriIsTheDaemonsNameForTheGmId) {
    EXPECT_EQ(TimescaleProxySession::expectedLocalUriOf(kUri), "/localhost/ztsds/timescales/GM");
    EXPECT_EQ(TimescaleProxySession::expectedLocalUriOf(
                  "/127.0.0.1:41234/ztsdwebs/resources/other/clocks/00-80-2F-AA-BB-CC-DD-EE"),
              "/localhost/ztsds/timescales/00-80-2F-AA-BB-CC-DD-EE");
    EXPECT_EQ(TimescaleProxySession::expectedLocalUriOf("h/w/r/p/t/g"), "/localhost/ztsds/timescales/g");
    // Anything but six parts is not a timescale URI of a web service.
    for (const char* bad : {"", "/", "/localhost/ztsds/timescales/system", "/h/w/r/p/t/g/extra", "/h/w//p/t/g"}) {
        SCOPED_TRACE(bad);
        EXPECT_EQ(captureRaise([&] { TimescaleProxySession::expectedLocalUriOf(bad); }).code, -52005);
    }
}

TEST_F(TimescaleProxySessionTest, HandshakeAsksTheVersionOnceAndClosesTheConnection) {
    client->version = 3;
    auto session = make();
    EXPECT_EQ(session->getServerApiVersion(), 3);
    EXPECT_EQ(session->getThisTimescaleUri(), kUri);
    EXPECT_EQ(session->getExpectedLocalUri(), "/localhost/ztsds/timescales/GM");
    EXPECT_EQ(client->versionCalls, 1);
    EXPECT_EQ(client->opens, 1);
    EXPECT_FALSE(client->isOpen());

    // A URI that does not parse is refused before the daemon is asked.
    client = std::make_shared<ScriptedThriftClient>();
    EXPECT_EQ(captureRaise([&] { make(5, "/not/a/timescale"); }).code, -52005);
    EXPECT_EQ(client->calls() + client->opens, 0);
}

TEST_F(TimescaleProxySessionTest, HandshakeFailureIsCommunicationsFaultAfterOneAttempt) {
    client->openFailures = 1;
    auto r = captureRaise([&] { make(); });
    EXPECT_EQ(r.code, -52024);
    EXPECT_EQ(r.memberNames(), (std::vector<std::string>{"error_constant", "file", "line", "component", "timescaleUri",
                                                        "std_exception_what", kDebug}));
    EXPECT_EQ(r.text("timescaleUri"), kUri);
    EXPECT_EQ(r.text("std_exception_what"), "TSocket::open() connect() refused");
    EXPECT_EQ(r.detailKeys(kDebug), (std::vector<std::string>{"type_code", "type", "message"}));
    EXPECT_EQ(r.detail(kDebug, "type"), "TTransportException::NOT_OPEN");
    EXPECT_EQ(r.number(kDebug, "type_code"), 1);
    EXPECT_EQ(r.detail(kDebug, "message"),
              "Encountered error getting server API version from zttimestampd on remote target.");

    // A reply that cannot be read fails the same way and leaves nothing open.
    client = std::make_shared<ScriptedThriftClient>();
    client->callSteps.push_back([] { throw TProtocolException(TProtocolException::BAD_VERSION, "Bad version"); });
    r = captureRaise([&] { make(); });
    EXPECT_EQ(r.code, -52024);
    EXPECT_EQ(r.detail(kDebug, "type"), "TProtocolException::BAD_VERSION");
    EXPECT_FALSE(client->isOpen());
}

TEST_F(TimescaleProxySessionTest, TransportFailuresAreRetriedUpToTheAttemptLimit) {
    auto session = make();
    ztsdlib_Timestamp t{};
    client->failTransport(4);
    session->getTime(t);
    EXPECT_EQ(client->timeInfoCalls, 5);
    EXPECT_EQ(client->closes, 1 + 4);  // the handshake's and one per failure
    EXPECT_EQ(t.seconds, 13300000001u);

    // Five failures spend the attempts; the last one is reported.
    client->failTransport(5, TTransportException::TIMED_OUT, "EAGAIN (timed out)");
    ztsdlib_Timestamp untouched{1, 2, 3, true};
    const auto r = captureRaise([&] { session->getTime(untouched); });
    EXPECT_EQ(r.code, -52024);
    EXPECT_EQ(client->timeInfoCalls, 10);
    EXPECT_EQ(r.text("std_exception_what"), "EAGAIN (timed out) 5");
    EXPECT_EQ(r.detail(kDebug, "type"), "TTransportException::TIMED_OUT");
    EXPECT_EQ(r.detail(kDebug, "message"), kTimeFailed);
    EXPECT_TRUE(untouched.seconds == 1 && untouched.nanos == 2 && untouched.fractionalNanos == 3 &&
                untouched.isNegative);

    // Refused connections count as attempts too.
    client->openFailures = 4;
    session->getTime(t);
    client->close();
    client->openFailures = 5;
    EXPECT_EQ(captureRaise([&] { session->getTime(t); }).detail(kDebug, "type"), "TTransportException::NOT_OPEN");
}

TEST_F(TimescaleProxySessionTest, AttemptLimitIsSettableAndAtLeastOne) {
    auto two = make(2);
    ztsdlib_Timestamp t{};
    client->failTransport(2);
    EXPECT_EQ(captureRaise([&] { two->getTime(t); }).code, -52024);
    EXPECT_EQ(client->timeInfoCalls, 2);

    client = std::make_shared<ScriptedThriftClient>();
    auto zero = make(0);
    client->failTransport(1);
    EXPECT_EQ(captureRaise([&] { zero->getTime(t); }).code, -52024);
    EXPECT_EQ(client->timeInfoCalls, 1);
    zero->getTime(t);  // the next reading has its own attempt
}

TEST_F(TimescaleProxySessionTest, UnreadableRepliesEndTheReadingAtOnceAndCloseTheConnection) {
    auto session = make();
    ztsdlib_Timestamp t{};
    client->callSteps.push_back([] { throw TProtocolException(TProtocolException::NEGATIVE_SIZE, "Negative size"); });
    auto r = captureRaise([&] { session->getTime(t); });
    EXPECT_EQ(r.code, -52024);
    EXPECT_EQ(client->timeInfoCalls, 1);
    EXPECT_FALSE(client->isOpen());
    EXPECT_EQ(r.detail(kDebug, "type"), "TProtocolException::NEGATIVE_SIZE");
    EXPECT_EQ(r.number(kDebug, "type_code"), 2);
    EXPECT_EQ(r.text("std_exception_what"), "Negative size");

    client->callSteps.push_back([] {
        throw TApplicationException(TApplicationException::MISSING_RESULT,
                                    "getTimeAndCurrentTimescales failed: unknown result");
    });
    r = captureRaise([&] { session->getTime(t); });
    EXPECT_EQ(client->timeInfoCalls, 2);
    EXPECT_EQ(r.detail(kDebug, "type"), "TApplicationException::MISSING_RESULT");
    EXPECT_EQ(r.number(kDebug, "type_code"), 5);
    EXPECT_EQ(r.text("std_exception_what"), "getTimeAndCurrentTimescales failed: unknown result");
}

TEST_F(TimescaleProxySessionTest, CommunicationsFaultReportIsExactAndEscaped) {
    auto session = make();
    ztsdlib_Timestamp t{};
    client->failTransport(5, TTransportException::END_OF_FILE, "say \"no\"\\");
    ztsdlib::TimescaleProxySession& s = *session;
    std::string json;
    try {
        s.getTime(t);
    } catch (const zterr::Exception& e) {
        json = e.what();
    }
    const std::string withoutLine = std::regex_replace(json, std::regex("\"line\":[0-9]+,"), "\"line\":L,");
    EXPECT_EQ(withoutLine,
              "{\"error_constant\":\"ztapalerr_communicationsFault\","
              "\"file\":\"source\\\\ztsdlib\\\\timescaleProxySession\",\"line\":L,\"component\":\"ztsdlib\","
              "\"timescaleUri\":\"/10.0.0.1:8080/ztsdwebs/resources/ztsd/timescales/GM\","
              "\"std_exception_what\":\"say \\\"no\\\"\\\\ 5\","
              "\"ztsyncdomain_debug\":{\"type_code\":3,\"type\":\"TTransportException::END_OF_FILE\","
              "\"message\":\"Encountered error getting time from zttimestampd on remote target.\"}}");
}

TEST_F(TimescaleProxySessionTest, DaemonFailureIsNestedAndNotRetried) {
    auto session = make();
    ztsdlib_Timestamp t{};
    client->callSteps.push_back([] {
        tss::thrift_zterr e;
        e.code = -52010;
        e.json = " {\"error_constant\":\"ztapalerr_resourceNotInitialized\",\"code\":-52010}";
        throw e;
    });
    auto r = captureRaise([&] { session->getTime(t); });
    EXPECT_EQ(r.code, -52024);
    EXPECT_EQ(client->timeInfoCalls, 1);
    EXPECT_TRUE(client->isOpen());
    const cJSON* nested = cJSON_GetArrayItem(r.member("nested_error"), 0);
    ASSERT_NE(nested, nullptr) << r.json;
    EXPECT_EQ(ztsdtest::Raised::textOf(cJSON_GetObjectItemCaseSensitive(nested, "error_constant")),
              "ztapalerr_resourceNotInitialized");
    EXPECT_EQ(r.number(kDebug, "code"), -52010);

    // Texts that are JSON but not an object, broken JSON, and text with a NUL
    // all travel as a string.
    for (const std::string& text : {std::string("[1,2]"), std::string("{\"a\":"), std::string("{}\0x", 4)}) {
        client->callSteps.push_back([text] {
            tss::thrift_zterr e;
            e.code = 5;
            e.json = text;
            throw e;
        });
        r = captureRaise([&] { session->getTime(t); });
        nested = cJSON_GetArrayItem(r.member("nested_error"), 0);
        ASSERT_NE(nested, nullptr) << r.json;
        const cJSON* carried = cJSON_GetObjectItemCaseSensitive(nested, "json");
        ASSERT_TRUE(cJSON_IsString(carried)) << r.json;
        EXPECT_EQ(std::string(carried->valuestring), text.substr(0, text.find('\0')));
        EXPECT_EQ(cJSON_GetObjectItemCaseSensitive(nested, "code")->valuedouble, 5);
    }
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
        EXPECT_EQ(r.code, -52005);
        EXPECT_EQ(r.detail(kDebug, "message"), "Nano seconds field greater than 1e+9");
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

TEST(TimescaleProxyThriftClientFailures, EveryThriftKindIsNamed) {
    struct Case {
        std::function<void()> raise;
        std::int32_t code;
        std::string type;
        bool transport;
    };
    const std::vector<Case> cases{
        {[] { throw TTransportException(TTransportException::TIMED_OUT, "t"); }, 2, "TTransportException::TIMED_OUT", true},
        {[] { throw TTransportException(TTransportException::CLIENT_DISCONNECT, "t"); }, 8,
         "TTransportException::CLIENT_DISCONNECT", true},
        {[] { throw TProtocolException(TProtocolException::DEPTH_LIMIT, "t"); }, 6, "TProtocolException::DEPTH_LIMIT",
         false},
        {[] { throw TApplicationException(TApplicationException::WRONG_METHOD_NAME, "t"); }, 3,
         "TApplicationException::WRONG_METHOD_NAME", false},
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
