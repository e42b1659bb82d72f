// ztsdctl's one-shot commands (list, device, time, correlate) and its command
// line, run as a child process against simulated chassis in this process.
// Errors are printed by one routine for every command, which
// ZtsdctlAgainstSim.LibraryErrorsAreOneLineOrOneJsonObject checks in its
// text, JSON and verbose forms.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
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

class ZtsdctlCommand : public ::testing::Test {
protected:
    void SetUp() override {
        ZTSDCTL_REQUIRED();
        chassis.start();
        deviceUri = chassis.webService().addDevice("chassis0");
    }
    std::string remoteHost() { return chassis.webService().remoteHost(); }
    std::string daemonPort() { return std::to_string(chassis.daemonPort()); }
    // correlate over uri: the sample count, then further options.
    std::vector<std::string> correlate(const std::string& uri, const std::vector<std::string>& more) {
        std::vector<std::string> arguments{"correlate", uri, "127.0.0.1", daemonPort(), "--samples"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return arguments;
    }

    ztsdsim::SimulatedChassis chassis;
    std::string deviceUri;
};

// A successful --json run's one document.
ctltest::Json document(const ctltest::Run& result) {
    EXPECT_EQ(result.exitStatus, 0) << result.err;
    ctltest::Json parsed = parse(result.out);
    EXPECT_TRUE(parsed) << result.out;
    return parsed;
}

}  // namespace

