// The standalone ztsd-sim program: started as a child process, it prints the
// URIs it serves, answers on them, and exits cleanly on SIGTERM.
#include <gtest/gtest.h>
#include <httplib.h>
#include <signal.h>
#include <unistd.h>

#include <climits>
#include <regex>
#include <string>
#include <vector>

#include "integration/sim/simTestSupport.h"

using simtest::ChildProcess;
using simtest::member;

namespace {

// The program is built beside this test binary: <build>/tools/ztsd-sim.
std::string programPath() {
    char self[PATH_MAX] = {};
    const ssize_t length = ::readlink("/proc/self/exe", self, sizeof self - 1);
    if (length <= 0) return "";
    std::string path(self, static_cast<std::size_t>(length));
    path = path.substr(0, path.rfind('/'));
    path = path.substr(0, path.rfind('/')) + "/tools/ztsd-sim";
    return ::access(path.c_str(), X_OK) == 0 ? path : "";
}

// The "result" of a GET on the chassis at port.
simtest::Json getResult(int port, const std::string& path) {
    httplib::Client client("127.0.0.1", port);
    client.set_read_timeout(5, 0);
    const httplib::Result reply = client.Get(path.c_str());
    simtest::Json document = simtest::parse(reply ? reply->body : "");
    return simtest::Json(document ? cJSON_DetachItemFromObjectCaseSensitive(document.get(), "result") : nullptr);
}

}  // namespace

TEST(SimulatorProgram, ServesThePrintedUrisAndStopsOnSigterm) {
    const std::string program = programPath();
    if (program.empty()) GTEST_SKIP() << "ztsd-sim is not built";
    ChildProcess child({program, "--port", "0", "--chassis", "2", "--devices-per-chassis", "2", "--timescales", "1",
                        "--incoherent"});
    ASSERT_TRUE(child.started());
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

TEST(SimulatorProgram, RefusesArgumentsOutOfRange) {
    const std::string program = programPath();
    if (program.empty()) GTEST_SKIP() << "ztsd-sim is not built";
    ChildProcess zeroChassis({program, "--chassis", "0"});
    ASSERT_TRUE(zeroChassis.started());
    EXPECT_GT(zeroChassis.finish(5000), 0);  // -1 would mean it kept running
    ChildProcess pastLastPort({program, "--port", "65535", "--chassis", "2"});
    ASSERT_TRUE(pastLastPort.started());
    EXPECT_EQ(pastLastPort.finish(5000), 2);
}
