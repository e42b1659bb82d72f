// Running the built ztsdctl as a child process: its arguments, both output
// streams on pipes, a bounded wait for its exit (killed when it overstays),
// signals, and reading its JSON lines with an independent parser.
#pragma once

#include <cjson/cJSON.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "integration/sim/simTestSupport.h"

extern char** environ;

namespace ctltest {

// The binary under test; "" when the build has no ztsdctl (tests skip).
#ifdef ZTSDCTL_PATH
inline std::string programPath() { return ZTSDCTL_PATH; }
#else
inline std::string programPath() { return ""; }
#endif

#define ZTSDCTL_REQUIRED() \
    if (ctltest::programPath().empty()) GTEST_SKIP() << "ztsdctl is not built"

// JSON read with an independent parser, through the simulator tests' helpers.
using simtest::Json;
using simtest::parse;
inline const cJSON* at(const cJSON* object, const char* key) { return simtest::member(object, key); }
inline std::string str(const cJSON* item) { return simtest::text(item); }
inline double num(const cJSON* item) { return cJSON_IsNumber(item) ? item->valuedouble : -1e300; }

inline std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) result.push_back(line);
    return result;
}

// A running ztsdctl. The destructor kills it if it is still running.
class Ztsdctl {
public:
    explicit Ztsdctl(const std::vector<std::string>& arguments) {
        int out[2], err[2];
        if (::pipe(out) != 0) return;
        if (::pipe(err) != 0) {
            ::close(out[0]);
            ::close(out[1]);
            return;
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
        posix_spawn_file_actions_addclose(&actions, out[0]);
        posix_spawn_file_actions_addclose(&actions, err[0]);
        std::vector<std::string> all{programPath()};
        all.insert(all.end(), arguments.begin(), arguments.end());
        std::vector<char*> argv;
        for (std::string& argument : all) argv.push_back(argument.data());
        argv.push_back(nullptr);
        if (::posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
        posix_spawn_file_actions_destroy(&actions);
        ::close(out[1]);
        ::close(err[1]);
        out_ = out[0];
        err_ = err[0];
    }
    ~Ztsdctl() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        if (out_ >= 0) ::close(out_);
        if (err_ >= 0) ::close(err_);
    }
    Ztsdctl(const Ztsdctl&) = delete;
    Ztsdctl& operator=(const Ztsdctl&) = delete;

    bool started() const { return pid_ > 0; }
    void signal(int number) {
        if (pid_ > 0) ::kill(pid_, number);
    }
    const std::string& out() const { return outText_; }
    const std::string& err() const { return errText_; }

    // Reads output until stdout holds `text` or timeout_ms passes.
    bool waitForOutput(const std::string& text, int timeout_ms) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
        while (outText_.find(text) == std::string::npos) {
            if (std::chrono::steady_clock::now() >= deadline || !pump(50)) return outText_.find(text) != std::string::npos;
        }
        return true;
    }

    // Reads all output and waits for the exit; returns the exit status, or
    // -1 when the program did not end within timeout_ms (it is killed then)
    // or ended on a signal.
    int finish(int timeout_ms) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
        while (std::chrono::steady_clock::now() < deadline && pump(50)) {
        }
        while (pid_ > 0 && std::chrono::steady_clock::now() < deadline) {
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
    // Waits up to ms for output and reads what arrived; false once both
    // streams are closed.
    bool pump(int ms) {
        pollfd ready[2] = {{out_, POLLIN, 0}, {err_, POLLIN, 0}};
        if (out_ < 0 && err_ < 0) return false;
        if (::poll(ready, 2, ms) <= 0) return true;
        readFrom(ready[0], out_, outText_);
        readFrom(ready[1], err_, errText_);
        return out_ >= 0 || err_ >= 0;
    }
    static void readFrom(const pollfd& ready, int& fd, std::string& text) {
        if (fd < 0 || (ready.revents & (POLLIN | POLLHUP | POLLERR)) == 0) return;
        char buffer[4096];
        const ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got > 0) {
            text.append(buffer, static_cast<std::size_t>(got));
        } else {
            ::close(fd);
            fd = -1;
        }
    }

    pid_t pid_ = -1;
    int out_ = -1;
    int err_ = -1;
    std::string outText_;
    std::string errText_;
};

struct Run {
    int exitStatus;
    std::string out;
    std::string err;
};

// Runs ztsdctl to its end (at most timeout_ms).
inline Run run(const std::vector<std::string>& arguments, int timeout_ms = 8000) {
    Ztsdctl child(arguments);
    EXPECT_TRUE(child.started());
    const int status = child.finish(timeout_ms);
    return Run{status, child.out(), child.err()};
}

}  // namespace ctltest