// Wrong command lines end with 64, one line naming the problem and nothing
// on stdout, before the library is asked anything (nothing listens on the
// addresses); help and --version exit 0.
TEST(ZtsdctlUsage, WrongCommandLinesExit64WithOneLineAndHelpExits0) {
    ZTSDCTL_REQUIRED();
    const std::string kAddress = "127.0.0.1:1@2";
    const auto domain = [&](const std::vector<std::string>& more) { return ctltest::domainCommand({kAddress}, more); };
    const std::string timescale = "/h/ztsdwebs/resources/ztsd/timescales/x";
    const struct {
        std::vector<std::string> args;
        const char* err;  // a regular expression stderr's first line matches
    } cases[] = {
        {{}, "A subcommand is required"},
        {{"frobnicate"}, "ztsdctl: unknown command 'frobnicate'; the commands are list, device, time, correlate, "
                         "domain, demo .*"},
        {{"list"}, "HOST is required"},
        {{"list", "127.0.0.1:99999"}, ".*'99999' after ':' is not a TCP port.*"},
        {{"list", "127.0.0.1:0@9090"}, ".*'0' after ':' is not a TCP port.*"},
        {{"list", "::1"}, ".*write an IPv6 address in brackets.*"},
        {{"list", "[::1"}, ".*has no closing.*"},
        {{"list", "127.0.0.1:80@70000"}, ".*'70000' after '@' is not a TCP port.*"},
        {{"list", "host@70000"}, ".*'70000' after '@' is not a TCP port.*"},
        {{"list", kAddress, "--daemon-port", "5"}, "ztsdctl: --daemon-port changes nothing.*"},
        {{"time", timescale, "127.0.0.1", "0"}, "PORT: Value 0 not in range 1 to 65535"},
        {{"correlate", timescale, "127.0.0.1", "9090", "--at", "2025-02-30T00:00:00Z"},
         "--at: '2025-02-30T00:00:00Z' is neither decimal seconds nor .*"},
        {{"correlate", timescale, "127.0.0.1", "9090", "--samples", "1"}, "--samples: Value 1 not in range 2 to .*"},
        {{"domain", kAddress, "--min-sync-ms", "1", "--timescale", "/localhost/ztsds/timescales/system"},
         "--max-offset-ns is required"},
        {domain({"--timeout-s", "0"}), "--timeout-s: Value 0 not in range 1 to .*"},
        {domain({"--checks", "3"}), ".*--checks requires --watch.*"},
        {domain({"--metrics-listen", "127.0.0.1:0"}), ".*--metrics-listen requires --watch.*"},
        {domain({"--watch", "1", "--metrics-listen", "1.2.3.4"}), ".*'1.2.3.4' is not ADDR:PORT.*"},
        {domain({"--device", "chassis0-1"}), ".*'chassis0-1' is not a device URI.*"},
        {domain({"--format", "csv"}), "ztsdctl: --format csv prints checks: it needs --watch"},
        {{"domain", kAddress, "--max-offset-ns", "1", "--min-sync-ms", "1", "--timescale", "x"},
         ".*'x' is not a timescale URI.*"},
        {{"device", "/bad"}, "ztsdctl: '/bad' is neither a device URI .*"},
        {{"device", kAddress, "chassis0"}, "ztsdctl: a device needs no @DAEMONPORT.*"},
        {{"device", "/x/syncableDevices/y", "--plugin", "p"}, ".*--plugin requires NAME.*"},
        // Addresses with more than HOST[:PORT][@DAEMONPORT] in them.
        {{"list", "user@127.0.0.1:1@2"}, ".*'user@127.0.0.1:1@2' has more than one '@'.*"},
        {{"list", "user@127.0.0.1:1"}, ".*'127.0.0.1:1' after '@' is not a TCP port.*"},
        {{"list", "127.0.0.1:1/x"}, ".*'1/x' after ':' is not a TCP port.*"},
        {{"list", "ex%61mple:1@2"}, ".*'ex%61mple:1' is not a host name or address.*"},
        {{"device", "a/b:1", "chassis0"}, ".*'a/b:1' is not a host name or address.*"},
        {{"list", "[::1;x]:1@2"}, ".*'\\[::1;x\\]:1' is not a host name or address.*"},
        {{"time", timescale, "user@127.0.0.1", "2"}, "HOST: 'user@127.0.0.1' is not a host name or address"},
        {{"correlate", timescale, "[127.0.0.1]", "2"}, "HOST: '\\[127.0.0.1\\]' is not an IPv6 address in brackets"},
    };
    for (const auto& c : cases) {
        std::string line;
        for (const auto& a : c.args) line += a + " ";
        const ctltest::Run result = run(c.args);
        EXPECT_EQ(result.exitStatus, 64) << line << "\n" << result.err;
        const std::vector<std::string> lines = ctltest::lines(result.err);
        ASSERT_FALSE(lines.empty()) << line;
        EXPECT_TRUE(std::regex_match(lines[0], std::regex(c.err))) << line << "\n" << result.err;
        EXPECT_EQ(result.out, "") << line;

        // With --json, wherever it stands, stderr holds one JSON object and
        // nothing else, whichever part of the command line found the fault.
        std::vector<std::string> withJson = c.args;
        withJson.insert(c.args.empty() ? withJson.end() : withJson.begin() + 1, "--json");
        const ctltest::Run json = run(withJson);
        EXPECT_EQ(json.exitStatus, 64) << line << "--json\n" << json.err;
        EXPECT_EQ(json.out, "") << line;
        ASSERT_EQ(ctltest::lines(json.err).size(), 1u) << line << "--json\n" << json.err;
        const ctltest::Json error = parse(json.err);
        ASSERT_TRUE(error) << json.err;
        ASSERT_EQ(cJSON_GetArraySize(error.get()), 1) << json.err;
        ASSERT_EQ(cJSON_GetArraySize(at(error.get(), "error")), 1) << json.err;
        const std::string usage = str(at(at(error.get(), "error"), "usage"));
        const std::string expected = std::string(c.err).rfind("ztsdctl: ", 0) == 0 ? c.err + 9 : c.err;
        EXPECT_TRUE(std::regex_match(usage, std::regex(expected))) << line << "--json\n" << json.err;
    }
    // --format json is --json, for a refusal too.
    const ctltest::Run formatJson = run(domain({"--format", "json", "--checks", "3"}));
    EXPECT_EQ(formatJson.exitStatus, 64);
    EXPECT_TRUE(std::regex_match(str(at(at(parse(formatJson.err).get(), "error"), "usage")),
                                 std::regex(".*--checks requires --watch.*")))
        << formatJson.err;
    const ctltest::Run help = run({"--help"});
    EXPECT_EQ(help.exitStatus, 0);
    for (const char* command : {"list", "device", "time", "correlate", "domain", "demo"})
        EXPECT_NE(help.out.find(command), std::string::npos) << command;
    EXPECT_EQ(run({"domain", "--help"}).exitStatus, 0);
    const ctltest::Run version = run({"--version"});
    EXPECT_EQ(version.exitStatus, 0);
    EXPECT_TRUE(std::regex_match(version.out, std::regex(R"(ztsdctl \d+\.\d+\.\d+ \(ztsdlib API \d+\)\n)")))
        << version.out;
}

namespace {

std::string output(const std::string& command) {
    std::string text;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) return text;
    char buffer[4096];
    std::size_t got;
    while ((got = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) text.append(buffer, got);
    ::pclose(pipe);
    return text;
}

}  // namespace

