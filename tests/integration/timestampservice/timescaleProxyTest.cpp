// The timescale proxy against a real Thrift timestamp daemon on 127.0.0.1:
// both API versions, removed timescales, refused, dropped and stalled
// connections, the daemon's own failures, and connection reuse. The codes a
// caller gets under each fault are the fault matrix's (faultMatrixTest.cpp);
// here the reports' members, attempts, connections and time-outs.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "integration/timestampservice/daemonTestSupport.h"
#include "unit/support/raisedError.h"
#include "unit/support/statusFixture.h"
#include "ztsdlib/ztsdlib.h"

namespace {

using daemontest::callerUri;
using daemontest::DaemonFixture;
using daemontest::elapsed_ms;
using daemontest::kGmId;
using ztsdsim::TimestampDaemonSimulator;
using ztsdtest::captureRaise;
using ztsdtest::OwnedStatus;

using ztsdtest::kDebug;
const std::string kLocalUri = TimestampDaemonSimulator::localTimescaleUri(kGmId);

using TimescaleProxyDaemonTest = DaemonFixture;

TEST_F(TimescaleProxyDaemonTest, ReadsTheTargetClockOverApiVersionsOneAndTwo) {
    for (const std::int32_t version : {1, 2, 3}) {
        SCOPED_TRACE(version);
        daemon.setApiVersion(version);
        auto proxy = makeProxy();
        for (int i = 0; i < 3; ++i) expectTrueReading(*proxy);
        EXPECT_NE(proxy->toJson().find("\"serverApiVersion\":" + std::to_string(version)), std::string::npos);
    }
    // Version 2 and up read the list of timescales, not getTime's URI: a
    // wrong URI there does not matter to them (it does to version 1, below).
    daemon.setReportedUri(std::string("/localhost/ztsds/timescales/other"));
    daemon.setApiVersion(2);
    expectTrueReading(*makeProxy());
}

TEST_F(TimescaleProxyDaemonTest, KeepsOneConnectionAcrossReadings) {
    auto proxy = makeProxy();
    // The handshake's connection is closed once the version is known.
    EXPECT_EQ(daemon.connectionCount(), 1u);
    EXPECT_EQ(daemon.callCount(), 1u);
    for (int i = 0; i < 20; ++i) expectTrueReading(*proxy);
    EXPECT_EQ(daemon.connectionCount(), 2u);
    EXPECT_EQ(daemon.callCount(), 21u);  // one round trip per reading
    // The daemon's side of a closed connection ends a moment after the client's.
    EXPECT_TRUE(ztsdtest::eventually([&] { return daemon.openConnectionCount() == 1; }));  // the handshake's is gone
    proxy.reset();
    EXPECT_TRUE(ztsdtest::eventually([&] { return daemon.openConnectionCount() == 0; }));  // closed when deleted
}

TEST_F(TimescaleProxyDaemonTest, VersionOneTimestampOnAnotherTimescaleIsResourceRemoved) {
    daemon.setApiVersion(1);
    auto proxy = makeProxy();
    daemon.setReportedUri(std::string("/localhost/ztsds/timescales/11-22-33-44-55-66-77-88"));
    ztsdlib_Timestamp t{7, 8, 9, true};
    const auto r = captureRaise([&] { proxy->getTime(t, nullptr); });
    ztsdtest::expectWholeReport(
        r, -52020,
        R"({"error_constant":"ztapalerr_resourceRemoved","component":"ztsdlib","expectedLocalUri":")" + kLocalUri +
            R"(","thisTimescaleUri":")" + callerUri() + R"(","ztsyncdomain_debug":{"message":)"
            R"("Timestamp received from remote target is on a different timescale than expected."}})");
    EXPECT_TRUE(t.seconds == 7 && t.nanos == 8 && t.fractionalNanos == 9 && t.isNegative);  // untouched

    // A complete answer: the connection stays in use.
    const auto connections = daemon.connectionCount();
    daemon.setReportedUri(std::nullopt);
    expectTrueReading(*proxy);
    EXPECT_EQ(daemon.connectionCount(), connections);
}

