// Timescale proxies against daemons whose replies are written byte by byte
// (ztsd-sim's RawTimestampDaemon), not by the generated code: a faithful one
// pins the service's method names, field ids and types; the others must each
// end a reading at once with -52024, without allocating what they announce,
// and a daemon that drips its reply cannot hold a reading past its deadline.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>

#include "timestampservice/timescaleProxySession.h"
#include "unit/support/processProbe.h"
#include "timestampservice/timescaleProxyThriftClient.h"
#include "unit/support/raisedError.h"
#include "unit/support/statusFixture.h"
#include "unit/support/timing.h"
#include "ztsd-sim/rawTimestampDaemon.h"
#include "ztsdlib/ztsdlib.h"

using Personality = ztsdsim::RawTimestampDaemon::Personality;

namespace {

const char* kUri = "/127.0.0.1/ztsdwebs/resources/ztsd/timescales/00-80-2F-AA-BB-CC";

ztsdsim::RawTimestampDaemon::Options daemonOptions(Personality personality, std::int32_t apiVersion = 1) {
    ztsdsim::RawTimestampDaemon::Options options;
    options.personality = personality;
    options.apiVersion = apiVersion;
    return options;
}

}  // namespace

// The replies written by hand from the service's definition are read as the
// time they carry, through both methods.
TEST(HandWrittenDaemon, AFaithfulDaemonsRepliesGiveTheTimeTheyCarry) {
    for (const std::int32_t apiVersion : {1, 2}) {
        ztsdsim::RawTimestampDaemon daemon(daemonOptions(Personality::faithful, apiVersion));
        ztsdtest::OwnedStatus status;
        ztsdlib_Timescale* proxy = ztsdlib_TimescaleProxy_create(kUri, "127.0.0.1", daemon.port(), &status);
        ztsdlib_Timestamp t{};
        ztsdlib_Timescale_getTime(proxy, &t, &status);
        EXPECT_EQ(status.s.code, 0) << apiVersion << status.text();
        EXPECT_EQ(t.seconds, 13000000000u);
        EXPECT_EQ(t.nanos, 123456789u);
        EXPECT_EQ(daemon.callCount(), 2u);  // the handshake and one reading
        EXPECT_EQ(daemon.malformedRequests(), 0u);  // the requests were as defined, byte for byte
        ztsdlib_Timescale_delete(proxy);

        // The declared exception, written by hand: a failed time read with the
        // daemon's code and status.
        auto options = daemonOptions(Personality::daemonError, apiVersion);
        ztsdsim::RawTimestampDaemon failing(options);
        ztsdlib_Timescale* failingProxy = ztsdlib_TimescaleProxy_create(kUri, "127.0.0.1", failing.port(), &status);
        ztsdtest::OwnedStatus failed;
        ztsdlib_Timescale_getTime(failingProxy, &t, &failed);
        EXPECT_EQ(failed.s.code, -52024);
        EXPECT_NE(failed.text().find("\"type_code\":-52006,\"type\":\"thrift_zterr\""), std::string::npos)
            << failed.text();
        EXPECT_NE(failed.text().find("\"where\":\"daemon\""), std::string::npos) << failed.text();
        ztsdlib_Timescale_delete(failingProxy);
    }
}

// A reply announcing a huge string or list ends the reading at once (not at
// the 5 s receive time-out, not after retries) with -52024 naming what was
// wrong, and what it announces never sizes an allocation: the process's peak
// memory grows by less than 16 MiB over them. The replies that are wrong in
// their header (method name, message type, sequence id, an HTTP server) are
// TimestampDaemonSimulator.PersonalitiesShowAsTheProxysNamedFailures' cases.
TEST(HostileDaemon, HugeAnnouncedSizesFailAtOnceWithoutBeingAllocated) {
    struct Case {
        Personality personality;
        std::int32_t apiVersion;
        const char* type;
    };
    const Case cases[] = {
        {Personality::hugeString, 1, "TProtocolException::SIZE_LIMIT"},
        {Personality::hugeList, 2, "TProtocolException::SIZE_LIMIT"},
    };
    const long before_KiB = ztsdtest::peakResidentKiB();
    for (const Case& c : cases) {
        ztsdsim::RawTimestampDaemon daemon(daemonOptions(c.personality, c.apiVersion));
        ztsdtest::OwnedStatus created;
        ztsdlib_Timescale* proxy = ztsdlib_TimescaleProxy_create(kUri, "127.0.0.1", daemon.port(), &created);
        ASSERT_EQ(created.s.code, 0) << created.text();
        ztsdtest::OwnedStatus status;
        ztsdlib_Timestamp t{};
        const auto began = std::chrono::steady_clock::now();
        ztsdlib_Timescale_getTime(proxy, &t, &status);
        EXPECT_LT(ztsdtest::msSince(began), 1000) << c.type;
        EXPECT_EQ(status.s.code, -52024) << c.type;
        const auto report = ztsdtest::Raised::fromReport(status.s.code, status.s.json);
        EXPECT_EQ(report.detail(ztsdtest::kDebug, "type"), c.type) << report.json;
        EXPECT_EQ(daemon.callCount(), 2u) << c.type;  // not retried
        ztsdlib_Timescale_delete(proxy);
    }
    const long growth_KiB = ztsdtest::peakResidentKiB() - before_KiB;
    std::printf("peak memory growth over the hostile replies: %ld KiB\n", growth_KiB);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_LT(growth_KiB, 16 * 1024) << "KiB";
#endif
}