TEST(ZtsdctlBinary, TakesEveryLibraryCallFromTheSharedLibrary) {
    ZTSDCTL_REQUIRED();
    // The tool links the simulator's archive for its demo; none of the
    // library's exports may come along with it.
    const std::string defined = output("nm --defined-only '" + ctltest::programPath() + "' 2>/dev/null");
    ASSERT_NE(defined.find(" main\n"), std::string::npos) << "nm gave no symbols";
    EXPECT_FALSE(std::regex_search(defined, std::regex(" [TtWw] ztsdlib_"))) << "ztsdctl defines a ztsdlib_ export";
    const std::string undefined = output("nm --undefined-only '" + ctltest::programPath() + "' 2>/dev/null");
    EXPECT_NE(undefined.find("ztsdlib_loadProxyResources"), std::string::npos);
    EXPECT_NE(output("readelf -d '" + ctltest::programPath() + "'").find("libztsdlib.so"), std::string::npos);
}

// An empty run path entry is the current directory to the loader: a tool
// run from the build tree must not load libraries from where it is started.
TEST(ZtsdctlBinary, BuildTreeToolsHaveNoEmptyRunPathEntry) {
    ZTSDCTL_REQUIRED();
    ZTSD_SIM_REQUIRED();
    for (const std::string& program : {ctltest::programPath(), simtest::simPath()}) {
        const std::string dynamic = output("readelf -d '" + program + "'");
        ASSERT_NE(dynamic.find("(NEEDED)"), std::string::npos) << "readelf gave nothing for " << program;
        std::smatch path;
        for (auto at = dynamic.cbegin();
             std::regex_search(at, dynamic.cend(), path, std::regex(R"(\((?:RUNPATH|RPATH)\).*\[(.*)\])"));
             at = path[0].second) {
            const std::string entries = ":" + path[1].str() + ":";
            EXPECT_EQ(entries.find("::"), std::string::npos) << program << ": " << path[1];
        }
    }
}

TEST_F(ZtsdctlCommand, ListShowsEveryDeviceAndEveryTimescale) {
    chassis.webService().addCoherencyLoss("chassis0", 2);
    const std::string second = chassis.webService().addDevice("chassis1");
    chassis.webService().setCoherent("chassis1", false);
    const std::string ts1 = chassis.addTimescale(kGmId1);
    const std::string ts2 = chassis.addTimescale(kGmId2);

    const ctltest::Run human = run({"list", remoteHost() + "@" + daemonPort()});
    EXPECT_EQ(human.exitStatus, 0) << human.err;
    for (const std::string& expected : {deviceUri, second, ts1, ts2, std::string("coherent, 2 coherency losses"),
                                        std::string("NOT coherent, 0 coherency losses")})
        EXPECT_NE(human.out.find(expected), std::string::npos) << expected << "\n" << human.out;

    // --daemon-port stands for the @port of the address.
    const ctltest::Json json = document(run({"list", remoteHost(), "--daemon-port", daemonPort(), "--json"}));
    ASSERT_TRUE(json);
    EXPECT_EQ(str(at(json.get(), "remoteHost")), remoteHost());
    const cJSON* device = at(json.get(), "device");
    EXPECT_EQ(str(at(device, "uri")), deviceUri);
    EXPECT_EQ(num(at(device, "coherencyLossCount")), 2);
    EXPECT_EQ(str(at(at(device, "json"), "uri")), deviceUri);  // the library's device document
    const cJSON* devices = at(json.get(), "devices");
    ASSERT_EQ(cJSON_GetArraySize(devices), 2);
    EXPECT_EQ(str(at(cJSON_GetArrayItem(devices, 0), "uri")), deviceUri);
    EXPECT_EQ(str(at(cJSON_GetArrayItem(devices, 1), "uri")), second);
    EXPECT_FALSE(cJSON_IsTrue(at(cJSON_GetArrayItem(devices, 1), "isCoherent")));
    const cJSON* timescales = at(json.get(), "timescales");
    ASSERT_EQ(cJSON_GetArraySize(timescales), 2);
    EXPECT_EQ(str(at(cJSON_GetArrayItem(timescales, 0), "uri")), ts1);
    EXPECT_EQ(str(at(cJSON_GetArrayItem(timescales, 1), "uri")), ts2);
    EXPECT_EQ(num(at(at(cJSON_GetArrayItem(timescales, 1), "json"), "port")), chassis.daemonPort());
}

