// The standalone ztsd-sim program: started as a child process, it prints the
// URIs it serves, answers on them, and exits cleanly on SIGTERM.
#include <gtest/gtest.h>
#include <httplib.h>
#include <signal.h>

#include <cmath>
#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

#include "integration/sim/simTestSupport.h"
#include "platform/clock.h"
#include "ztsdlib/ztsdlib.h"

using simtest::chassisLines;
using simtest::ChildProcess;
using simtest::member;
using simtest::postControl;
using simtest::simPath;

namespace {

// The "result" of a GET on the chassis at port.
simtest::Json getResult(int port, const std::string& path) {
    httplib::Client client("127.0.0.1", port);
    client.set_read_timeout(5, 0);
    const httplib::Result reply = client.Get(path.c_str());
    simtest::Json document = simtest::parse(reply ? reply->body : "");
    return simtest::Json(document ? cJSON_DetachItemFromObjectCaseSensitive(document.get(), "result") : nullptr);
}

// remote - host of the first timescale the params describe, read through
// the library (the daemon beside the chassis), in ms; NaN on failure.
double offsetThroughLibrary_ms(const std::string& paramsJson) {
    zterr_Status status{};
    ztsdlib_SyncableDevice* device = nullptr;
    ztsdlib_Timescale** timescales = nullptr;
    std::uint32_t count = 0;
    ztsdlib_loadProxyResources(paramsJson.c_str(), &device, &timescales, &count, std::malloc, &status);
    double offset = std::nan("");
    if (status.code >= 0 && count > 0) {
        ztsdlib_Timestamp remote{};
        const auto before = ztsdlib::platform::systemTime100nsSince1601();
        ztsdlib_Timescale_getTime(timescales[0], &remote, &status);
        const auto after = ztsdlib::platform::systemTime100nsSince1601();
        const long double host_s = (static_cast<long double>(before) + after) / 2 / 1e7;
        if (status.code >= 0) offset = static_cast<double>((remote.seconds + remote.nanos / 1e9L - host_s) * 1000);
    }
    for (std::uint32_t i = 0; i < count; ++i) ztsdlib_Timescale_delete(timescales[i]);
    std::free(timescales);
    ztsdlib_SyncableDevice_delete(device);
    return offset;
}

}  // namespace

TEST(SimulatorProgram, ServesThePrintedUrisAndStopsOnSigterm) {
    ZTSD_SIM_REQUIRED();
    ChildProcess child({simPath(), "--port", "0", "--chassis", "2", "--devices-per-chassis", "2", "--timescales", "1",
                        "--incoherent"});
    ASSERT_TRUE(child.waitForOutput("\nready\n", 5000)) << child.out();

    // "chassis <c> http://127.0.0.1:<port>/", then its URIs indented.
    const std::regex chassisLine(R"(chassis (\d+) http://127\.0\.0\.1:(\d+)/)");
    std::vector<int> ports;
    std::vector<std::vector<std::string>> uris;
    for (const std::string& line : simtest::lines(child.out())) {
        std::smatch match;
        if (std::regex_match(line, match, chassisLine)) {
            ports.push_back(std::stoi(match[2]));
            uris.emplace_back();
        } else if (line.rfind("  /", 0) == 0 && !uris.empty()) {
            uris.back().push_back(line.substr(2));
        }
    }
    ASSERT_EQ(ports.size(), 2u);
    EXPECT_NE(ports[0], ports[1]);
    for (std::size_t c = 0; c < ports.size(); ++c) {
        const std::string prefix = "/127.0.0.1:" + std::to_string(ports[c]) + "/ztsdwebs/resources/ztsd/";
        const std::string name = "chassis" + std::to_string(c);
        const std::vector<std::string> expected{prefix + "syncableDevices/" + name,
                                                prefix + "syncableDevices/" + name + "-1",
                                                prefix + "timescales/00-80-2F-00-00-00-0" + std::to_string(c) + "-00"};
        EXPECT_EQ(uris[c], expected);

        const simtest::Json listing = getResult(ports[c], "/ztsdwebs/resources/");
        std::vector<std::string> listed;
        const cJSON* entry = nullptr;
        cJSON_ArrayForEach(entry, member(listing.get(), "resources")) listed.push_back(simtest::text(member(entry, "uri")));
        EXPECT_EQ(listed, expected);
        const simtest::Json device = getResult(ports[c], "/ztsdwebs/resources/ztsd/syncableDevices/" + name);
        EXPECT_TRUE(cJSON_IsFalse(member(device.get(), "isCoherent")));  // --incoherent
    }

    child.signal(SIGTERM);
    EXPECT_EQ(child.finish(5000), 0);
    EXPECT_EQ(simtest::lines(child.out()).back(), "stopped on SIGTERM");
}