TEST_F(TimescaleProxyDaemonTest, VersionTwoWithoutTheTimescaleListsWhatTheTargetServes) {
    daemon.addTimescale("A1");
    auto proxy = makeProxy();
    daemon.addTimescale("B2");
    daemon.removeTimescale(kGmId);
    ztsdlib_Timestamp t{};
    auto r = captureRaise([&] { proxy->getTime(t, nullptr); });
    // Version 1's report (above), then the list.
    ztsdtest::expectWholeReport(r, -52020,
                                R"({"error_constant":"ztapalerr_resourceRemoved","component":"ztsdlib",)"
                                R"("expectedLocalUri":")" + kLocalUri + R"(","thisTimescaleUri":")" + callerUri() +
                                R"(","ztsyncdomain_debug":{"message":"Timestamp received from remote target is on a )"
                                R"(different timescale than expected."},"currentTimescaleUris":)"
                                R"("\"/localhost/ztsds/timescales/A1\",\"/localhost/ztsds/timescales/B2\""})");

    daemon.removeTimescale("A1");
    daemon.removeTimescale("B2");
    r = captureRaise([&] { proxy->getTime(t, nullptr); });
    EXPECT_EQ(r.code, -52020);
    EXPECT_EQ(r.text("currentTimescaleUris"), "");

    // Served again: readable again, on the same connection.
    daemon.addTimescale(kGmId);
    expectTrueReading(*proxy);
    EXPECT_EQ(daemon.connectionCount(), 2u);
}

// Five refusals fail a reading (the fault matrix's T02).
TEST_F(TimescaleProxyDaemonTest, RefusedFourTimesTheFifthAttemptReadsTheTime) {
    auto proxy = makeProxy();
    daemon.refuseConnections(4);
    expectTrueReading(*proxy);
    EXPECT_EQ(daemon.refusedCount(), 4u);
    EXPECT_EQ(daemon.connectionCount(), 1u + 5u);
    // The fifth connection stays for the next reading.
    expectTrueReading(*proxy);
    EXPECT_EQ(daemon.connectionCount(), 6u);

    // A limit of 0 attempts still makes one, and only one.
    auto once = makeProxy(2000, 0);
    daemon.refuseConnections(1);
    ztsdlib_Timestamp t{};
    EXPECT_EQ(captureRaise([&] { once->getTime(t, nullptr); }).code, -52024);
    expectTrueReading(*once);
}

TEST_F(TimescaleProxyDaemonTest, RecoversFromAConnectionDroppedMidCall) {
    auto proxy = makeProxy();
    expectTrueReading(*proxy);
    const auto connections = daemon.connectionCount();
    const auto calls = daemon.callCount();
    daemon.dropCalls(1);
    expectTrueReading(*proxy);
    EXPECT_EQ(daemon.connectionCount(), connections + 1);  // one reconnection
    EXPECT_EQ(daemon.callCount(), calls + 2);              // the dropped call and its retry
}

TEST_F(TimescaleProxyDaemonTest, StalledCallTimesOutAndTheNextAttemptAnswers) {
    auto proxy = makeProxy(150, 2);
    expectTrueReading(*proxy);
    daemon.stallCalls(1);
    const long long oneStall = elapsed_ms([&] { expectTrueReading(*proxy); });
    EXPECT_GE(oneStall, 140);
    EXPECT_LT(oneStall, 2000);

    daemon.stallCalls(2);  // both attempts of this proxy
    ztsdtest::Raised r;
    ztsdlib_Timestamp t{};
    const long long twoStalls = elapsed_ms([&] { r = captureRaise([&] { proxy->getTime(t, nullptr); }); });
    EXPECT_EQ(r.code, -52024);
    EXPECT_EQ(r.detail(kDebug, "type"), "TTransportException::TIMED_OUT") << r.json;
    EXPECT_EQ(r.number(kDebug, "type_code"), 2);
    EXPECT_GE(twoStalls, 290);
    EXPECT_LT(twoStalls, 3000);
    daemon.releaseStalls();
    expectTrueReading(*proxy);
}