// A daemon that drips a faithful reply a byte every 50 ms never lets one
// socket wait time out, yet each attempt ends at its deadline (the receive
// time-out, 300 ms here), and the reading with its five attempts fails
// within about five deadlines.
TEST(HostileDaemon, ADrippingReplyEndsEachAttemptAtItsDeadline) {
    ztsdsim::RawTimestampDaemon daemon(daemonOptions(Personality::drip));
    constexpr std::uint32_t kDeadline_ms = 300;
    auto client = std::make_shared<ztsdlib::TimescaleProxyThriftClient>("127.0.0.1", daemon.port(), kDeadline_ms);
    // The handshake reply is 26 bytes: about 1.3 s of dripping, so it too
    // ends at the deadline.
    const auto handshake = std::chrono::steady_clock::now();
    const auto refused = ztsdtest::captureRaise([&] { ztsdlib::TimescaleProxySession(client, kUri, 5); });
    EXPECT_EQ(refused.code, -52024);
    EXPECT_EQ(refused.detail("ztsyncdomain_debug", "type"), "TTransportException::TIMED_OUT") << refused.json;
    EXPECT_LT(ztsdtest::msSince(handshake), 1000);

    const auto reading = std::chrono::steady_clock::now();
    std::uint32_t attempts = 0;
    for (; attempts < 5; ++attempts) {
        try {
            client->open();
            ztsdlib::timestampservice::TimestampInfo info;
            client->getTime(info, 0);
        } catch (const apache::thrift::transport::TTransportException& e) {
            EXPECT_EQ(e.getType(), apache::thrift::transport::TTransportException::TIMED_OUT);
            client->close();
        }
    }
    const long long took = ztsdtest::msSince(reading);
    EXPECT_GE(took, 5 * kDeadline_ms - 50);
    EXPECT_LT(took, 5 * kDeadline_ms + 1000);
}

// libthrift's complaint about a refused connection never reaches the host
// application's standard error.
TEST(HostileDaemon, ThriftsOwnMessagesStayOffTheApplicationsStandardError) {
    ztsdtest::StderrCapture capture;
    ASSERT_TRUE(capture.capturing());
    ztsdtest::OwnedStatus status;
    ztsdlib_Timescale* proxy = ztsdlib_TimescaleProxy_create(kUri, "127.0.0.1", 1, &status);  // nothing listens on 1
    const long written = capture.bytesWritten();
    EXPECT_EQ(proxy, nullptr);
    EXPECT_EQ(status.s.code, -52024);
    EXPECT_EQ(written, 0) << "bytes written to stderr";
}

// A time whose nanos is out of range is the daemon's malformed reply, through
// either method: -52024 naming the field, never the caller's -52005, no retry.
TEST(HostileDaemon, ATimeWithNanosOutOfRangeIsACommunicationsFaultNamingTheField) {
    for (const std::int32_t apiVersion : {1, 2}) {
        for (const std::int32_t nanos : {1000000000, 2147483647, -1}) {
            auto options = daemonOptions(Personality::faithful, apiVersion);
            options.nanos = nanos;
            ztsdsim::RawTimestampDaemon daemon(options);
            ztsdtest::OwnedStatus created;
            ztsdlib_Timescale* proxy = ztsdlib_TimescaleProxy_create(kUri, "127.0.0.1", daemon.port(), &created);
            ASSERT_EQ(created.s.code, 0) << created.text();
            ztsdtest::OwnedStatus status;
            ztsdlib_Timestamp t{1, 2, 3, false};
            ztsdlib_Timescale_getTime(proxy, &t, &status);
            EXPECT_EQ(status.s.code, -52024) << apiVersion << " " << nanos << status.text();
            const auto report = ztsdtest::Raised::fromReport(status.s.code, status.s.json);
            EXPECT_EQ(report.detail(ztsdtest::kDebug, "type"), "TProtocolException::INVALID_DATA") << report.json;
            const std::string what = report.text("std_exception_what");
            EXPECT_NE(what.find("field 'nanos' is " + std::to_string(nanos)), std::string::npos) << report.json;
            EXPECT_TRUE(t.seconds == 1 && t.nanos == 2 && t.fractionalNanos == 3);  // untouched
            EXPECT_EQ(daemon.callCount(), 2u);  // the handshake and one reading
            ztsdlib_Timescale_delete(proxy);
        }
    }
}
