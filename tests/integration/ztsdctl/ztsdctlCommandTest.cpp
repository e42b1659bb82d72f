// ztsdctl's one-shot commands (list, device, time, correlate) and its command
// line, run as a child process against simulated chassis in this process.
#include <gtest/gtest.h>

#include <cstdio>
#include <ctime>
#include <regex>
#include <string>

#include "integration/ztsdctl/ztsdctlTestSupport.h"
#include "ztsd-sim/simulatedChassis.h"
#include "ztsdlib/ztsdlib.h"

using ctltest::at;
using ctltest::num;
using ctltest::parse;
using ctltest::run;
using ctltest::str;

namespace {

constexpr const char* kGmId1 = "00-80-2F-00-00-00-00-01";
constexpr const char* kGmId2 = "00-80-2F-00-00-00-00-02";

__int128 nanosOf(const cJSON* timestamp) {
    const __int128 magnitude =
        static_cast<__int128>(num(at(timestamp, "seconds"))) * 1000000000 + static_cast<__int128>(num(at(timestamp, "nanos")));
    return cJSON_IsTrue(at(timestamp, "isNegative")) ? -magnitude : magnitude;
}

double absolute(__int128 value) { return static_cast<double>(value < 0 ? -value : value); }

// A port nobody listens on: a simulator's, after it stopped.
std::uint16_t closedPort() {
    ztsdsim::ChassisSimulator gone;
    gone.start();
    const std::uint16_t port = gone.port();
    gone.stop();
    return port;
}

class ZtsdctlCommand : public ::testing::Test {
protected:
    void SetUp() override {
        ZTSDCTL_REQUIRED();
        chassis.start();
        deviceUri = chassis.webService().addDevice("chassis0");
    }
    std::string remoteHost() { return chassis.webService().remoteHost(); }
    std::string address() { return remoteHost() + "@" + std::to_string(chassis.daemonPort()); }
    std::string daemonPort() { return std::to_string(chassis.daemonPort()); }

    ztsdsim::SimulatedChassis chassis;
    std::string deviceUri;
};

// The error a failed command printed on stderr with --json.
void expectJsonError(const ctltest::Run& result, std::int32_t code, const std::string& constant) {
    EXPECT_EQ(result.exitStatus, 2) << result.err;
    EXPECT_EQ(result.out, "");
    // The error is the last line: libthrift may have logged a failed
    // connection attempt before it.
    const std::vector<std::string> errLines = ctltest::lines(result.err);
    ASSERT_FALSE(errLines.empty());
    const ctltest::Json error = parse(errLines.back());
    ASSERT_TRUE(error) << result.err;
    EXPECT_EQ(num(at(at(error.get(), "error"), "code")), code) << result.err;
    EXPECT_EQ(str(at(at(error.get(), "error"), "constant")), constant);
    const cJSON* report = at(at(error.get(), "error"), "report");
    EXPECT_TRUE(cJSON_IsObject(report)) << result.err;
    EXPECT_EQ(str(at(report, "error_constant")), constant);
}

}  // namespace