TEST_F(TimescaleProxyDaemonTest, DaemonFailureIsReportedWithItsStatusNested) {
    auto proxy = makeProxy();
    expectTrueReading(*proxy);
    const auto connections = daemon.connectionCount();
    daemon.failCalls(1, -52006, "{\"error_constant\":\"ztapalerr_resourceNotFound\",\"where\":\"daemon\"}");
    ztsdlib_Timestamp t{};
    const auto r = captureRaise([&] { proxy->getTime(t, nullptr); });
    // The report of a failed time read, with the daemon's code as its kind and its status nested.
    ztsdtest::expectWholeReport(
        r, -52024,
        R"({"error_constant":"ztapalerr_communicationsFault","component":"ztsdlib","timescaleUri":")" + callerUri() +
            R"(","ztsyncdomain_debug":{"type_code":-52006,"type":"thrift_zterr","message":"Encountered error getting )"
            R"(time from zttimestampd on remote target."},"nested_error":[{"error_constant":)"
            R"("ztapalerr_resourceNotFound","where":"daemon","code":-52006}]})",
        {"std_exception_what"});
    EXPECT_EQ(daemon.callCount(), 3u);  // not retried

    expectTrueReading(*proxy);
    EXPECT_EQ(daemon.connectionCount(), connections);  // the connection stayed in step

    // A status that is not a JSON object (an array, broken JSON, text with a
    // NUL) travels as a string, up to the NUL.
    for (const std::string& text : {std::string("[1,2]"), std::string("{\"a\":"), std::string("{}\0x", 4)}) {
        daemon.failCalls(1, 5, text);
        const auto s = captureRaise([&] { proxy->getTime(t, nullptr); });
        const cJSON* nested = cJSON_GetArrayItem(s.member("nested_error"), 0);
        ASSERT_NE(nested, nullptr) << s.json;
        EXPECT_EQ(ztsdtest::Raised::textOf(cJSON_GetObjectItemCaseSensitive(nested, "json")),
                  text.substr(0, text.find('\0')));
        EXPECT_EQ(cJSON_GetObjectItemCaseSensitive(nested, "code")->valuedouble, 5);
    }
}

TEST_F(TimescaleProxyDaemonTest, CreationFailsWhenTheVersionCannotBeAsked) {
    daemon.refuseConnections(1);
    auto r = captureRaise([&] { makeProxy(); });
    ztsdtest::expectWholeReport(
        r, -52024,
        R"({"error_constant":"ztapalerr_communicationsFault","component":"ztsdlib","timescaleUri":")" + callerUri() +
            R"(","ztsyncdomain_debug":{"message":"Encountered error getting server API version from zttimestampd )"
            R"(on remote target."}})",
        {"std_exception_what", "type_code", "type"});
    EXPECT_EQ(daemon.connectionCount(), 1u);  // one attempt only

    daemon.stallCalls(1);
    r = captureRaise([&] { makeProxy(100); });
    EXPECT_EQ(r.code, -52024);
    EXPECT_EQ(r.detail(kDebug, "type"), "TTransportException::TIMED_OUT");
    daemon.releaseStalls();

    // A URI that is not a timescale URI of the web service is refused before
    // the daemon is contacted.
    const auto connections = daemon.connectionCount();
    r = captureRaise([&] { makeProxy(2000, 5, "/localhost/ztsds/timescales/system"); });
    EXPECT_EQ(r.code, -52005);
    EXPECT_EQ(daemon.connectionCount(), connections);
}

// Once nothing listens, connections are refused at once: a reading spends
// its attempts without waiting for time-outs, and creation fails to connect.
TEST_F(TimescaleProxyDaemonTest, AStoppedDaemonFailsReadingsQuicklyAndCreationAtConnect) {
    auto proxy = makeProxy(500, 3);
    expectTrueReading(*proxy);
    const std::uint16_t port = daemon.port();
    daemon.stop();
    ztsdlib_Timestamp t{};
    ztsdtest::Raised r;
    const long long took = elapsed_ms([&] { r = captureRaise([&] { proxy->getTime(t, nullptr); }); });
    EXPECT_EQ(r.code, -52024);
    EXPECT_LT(took, 1500);

    ztsdlib::TimescaleProxySettings settings;
    settings.socketTimeout_ms = 1000;
    r = captureRaise([&] { ztsdlib::TimescaleProxy created(callerUri(), "127.0.0.1", port, settings); });
    EXPECT_EQ(r.code, -52024);
    EXPECT_NE(r.text("std_exception_what").find("onnect"), std::string::npos) << r.json;
    EXPECT_EQ(r.detail(kDebug, "type"), "TTransportException::NOT_OPEN") << r.json;
}

