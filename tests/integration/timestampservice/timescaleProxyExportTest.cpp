// ztsdlib_TimescaleProxy_create and the timescale exports on a remote
// timescale, against the simulated daemon.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "integration/timestampservice/daemonTestSupport.h"
#include "unit/support/statusFixture.h"
#include "ztsdlib/ztsdlib.h"

namespace {

using daemontest::callerUri;
using ztsdtest::OwnedStatus;
using TimescaleProxyExportTest = daemontest::DaemonFixture;

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
    EXPECT_TRUE(ztsdtest::strictlyValid(json)) << json;
    EXPECT_EQ(std::string(json), "{\"uri\":\"" + uri + "\",\"host\":\"127.0.0.1\",\"port\":" +
                                     std::to_string(daemon.port()) +
                                     ",\"localUriOfTarget\":\"/localhost/ztsds/timescales/" + daemontest::kGmId +
                                     "\",\"serverApiVersion\":2}");
    ztsdlib_Timescale_delete(ts);
    EXPECT_EQ(json[0], '{');  // the caller's copy outlives the handle
    std::free(json);
    EXPECT_EQ(status.s.json, nullptr);
}

TEST_F(TimescaleProxyExportTest, FailuresReachTheStatus) {
    OwnedStatus missing;
    EXPECT_EQ(ztsdlib_TimescaleProxy_create(callerUri().c_str(), nullptr, daemon.port(), &missing), nullptr);
    EXPECT_EQ(missing.s.code, -52005);
    EXPECT_NE(missing.text().find("\"host\":\"nullptr\""), std::string::npos) << missing.text();
    EXPECT_EQ(daemon.connectionCount(), 0u);


    OwnedStatus removed;
    ztsdlib_Timescale* ts = ztsdlib_TimescaleProxy_create(callerUri().c_str(), "127.0.0.1", daemon.port(), &removed);
    ASSERT_NE(ts, nullptr);
    daemon.removeTimescale(daemontest::kGmId);
    ztsdlib_Timestamp t{};
    ztsdlib_Timescale_getTime(ts, &t, &removed);
    EXPECT_EQ(removed.s.code, -52020);
    EXPECT_TRUE(ztsdtest::strictlyValid(removed.s.json));
    EXPECT_NE(removed.text().find("\"currentTimescaleUris\":\"\""), std::string::npos) << removed.text();
    ztsdlib_Timescale_delete(ts);

    // A port that cannot be a TCP port fails at the socket.
    OwnedStatus badPort;
    EXPECT_EQ(ztsdlib_TimescaleProxy_create(callerUri().c_str(), "127.0.0.1", 70000, &badPort), nullptr);
    EXPECT_EQ(badPort.s.code, -52024);
    EXPECT_NE(badPort.text().find("TTransportException"), std::string::npos) << badPort.text();
}

}  // namespace