// Every wrong command line exits 2 with its reason on stderr, before
// anything listens; a name that is none of an option's names is refused with
// the list of them.
TEST(SimulatorProgram, WrongCommandLinesExit2) {
    ZTSD_SIM_REQUIRED();
    const struct {
        std::vector<std::string> args;
        const char* err;  // a regular expression stderr's first line matches
    } cases[] = {
        {{"--bogus"}, ".*--bogus.*"},
        {{"stray"}, ".*stray.*"},
        {{"--chassis", "0"}, "--chassis: .*"},
        {{"--port", "abc"}, "--port: .*"},
        {{"--port", "65535", "--chassis", "2"}, "ztsd-sim: ports 65535 to 65536 do not all exist"},
        {{"--clock-offset-ns", "1,2", "--chassis", "3"}, "ztsd-sim: --clock-offset-ns .*"},
        {{"--daemon-personality", "nonsense"},
         "--daemon-personality: 'nonsense' is not a daemon personality; the daemon personalities are faithful, "
         "wrong-method-name, invalid-message-type, wrong-sequence-id, huge-lengths, http-server, byte-at-a-time"},
        {{"--listing-form", "trees"},
         "--listing-form: 'trees' is not a listing form; the listing forms are hosts, paths, mixed"},
    };
    for (const auto& c : cases) {
        std::vector<std::string> args = c.args;
        args.insert(args.begin(), simPath());
        ChildProcess child(args);
        ASSERT_TRUE(child.started());
        EXPECT_EQ(child.finish(5000), 2) << args[1];  // -1 would mean it kept running
        const std::vector<std::string> lines = simtest::lines(child.err());
        ASSERT_FALSE(lines.empty()) << args[1];
        EXPECT_TRUE(std::regex_match(lines[0], std::regex(c.err))) << lines[0];
        EXPECT_EQ(child.out(), "") << args[1];
    }
    ChildProcess help({simPath(), "--help"});
    EXPECT_EQ(help.finish(5000), 0);
}

// Listening on IPv6, every address it prints is one a client takes as it
// stands: [::1]:PORT (a web service, its daemon, the control server), and the
// daemon answers the library at the host and port the JSON line gives.
TEST(SimulatorProgram, PrintsIpv6AddressesInBrackets) {
    ZTSD_SIM_REQUIRED();
    ChildProcess child({simPath(), "--host", "::1"});
    ASSERT_TRUE(child.waitForOutput("\nready\n", 5000)) << child.out() << child.err();
    const std::vector<simtest::Json> chassis = chassisLines(child.out());
    ASSERT_EQ(chassis.size(), 1u);
    const cJSON* line = chassis[0].get();
    const std::string daemonPort = std::to_string(static_cast<int>(cJSON_GetNumberValue(member(line, "daemonPort"))));
    const std::string remoteHost = simtest::text(member(line, "remoteHost"));
    EXPECT_TRUE(std::regex_match(remoteHost, std::regex(R"(\[::1\]:\d+)"))) << remoteHost;
    EXPECT_EQ(simtest::text(member(line, "address")), remoteHost + "@" + daemonPort);
    EXPECT_EQ(simtest::text(member(line, "daemonHost")), "::1");
    EXPECT_TRUE(std::regex_match(simtest::text(member(line, "control")), std::regex(R"(http://\[::1\]:\d+/chassis/0/)")));
    for (const std::string& expected : {"chassis 0 http://" + remoteHost + "/", "  daemon: [::1]:" + daemonPort,
                                        "  ztsdctl address: " + remoteHost + "@" + daemonPort})
        EXPECT_NE(child.out().find(expected + "\n"), std::string::npos) << expected << "\n" << child.out();
    // No line holds an IPv6 address with a port glued on unbracketed.
    EXPECT_FALSE(std::regex_search(child.out(), std::regex(R"((^|[^\[:])::1:\d)"))) << child.out();

    zterr_Status status{};
    ztsdlib_Timescale* timescale = ztsdlib_TimescaleProxy_create(
        simtest::text(cJSON_GetArrayItem(member(line, "timescales"), 0)).c_str(),
        simtest::text(member(line, "daemonHost")).c_str(), std::stoul(daemonPort), &status);
    EXPECT_EQ(status.code, 0);
    ztsdlib_Timestamp now{};
    if (timescale != nullptr) ztsdlib_Timescale_getTime(timescale, &now, &status);
    EXPECT_EQ(status.code, 0);
    EXPECT_GT(now.seconds, 0u);
    ztsdlib_Timescale_delete(timescale);
    child.signal(SIGINT);
    EXPECT_EQ(child.finish(5000), 0);
}