TEST(ZtsdctlUsage, WrongCommandLinesExit64AndHelpExits0) {
    ZTSDCTL_REQUIRED();
    const std::vector<std::vector<std::string>> wrong = {
        {},
        {"frobnicate"},
        {"list"},
        {"list", "127.0.0.1:80@notaport"},
        {"list", "127.0.0.1:80@70000"},
        {"time", "/h/ztsdwebs/resources/ztsd/timescales/x", "127.0.0.1", "0"},
        {"correlate", "/h/ztsdwebs/resources/ztsd/timescales/x", "127.0.0.1", "9090", "--at", "yesterday"},
        {"correlate", "/h/ztsdwebs/resources/ztsd/timescales/x", "127.0.0.1", "9090", "--at", "2025-02-30T00:00:00Z"},
        {"correlate", "/h/ztsdwebs/resources/ztsd/timescales/x", "127.0.0.1", "9090", "--samples", "1"},
        {"domain", "127.0.0.1:1", "--min-sync-ms", "1", "--timescale", "/t"},
        {"domain", "127.0.0.1:1", "--max-offset-ns", "1", "--min-sync-ms", "1", "--timescale", "/t", "--timeout-s", "0"},
    };
    for (const auto& arguments : wrong) {
        const ctltest::Run result = run(arguments);
        std::string line;
        for (const auto& a : arguments) line += a + " ";
        EXPECT_EQ(result.exitStatus, 64) << line << "\n" << result.err;
        EXPECT_FALSE(result.err.empty()) << line;
    }
    const ctltest::Run help = run({"--help"});
    EXPECT_EQ(help.exitStatus, 0);
    for (const char* command : {"list", "device", "time", "correlate", "domain", "demo"})
        EXPECT_NE(help.out.find(command), std::string::npos) << command;
    EXPECT_EQ(run({"domain", "--help"}).exitStatus, 0);
}