TEST_F(ZtsdctlCommand, DeviceReportsCoherencyLosses) {
    chassis.webService().addCoherencyLoss("chassis0", 3);
    const ctltest::Json json = document(run({"device", deviceUri, "--json"}));
    ASSERT_TRUE(json);
    EXPECT_EQ(str(at(json.get(), "uri")), deviceUri);
    EXPECT_TRUE(cJSON_IsTrue(at(json.get(), "isCoherent")));
    EXPECT_EQ(num(at(json.get(), "coherencyLossCount")), 3);
    EXPECT_EQ(str(at(at(json.get(), "json"), "name")), "chassis0");

    chassis.webService().setCoherent("chassis0", false);
    const ctltest::Run incoherent = run({"device", deviceUri});
    EXPECT_EQ(incoherent.exitStatus, 1);
    EXPECT_NE(incoherent.out.find("coherent  NO"), std::string::npos) << incoherent.out;
    EXPECT_NE(incoherent.out.find("losses    3"), std::string::npos) << incoherent.out;
}

TEST_F(ZtsdctlCommand, TimeShowsTheRemoteClockNextToTheHosts) {
    const std::string uri = chassis.addTimescale(kGmId1);
    chassis.timestampDaemon().setClock(100000000000, 0);  // 100 s ahead of the host
    const ctltest::Json json = document(run({"time", uri, "127.0.0.1", daemonPort(), "--json"}));
    ASSERT_TRUE(json);
    const __int128 difference = nanosOf(at(json.get(), "remote")) - nanosOf(at(json.get(), "host"));
    EXPECT_EQ(num(at(json.get(), "remoteMinusHost_ns")), static_cast<double>(difference));
    EXPECT_LT(absolute(difference - static_cast<__int128>(100000000000)), 50e6);

    const ctltest::Run human = run({"time", uri, "127.0.0.1", daemonPort()});
    EXPECT_EQ(human.exitStatus, 0);
    EXPECT_TRUE(std::regex_search(human.out, std::regex(R"(remote - host  \+(99\.9|100\.0)\d+ s)"))) << human.out;
}

// Against a lopsided path (the return leg wanders up to 1 ms, the outward
// leg not at all) the symmetric sampling's offset is early by up to half a
// millisecond, far beyond its standard uncertainty: the accuracy bound it
// prints beside that uncertainty still holds. So does the sequential
// sampling's, late by the outward delay and bounded by about the whole
// round trip, which its accuracy line says.
TEST_F(ZtsdctlCommand, CorrelatePrintsAnAccuracyBoundThatHoldsBesideTheStandardUncertainty) {
    const std::string uri = chassis.addTimescale(kGmId1);
    chassis.timestampDaemon().setClock(2500000, 20000);
    chassis.timestampDaemon().setDriftingDelay(0, 1000);
    struct Case {
        std::vector<std::string> arguments;
        const char* accuracyLine;
    };
    const Case cases[] = {
        {{"60", "--interval-ms", "10", "--settle-ms", "900"}, R"(\naccuracy     offset within \+/- [0-9.]+ [mun]?s, rate .* and the fit\)\n)"},
        {{"60", "--interval-ms", "10", "--settle-ms", "900", "--sequential"},
         R"(\naccuracy     offset within \+/- [0-9.]+ [mun]?s, rate .*sequential sampling's offset runs late)"}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.arguments.back());
        std::vector<std::string> json = c.arguments;
        json.push_back("--json");
        const ctltest::Json fit = document(run(correlate(uri, json)));
        ASSERT_TRUE(fit);
        const __int128 reference = nanosOf(at(fit.get(), "reference"));
        const ztsdlib_Timestamp truth = chassis.timestampDaemon().timeAt(
            {static_cast<std::uint64_t>(reference / 1000000000), static_cast<std::uint32_t>(reference % 1000000000), 0, false});
        const double error = num(at(fit.get(), "offset_ns")) -
                             static_cast<double>(static_cast<__int128>(truth.seconds) * 1000000000 + truth.nanos - reference);
        const cJSON* quality = at(fit.get(), "quality");
        EXPECT_LE(std::fabs(error), num(at(quality, "offsetBound_ns"))) << error << " ns off";
        EXPECT_LE(std::fabs(error), 3 * num(at(quality, "offsetUncertainty_ns"))) << error << " ns off";
        EXPECT_LE(std::fabs(num(at(fit.get(), "rate_ppb")) - 20000), num(at(quality, "rateBound_ppb")));
        EXPECT_GE(num(at(quality, "effectiveSampleCount")), 3);
        const ctltest::Run human = run(correlate(uri, c.arguments));
        EXPECT_TRUE(std::regex_search(human.out, std::regex(c.accuracyLine))) << human.out;
    }
}