// Each chassis' JSON line names a daemon whose clock runs at the chassis'
// offset; the paste-ready address and params agree with it.
TEST(SimulatorProgram, PrintsOneJsonLinePerChassisWithAWorkingDaemon) {
    ZTSD_SIM_REQUIRED();
    ChildProcess child({simPath(), "--chassis", "3", "--clock-offset-ns", "0,2500000000,-4000000000"});
    ASSERT_TRUE(child.waitForOutput("\nready\n", 5000)) << child.out();
    const std::vector<simtest::Json> chassis = chassisLines(child.out());
    ASSERT_EQ(chassis.size(), 3u) << child.out();
    const double expected_ms[] = {0, 2500, -4000};
    for (std::size_t c = 0; c < chassis.size(); ++c) {
        const cJSON* line = chassis[c].get();
        ASSERT_NE(line, nullptr);
        EXPECT_EQ(cJSON_GetNumberValue(member(line, "chassis")), c);
        const std::string remoteHost = simtest::text(member(line, "remoteHost"));
        const int daemonPort = static_cast<int>(cJSON_GetNumberValue(member(line, "daemonPort")));
        EXPECT_EQ(simtest::text(member(line, "address")), remoteHost + "@" + std::to_string(daemonPort));
        EXPECT_NE(child.out().find("ztsdctl address: " + remoteHost + "@"), std::string::npos);
        const std::string params = simtest::text(member(line, "networkDeviceParamsJson"));
        simtest::Json parsed = simtest::parse(params);
        EXPECT_EQ(simtest::text(member(member(parsed.get(), "params"), "remoteHost")), remoteHost);
        EXPECT_NEAR(offsetThroughLibrary_ms(params), expected_ms[c], 100) << params;
    }
    child.signal(SIGINT);
    EXPECT_EQ(child.finish(5000), 0);
}

