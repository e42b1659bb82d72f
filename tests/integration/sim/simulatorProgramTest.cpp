// The standalone ztsd-sim program: started as a child process, it prints the
// URIs it serves, answers on them, and exits cleanly on SIGTERM.
#include <gtest/gtest.h>
#include <httplib.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

#include "integration/sim/simTestSupport.h"

extern char** environ;

using simtest::member;
using simtest::text;

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

// A child process with its standard output on a pipe; killed if still
// running when the test ends.
class Child {
public:
    explicit Child(const std::vector<std::string>& arguments) {
        int pipeEnds[2];
        if (::pipe(pipeEnds) != 0) return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], STDOUT_FILENO);
        posix_spawn_file_actions_addclose(&actions, pipeEnds[0]);
        std::vector<char*> argv;
        for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        if (::posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
        posix_spawn_file_actions_destroy(&actions);
        ::close(pipeEnds[1]);
        output_ = pipeEnds[0];
    }
    ~Child() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        if (output_ >= 0) ::close(output_);
    }
    bool started() const { return pid_ > 0; }
    pid_t pid() const { return pid_; }

    // Reads output until a line equal to `last` arrives or timeout_ms passes.
    std::vector<std::string> readLinesUntil(const std::string& last, int timeout_ms) {
        std::vector<std::string> lines;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
        while (std::chrono::steady_clock::now() < deadline) {
            std::size_t newline;
            while ((newline = pending_.find('\n')) != std::string::npos) {
                lines.push_back(pending_.substr(0, newline));
                pending_.erase(0, newline + 1);
                if (lines.back() == last) return lines;
            }
            pollfd ready{output_, POLLIN, 0};
            if (::poll(&ready, 1, 50) <= 0) continue;
            char buffer[4096];
            const ssize_t got = ::read(output_, buffer, sizeof buffer);
            if (got <= 0) break;
            pending_.append(buffer, static_cast<std::size_t>(got));
        }
        return lines;
    }

    // Waits up to timeout_ms for the exit; returns the exit status, or -1.
    int waitExit(int timeout_ms) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
        while (std::chrono::steady_clock::now() < deadline) {
            int status = 0;
            if (::waitpid(pid_, &status, WNOHANG) == pid_) {
                pid_ = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            }
            ::usleep(5000);
        }
        return -1;
    }

private:
    pid_t pid_ = -1;
    int output_ = -1;
    std::string pending_;
};

}  // namespace

TEST(SimulatorProgram, ServesThePrintedUrisAndStopsOnSigterm) {
    const std::string program = programPath();
    if (program.empty()) GTEST_SKIP() << "ztsd-sim is not built";
    Child child({program, "--port", "0", "--chassis", "2", "--devices-per-chassis", "2", "--timescales", "1",
                 "--incoherent"});
    ASSERT_TRUE(child.started());
    const std::vector<std::string> lines = child.readLinesUntil("ready", 5000);
    ASSERT_FALSE(lines.empty());
    ASSERT_EQ(lines.back(), "ready");

    // "chassis <c> http://127.0.0.1:<port>/", then its URIs indented.
    const std::regex chassisLine(R"(chassis (\d+) http://127\.0\.0\.1:(\d+)/)");
    std::vector<int> ports;
    std::vector<std::vector<std::string>> uris;
    for (const std::string& line : lines) {
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
        const std::string host = "127.0.0.1:" + std::to_string(ports[c]);
        const std::string prefix = "/" + host + "/ztsdwebs/resources/ztsd/";
        const std::string name = "chassis" + std::to_string(c);
        const std::vector<std::string> expected{prefix + "syncableDevices/" + name,
                                                prefix + "syncableDevices/" + name + "-1",
                                                prefix + "timescales/00-80-2F-00-00-00-0" + std::to_string(c) + "-00"};
        EXPECT_EQ(uris[c], expected);

        httplib::Client client("127.0.0.1", ports[c]);
        client.set_read_timeout(5, 0);
        const httplib::Result listing = client.Get("/ztsdwebs/resources/");
        ASSERT_TRUE(listing);
        const simtest::Json document = simtest::parse(listing->body);
        std::vector<std::string> listed;
        const cJSON* entry = nullptr;
        cJSON_ArrayForEach(entry, member(member(document.get(), "result"), "resources")) {
            listed.push_back(text(member(entry, "uri")));
        }
        EXPECT_EQ(listed, expected);

        const httplib::Result device = client.Get(("/ztsdwebs/resources/ztsd/syncableDevices/" + name).c_str());
        ASSERT_TRUE(device);
        const simtest::Json payload = simtest::parse(device->body);
        EXPECT_TRUE(cJSON_IsFalse(member(member(payload.get(), "result"), "isCoherent")));  // --incoherent
    }

    ASSERT_EQ(::kill(child.pid(), SIGTERM), 0);
    const std::vector<std::string> tail = child.readLinesUntil("stopped on SIGTERM", 5000);
    ASSERT_FALSE(tail.empty());
    EXPECT_EQ(tail.back(), "stopped on SIGTERM");
    EXPECT_EQ(child.waitExit(5000), 0);
}

TEST(SimulatorProgram, RefusesArgumentsOutOfRange) {
    const std::string program = programPath();
    if (program.empty()) GTEST_SKIP() << "ztsd-sim is not built";
    Child zeroChassis({program, "--chassis", "0"});
    ASSERT_TRUE(zeroChassis.started());
    EXPECT_GT(zeroChassis.waitExit(5000), 0);  // -1 would mean it kept running
    Child pastLastPort({program, "--port", "65535", "--chassis", "2"});
    ASSERT_TRUE(pastLastPort.started());
    EXPECT_EQ(pastLastPort.waitExit(5000), 2);
}