TEST(ZtsdctlBinary, TakesEveryLibraryCallFromTheSharedLibrary) {
    ZTSDCTL_REQUIRED();
    // The tool links the simulator's archive for its demo; none of the
    // library's exports may come along with it.
    auto output = [](const std::string& command) {
        std::string text;
        FILE* pipe = ::popen(command.c_str(), "r");
        if (pipe == nullptr) return text;
        char buffer[4096];
        std::size_t got;
        while ((got = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) text.append(buffer, got);
        ::pclose(pipe);
        return text;
    };
    const std::string defined = output("nm --defined-only '" + ctltest::programPath() + "' 2>/dev/null");
    ASSERT_NE(defined.find(" main\n"), std::string::npos) << "nm gave no symbols";
    EXPECT_FALSE(std::regex_search(defined, std::regex(" [TtWw] ztsdlib_"))) << "ztsdctl defines a ztsdlib_ export";
    const std::string undefined = output("nm --undefined-only '" + ctltest::programPath() + "' 2>/dev/null");
    EXPECT_NE(undefined.find("ztsdlib_loadProxyResources"), std::string::npos);
    EXPECT_NE(output("readelf -d '" + ctltest::programPath() + "'").find("libztsdlib.so"), std::string::npos);
}

TEST_F(ZtsdctlCommand, ListShowsTheDeviceAndEveryTimescaleOfAChassis) {
    chassis.webService().addCoherencyLoss("chassis0", 2);
    const std::string ts1 = chassis.addTimescale(kGmId1);
    const std::string ts2 = chassis.addTimescale(kGmId2);

    const ctltest::Run human = run({"list", address()});
    EXPECT_EQ(human.exitStatus, 0) << human.err;
    for (const std::string& expected : {deviceUri, ts1, ts2, std::string("coherent, 2 coherency losses")})
        EXPECT_NE(human.out.find(expected), std::string::npos) << expected << "\n" << human.out;

    // --daemon-port stands for the @port of the address.
    const ctltest::Run json = run({"list", remoteHost(), "--daemon-port", daemonPort(), "--json"});
    ASSERT_EQ(json.exitStatus, 0) << json.err;
    const ctltest::Json document = parse(json.out);
    ASSERT_TRUE(document) << json.out;
    EXPECT_EQ(str(at(document.get(), "remoteHost")), remoteHost());
    const cJSON* device = at(document.get(), "device");
    EXPECT_EQ(str(at(device, "uri")), deviceUri);
    EXPECT_TRUE(cJSON_IsTrue(at(device, "isCoherent")));
    EXPECT_EQ(num(at(device, "coherencyLossCount")), 2);
    EXPECT_EQ(str(at(at(device, "json"), "uri")), deviceUri);  // the library's device document
    const cJSON* timescales = at(document.get(), "timescales");
    ASSERT_EQ(cJSON_GetArraySize(timescales), 2);
    EXPECT_EQ(str(at(cJSON_GetArrayItem(timescales, 0), "uri")), ts1);
    EXPECT_EQ(str(at(cJSON_GetArrayItem(timescales, 1), "uri")), ts2);
    EXPECT_EQ(num(at(at(cJSON_GetArrayItem(timescales, 1), "json"), "port")), chassis.daemonPort());
}

TEST_F(ZtsdctlCommand, ListFailuresCarryTheLibrarysCodeAndReport) {
    chassis.addTimescale(kGmId1);
    // Nobody serves the chassis.
    const ctltest::Run unreachable = run({"list", "127.0.0.1:" + std::to_string(closedPort())});
    EXPECT_EQ(unreachable.exitStatus, 2);
    EXPECT_EQ(unreachable.out, "");
    EXPECT_TRUE(std::regex_search(unreachable.err, std::regex("library error -[0-9]+")));
    // The report follows on the next line, as JSON.
    const std::vector<std::string> errLines = ctltest::lines(unreachable.err);
    std::size_t heading = 0;
    while (heading < errLines.size() && errLines[heading].find("library error") == std::string::npos) ++heading;
    ASSERT_LT(heading + 1, errLines.size()) << unreachable.err;
    EXPECT_TRUE(parse(errLines[heading + 1])) << "the report is JSON: " << errLines[heading + 1];

    // The chassis answers but its daemon is not where the address says.
    expectJsonError(run({"list", remoteHost() + "@" + std::to_string(closedPort()), "--json"}), -52024,
                    "ztapalerr_communicationsFault");
}

TEST_F(ZtsdctlCommand, DeviceReportsCoherencyLossesAndItsJson) {
    chassis.webService().addCoherencyLoss("chassis0", 3);
    const ctltest::Run coherent = run({"device", deviceUri, "--json"});
    ASSERT_EQ(coherent.exitStatus, 0) << coherent.err;
    const ctltest::Json document = parse(coherent.out);
    ASSERT_TRUE(document) << coherent.out;
    EXPECT_EQ(str(at(document.get(), "uri")), deviceUri);
    EXPECT_TRUE(cJSON_IsTrue(at(document.get(), "isCoherent")));
    EXPECT_EQ(num(at(document.get(), "coherencyLossCount")), 3);
    EXPECT_EQ(str(at(at(document.get(), "json"), "name")), "chassis0");

    chassis.webService().setCoherent("chassis0", false);
    const ctltest::Run incoherent = run({"device", deviceUri});
    EXPECT_EQ(incoherent.exitStatus, 1);
    EXPECT_NE(incoherent.out.find("coherent  NO"), std::string::npos) << incoherent.out;
    EXPECT_NE(incoherent.out.find("losses    3"), std::string::npos) << incoherent.out;
}

TEST_F(ZtsdctlCommand, DeviceErrorsAreTheOnesTheLibraryReports) {
    const std::string unknown = deviceUri.substr(0, deviceUri.size() - 1) + "9";  // .../chassis9
    // What the library itself says about that device.
    zterr_Status status = {0, 0, ztsdlib_Status_defaultReallocate, nullptr};
    ztsdlib_SyncableDevice* device = ztsdlib_SyncableDeviceProxy_create(unknown.c_str(), &status);
    uint32_t losses = 0;
    ztsdlib_SyncableDevice_isCoherent(device, &losses, &status);
    const std::int32_t expected = status.code;
    ASSERT_LT(expected, 0);
    const ctltest::Json report = parse(status.json);
    const std::string constant = str(at(report.get(), "error_constant"));
    ztsdlib_SyncableDevice_delete(device);
    status.reallocate(&status, 0);

    expectJsonError(run({"device", unknown, "--json"}), expected, constant);
    const ctltest::Run human = run({"device", unknown});
    EXPECT_EQ(human.exitStatus, 2);
    EXPECT_NE(human.err.find("library error " + std::to_string(expected) + " (" + constant + ")"), std::string::npos)
        << human.err;
}

TEST_F(ZtsdctlCommand, TimeShowsTheRemoteClockNextToTheHosts) {
    const std::string uri = chassis.addTimescale(kGmId1);
    chassis.timestampDaemon().setClock(100000000000, 0);  // 100 s ahead of the host
    const ctltest::Run json = run({"time", uri, "127.0.0.1", daemonPort(), "--json"});
    ASSERT_EQ(json.exitStatus, 0) << json.err;
    const ctltest::Json document = parse(json.out);
    ASSERT_TRUE(document) << json.out;
    const __int128 difference = nanosOf(at(document.get(), "remote")) - nanosOf(at(document.get(), "host"));
    EXPECT_EQ(num(at(document.get(), "remoteMinusHost_ns")), static_cast<double>(difference));
    EXPECT_LT(absolute(difference - static_cast<__int128>(100000000000)), 50e6) << json.out;
    // The host reading is this machine's clock, counted from 1601.
    const double unixSeconds = num(at(at(document.get(), "host"), "seconds")) - 11644473600.0;
    EXPECT_LT(std::abs(unixSeconds - static_cast<double>(std::time(nullptr))), 5.0);
    EXPECT_TRUE(std::regex_match(str(at(at(document.get(), "remote"), "utc")),
                                 std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{9}Z)")));
    EXPECT_EQ(num(at(at(document.get(), "timescale"), "port")), chassis.daemonPort());

    const ctltest::Run human = run({"time", uri, "127.0.0.1", daemonPort()});
    EXPECT_EQ(human.exitStatus, 0);
    EXPECT_TRUE(std::regex_search(human.out, std::regex(R"(remote - host  \+(99\.9|100\.0)\d+ s)"))) << human.out;

    expectJsonError(run({"time", uri, "127.0.0.1", std::to_string(closedPort()), "--json"}), -52024,
                    "ztapalerr_communicationsFault");
}

TEST_F(ZtsdctlCommand, CorrelateRecoversTheSimulatedOffsetAndRate) {
    const std::string uri = chassis.addTimescale(kGmId1);
    constexpr std::int64_t kOffset_ns = 1500000000;  // +1.5 s
    // A rate far beyond any real clock's, so that the jitter of loopback
    // round trips on a busy machine (up to milliseconds over the 250 ms the
    // samples span) stays well inside the 10 % allowed.
    constexpr std::int64_t kRate_ppb = 50000000;     // +5 %
    chassis.timestampDaemon().setClock(kOffset_ns, kRate_ppb);
    const ctltest::Run result = run({"correlate", uri, "127.0.0.1", daemonPort(), "--samples", "50",
                                     "--interval-ms", "5", "--settle-ms", "400", "--json"});
    ASSERT_EQ(result.exitStatus, 0) << result.err;
    const ctltest::Json document = parse(result.out);
    ASSERT_TRUE(document) << result.out;

    // The truth at the reference instant, from the simulator's own mapping.
    const __int128 reference = nanosOf(at(document.get(), "reference"));
    ztsdlib_Timestamp hostReference{};
    hostReference.seconds = static_cast<std::uint64_t>(reference / 1000000000);
    hostReference.nanos = static_cast<std::uint32_t>(reference % 1000000000);
    const ztsdlib_Timestamp truth = chassis.timestampDaemon().timeAt(hostReference);
    const __int128 trueOffset =
        static_cast<__int128>(truth.seconds) * 1000000000 + truth.nanos - reference;
    EXPECT_LT(absolute(static_cast<__int128>(num(at(document.get(), "offset_ns"))) - trueOffset), 2e6) << result.out;
    EXPECT_NEAR(num(at(document.get(), "rate_ppb")), kRate_ppb, kRate_ppb * 0.1) << result.out;
    // Without --at the host's reference time is correlated.
    EXPECT_EQ(nanosOf(at(document.get(), "at")), reference);
    EXPECT_LT(absolute(nanosOf(at(document.get(), "correlated")) - (reference + trueOffset)), 2e6);
    EXPECT_EQ(str(at(document.get(), "correlatedTimescaleUri")), uri);
    EXPECT_EQ(str(at(at(document.get(), "correlator"), "type")), "linear");
    EXPECT_EQ(num(at(at(document.get(), "correlator"), "maxSampleSize")), 50);
}

TEST_F(ZtsdctlCommand, CorrelateMapsAGivenTimeInEitherDirection) {
    const std::string uri = chassis.addTimescale(kGmId1);
    chassis.timestampDaemon().setClock(-250000000, 3000000);  // -0.25 s, +3000 ppm

    // A UTC date-time, read on the host: the answer lies on the fitted line.
    const ctltest::Run utc = run({"correlate", uri, "127.0.0.1", daemonPort(), "--samples", "20", "--at",
                                  "2025-06-30T12:34:56.789Z", "--json"});
    ASSERT_EQ(utc.exitStatus, 0) << utc.err;
    const ctltest::Json a = parse(utc.out);
    ASSERT_TRUE(a) << utc.out;
    std::tm date{};
    date.tm_year = 2025 - 1900;
    date.tm_mon = 5;
    date.tm_mday = 30;
    date.tm_hour = 12;
    date.tm_min = 34;
    date.tm_sec = 56;
    EXPECT_EQ(num(at(at(a.get(), "at"), "seconds")), static_cast<double>(::timegm(&date)) + 11644473600.0);
    EXPECT_EQ(num(at(at(a.get(), "at"), "nanos")), 789000000);
    const __int128 atHost = nanosOf(at(a.get(), "at"));
    const __int128 reference = nanosOf(at(a.get(), "reference"));
    const __int128 offset = static_cast<__int128>(num(at(a.get(), "offset_ns")));
    const double rate = num(at(a.get(), "rate_ppb")) * 1e-9;
    const double onLine = static_cast<double>(offset) + rate * static_cast<double>(atHost - reference);
    EXPECT_NEAR(static_cast<double>(nanosOf(at(a.get(), "correlated")) - atHost), onLine, 1e5) << utc.out;

    // Decimal seconds read on the remote timescale map back to the host.
    const std::string remoteSeconds = std::to_string(static_cast<long long>(reference / 1000000000) + 10) + ".5";
    const ctltest::Run back = run({"correlate", uri, "127.0.0.1", daemonPort(), "--samples", "20", "--at",
                                   remoteSeconds, "--from", "remote", "--json"});
    ASSERT_EQ(back.exitStatus, 0) << back.err;
    const ctltest::Json b = parse(back.out);
    ASSERT_TRUE(b) << back.out;
    EXPECT_EQ(str(at(b.get(), "atTimescaleUri")), uri);
    EXPECT_EQ(str(at(b.get(), "correlatedTimescaleUri")), ZTSDLIB_HOST_TIMESCALE_URI);
    EXPECT_EQ(num(at(at(b.get(), "at"), "nanos")), 500000000);
    const __int128 host = nanosOf(at(b.get(), "correlated"));
    const __int128 remote = nanosOf(at(b.get(), "at"));
    // remote - host = offset + rate * (host - reference) on the fitted line.
    const double onLineBack = num(at(b.get(), "offset_ns")) +
                              num(at(b.get(), "rate_ppb")) * 1e-9 *
                                  static_cast<double>(host - nanosOf(at(b.get(), "reference")));
    EXPECT_NEAR(static_cast<double>(remote - host), onLineBack, 1e4) << back.out;
    // And the human form names both ends.
    const ctltest::Run human = run({"correlate", uri, "127.0.0.1", daemonPort(), "--samples", "20"});
    EXPECT_EQ(human.exitStatus, 0) << human.err;
    EXPECT_TRUE(std::regex_search(human.out, std::regex(R"(rate +remote runs [+-]\d+\.\d{6} ppm)"))) << human.out;
    EXPECT_NE(human.out.find("correlated   "), std::string::npos);
}