// The control server changes what a chassis serves; a chassis taken down
// refuses connections and comes back on its ports with its state.
TEST(SimulatorProgram, ControlsChangeWhatTheChassisServes) {
    ZTSD_SIM_REQUIRED();
    ChildProcess child({simPath(), "--chassis", "2", "--devices-per-chassis", "2", "--clock-offset-ns", "1000000000"});
    ASSERT_TRUE(child.waitForOutput("\nready\n", 5000)) << child.out();
    const std::vector<simtest::Json> chassis = chassisLines(child.out());
    ASSERT_EQ(chassis.size(), 2u);
    const std::string url = simtest::text(member(chassis[1].get(), "control"));
    const std::string remoteHost = simtest::text(member(chassis[1].get(), "remoteHost"));
    const int port = std::stoi(remoteHost.substr(remoteHost.rfind(':') + 1));
    const std::string params = simtest::text(member(chassis[1].get(), "networkDeviceParamsJson"));
    const auto device = [&](const std::string& name) {
        return getResult(port, "/ztsdwebs/resources/ztsd/syncableDevices/" + name);
    };

    struct Case {
        const char* path;
        int status;
    };
    const Case refused[] = {
        {"devices/nobody/loss", 404},      {"devices/chassis1/sideways", 404}, {"explode", 404},
        {"clock/step", 400},               {"clock/step?ns=1.5", 400},         {"devices/chassis1/loss?count=0", 400},
        {"clock/slew?ppb=99999999999999999999", 400},
    };
    for (const Case& c : refused) EXPECT_EQ(postControl(url, c.path), c.status) << c.path;
    EXPECT_EQ(postControl(url.substr(0, url.size() - 2) + "7/", "down"), 404);  // no chassis 7

    ASSERT_EQ(postControl(url, "devices/chassis1-1/loss?count=3"), 200);
    ASSERT_EQ(postControl(url, "devices/chassis1/incoherent"), 200);
    EXPECT_EQ(cJSON_GetNumberValue(member(device("chassis1-1").get(), "coherencyLossCount")), 3);
    EXPECT_TRUE(cJSON_IsFalse(member(device("chassis1").get(), "isCoherent")));
    EXPECT_TRUE(cJSON_IsTrue(member(device("chassis1-1").get(), "isCoherent")));

    ASSERT_EQ(postControl(url, "clock/step?ns=-3000000000"), 200);
    EXPECT_NEAR(offsetThroughLibrary_ms(params), -2000, 100);

    ASSERT_EQ(postControl(url, "down"), 200);
    EXPECT_EQ(device("chassis1").get(), nullptr);  // nothing listens
    EXPECT_TRUE(std::isnan(offsetThroughLibrary_ms(params)));
    ASSERT_EQ(postControl(url, "devices/chassis1-1/loss"), 200);  // a loss while down is kept
    ASSERT_EQ(postControl(url, "up"), 200);
    EXPECT_EQ(cJSON_GetNumberValue(member(device("chassis1-1").get(), "coherencyLossCount")), 4);
    EXPECT_TRUE(cJSON_IsFalse(member(device("chassis1").get(), "isCoherent")));
    EXPECT_NEAR(offsetThroughLibrary_ms(params), -2000, 100);

    // chassis 0 was left alone
    const std::string host0 = simtest::text(member(chassis[0].get(), "remoteHost"));
    const simtest::Json untouched =
        getResult(std::stoi(host0.substr(host0.rfind(':') + 1)), "/ztsdwebs/resources/ztsd/syncableDevices/chassis0-1");
    EXPECT_EQ(cJSON_GetNumberValue(member(untouched.get(), "coherencyLossCount")), 0);
    child.signal(SIGINT);
    EXPECT_EQ(child.finish(5000), 0);
}

// A second simulator on a port the first one serves is refused, for the
// web service and for the daemon.
TEST(SimulatorProgram, RefusesAPortAlreadyTaken) {
    ZTSD_SIM_REQUIRED();
    ChildProcess first({simPath()});
    ASSERT_TRUE(first.waitForOutput("\nready\n", 5000)) << first.out();
    const std::vector<simtest::Json> chassis = chassisLines(first.out());
    ASSERT_EQ(chassis.size(), 1u);
    const std::string remoteHost = simtest::text(member(chassis[0].get(), "remoteHost"));
    const std::string webPort = remoteHost.substr(remoteHost.rfind(':') + 1);
    const std::string daemonPort = std::to_string(static_cast<int>(cJSON_GetNumberValue(member(chassis[0].get(), "daemonPort"))));
    const std::vector<std::vector<std::string>> taken{{"--port", webPort}, {"--daemon-port", daemonPort}};
    for (const auto& flags : taken) {
        ChildProcess second({simPath(), flags[0], flags[1]});
        ASSERT_TRUE(second.started());
        EXPECT_EQ(second.finish(5000), 1) << flags[0];
        EXPECT_EQ(second.out().find("ready"), std::string::npos);
        EXPECT_NE(second.err().find(flags[1]), std::string::npos) << second.err();
    }
    first.signal(SIGINT);
    EXPECT_EQ(first.finish(5000), 0);
}