// ---------------------------------------------------------------------------
// Through the exports: ztsdlib_TimescaleProxy_create and the timescale calls.

using TimescaleProxyExportTest = DaemonFixture;

TEST_F(TimescaleProxyExportTest, CreateReadDescribeDelete) {
    OwnedStatus status;
    const std::string uri = callerUri();
    ztsdlib_Timescale* ts = ztsdlib_TimescaleProxy_create(uri.c_str(), "127.0.0.1", daemon.port(), &status);
    ASSERT_NE(ts, nullptr) << status.text();
    EXPECT_EQ(status.s.code, 0);

    const ztsdlib_Timestamp before = daemon.timeAt(daemontest::hostNow());
    ztsdlib_Timestamp now{};
    ztsdlib_Timescale_getTime(ts, &now, &status);
    EXPECT_EQ(status.s.code, 0) << status.text();
    EXPECT_TRUE(daemontest::notAfter(before, now));
    EXPECT_TRUE(daemontest::notAfter(now, daemon.now()));

    const char* got = ztsdlib_Timescale_getUri(ts, &status);
    ASSERT_NE(got, nullptr);
    EXPECT_EQ(std::string(got), uri);

    char* json = ztsdlib_Timescale_toJson(ts, &status);
    ASSERT_NE(json, nullptr);
    EXPECT_EQ(std::string(json), "{\"uri\":\"" + uri + "\",\"host\":\"127.0.0.1\",\"port\":" +
                                     std::to_string(daemon.port()) +
                                     ",\"localUriOfTarget\":\"/localhost/ztsds/timescales/" + daemontest::kGmId +
                                     "\",\"serverApiVersion\":2}");
    ztsdlib_Timescale_delete(ts);
    std::free(json);
    EXPECT_EQ(status.s.json, nullptr);
}

TEST_F(TimescaleProxyExportTest, FailuresReachTheStatus) {
    OwnedStatus missing;
    EXPECT_EQ(ztsdlib_TimescaleProxy_create(callerUri().c_str(), nullptr, daemon.port(), &missing), nullptr);
    EXPECT_EQ(missing.s.code, -52005);
    EXPECT_NE(missing.text().find("\"host\":\"nullptr\""), std::string::npos) << missing.text();
    EXPECT_EQ(daemon.connectionCount(), 0u);

    // A port that cannot be a TCP port is the caller's mistake, refused before any socket.
    OwnedStatus badPort;
    EXPECT_EQ(ztsdlib_TimescaleProxy_create(callerUri().c_str(), "127.0.0.1", 70000, &badPort), nullptr);
    EXPECT_EQ(badPort.s.code, -52005);
    EXPECT_NE(badPort.text().find("'port' has a port out of the range 1 to 65535."), std::string::npos) << badPort.text();
}

using TimescaleProxyDeathTest = DaemonFixture;

#ifdef _WIN32
// On Windows the report goes to the debugger output, which a death test
// cannot read; the test Assertion.ReportReachesTheDebuggerOutput reads it
// there (through Wine's debugstr channel).
constexpr const char* kAssertionReport = "";
#else
constexpr const char* kAssertionReport =
    "\\[ztsdlib\\|source\\\\ztsdlib\\\\timescaleProxySession\\|[0-9]+\\] !!ASSERT!!\n"
    "ASSERT\\(serverApiVersion > 0\\)";
#endif

// A version below 1 is a broken daemon: the assertion report, in full.
TEST_F(TimescaleProxyDeathTest, DaemonVersionBelowOneStopsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (const std::int32_t version : {0, -1}) {
        daemon.setApiVersion(version);
        EXPECT_DEATH(makeProxy(), kAssertionReport);
    }
    daemon.setApiVersion(1);
    expectTrueReading(*makeProxy());  // the parent is unaffected
}

}  // namespace