TEST_F(ZtsdctlCommand, CorrelateRecoversTheSimulatedClockAndMapsAGivenTimeEitherWay) {
    const std::string uri = chassis.addTimescale(kGmId1);
    constexpr std::int64_t kOffset_ns = 1500000000;  // +1.5 s
    // A rate far beyond any real clock's, so that the jitter of loopback
    // round trips on a busy machine (up to milliseconds over the 250 ms the
    // samples span) stays well inside the 10 % allowed.
    constexpr std::int64_t kRate_ppb = 50000000;  // +5 %
    chassis.timestampDaemon().setClock(kOffset_ns, kRate_ppb);
    const ctltest::Json fit = document(run(correlate(uri, {"50", "--interval-ms", "5", "--settle-ms", "400", "--json"})));
    ASSERT_TRUE(fit);
    // The truth at the reference instant, from the simulator's own mapping.
    const __int128 reference = nanosOf(at(fit.get(), "reference"));
    const ztsdlib_Timestamp truth = chassis.timestampDaemon().timeAt(
        {static_cast<std::uint64_t>(reference / 1000000000), static_cast<std::uint32_t>(reference % 1000000000), 0, false});
    const __int128 trueOffset = static_cast<__int128>(truth.seconds) * 1000000000 + truth.nanos - reference;
    // Within 2 ms, or within the bound it states where the loopback is slower (under Wine).
    const double allowed_ns = std::max(2e6, num(at(at(fit.get(), "quality"), "offsetBound_ns")));
    EXPECT_LT(absolute(static_cast<__int128>(num(at(fit.get(), "offset_ns"))) - trueOffset), allowed_ns);
    EXPECT_NEAR(num(at(fit.get(), "rate_ppb")), kRate_ppb, kRate_ppb * 0.1);
    // Without --at the host's reference time is correlated.
    EXPECT_EQ(nanosOf(at(fit.get(), "at")), reference);
    EXPECT_LT(absolute(nanosOf(at(fit.get(), "correlated")) - (reference + trueOffset)), allowed_ns);
    EXPECT_EQ(str(at(fit.get(), "correlatedTimescaleUri")), uri);
    EXPECT_EQ(num(at(at(fit.get(), "correlator"), "maxSampleSize")), 50);

    // Decimal seconds read on the remote timescale map back to the host, on
    // the fitted line: remote - host = offset + rate * (host - reference).
    const std::string remoteSeconds = std::to_string(static_cast<long long>(reference / 1000000000) + 10) + ".5";
    const ctltest::Json back = document(run(correlate(uri, {"20", "--at", remoteSeconds, "--from", "remote", "--json"})));
    ASSERT_TRUE(back);
    EXPECT_EQ(str(at(back.get(), "atTimescaleUri")), uri);
    EXPECT_EQ(str(at(back.get(), "correlatedTimescaleUri")), ZTSDLIB_HOST_TIMESCALE_URI);
    EXPECT_EQ(num(at(at(back.get(), "at"), "nanos")), 500000000);
    const __int128 host = nanosOf(at(back.get(), "correlated"));
    const double onLine = num(at(back.get(), "offset_ns")) +
                          num(at(back.get(), "rate_ppb")) * 1e-9 * static_cast<double>(host - nanosOf(at(back.get(), "reference")));
    EXPECT_NEAR(static_cast<double>(nanosOf(at(back.get(), "at")) - host), onLine, 1e4);

    // A UTC date-time read on the host, in the human form.
    const ctltest::Run human = run(correlate(uri, {"20", "--at", "2025-06-30T12:34:56.789Z"}));
    EXPECT_EQ(human.exitStatus, 0) << human.err;
    // 2025-06-30T12:34:56Z is 13395760496 s after 1601-01-01T00:00:00Z.
    const std::string time = "time         13395760496.789000000  2025-06-30T12:34:56.789000000Z  on ";
    EXPECT_NE(human.out.find(time + ZTSDLIB_HOST_TIMESCALE_URI), std::string::npos) << human.out;
    EXPECT_TRUE(std::regex_search(human.out, std::regex(R"(rate +remote runs [+-]\d+\.\d{6} ppm)"))) << human.out;
    EXPECT_NE(human.out.find("correlated   "), std::string::npos);
}
