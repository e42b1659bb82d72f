// Helpers for the simulator's own tests: one HTTP exchange over a real
// loopback connection, read access to the JSON that comes back, a child
// process with its output on pipes (the simulator and ztsdctl programs), and
// what the ztsd-sim program prints and its control server takes.
#pragma once

#include <cjson/cJSON.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "unit/support/statusFixture.h"
#include "unit/support/timing.h"
#include "ztsd-sim/chassisSimulator.h"

extern char** environ;

namespace simtest {

using Json = ztsdtest::CJsonPtr;
inline Json parse(const std::string& text) { return ztsdtest::parseJson(text); }

inline const cJSON* member(const cJSON* object, const char* key) {
    return object == nullptr ? nullptr : cJSON_GetObjectItemCaseSensitive(object, key);
}

inline std::string text(const cJSON* item) {
    return cJSON_IsString(item) ? std::string(item->valuestring) : std::string("<not a string>");
}

struct Reply {
    bool arrived = false;            // false: the connection failed or closed without an answer
    httplib::Error error = httplib::Error::Success;
    int status = 0;
    std::string body;
    Json document;                   // the body parsed, null when it is not JSON

    const cJSON* result() const { return member(document.get(), "result"); }
};

// Sends one request to the simulator on a fresh connection.
inline Reply exchange(const ztsdsim::ChassisSimulator& simulator, const std::string& method,
                      const std::string& path, const std::string& body = "", int readTimeout_s = 5) {
    httplib::Client client("127.0.0.1", simulator.port());
    client.set_connection_timeout(2, 0);
    client.set_read_timeout(readTimeout_s, 0);
    client.set_tcp_nodelay(true);
    httplib::Headers headers{{"Accept", ztsdsim::kMediaType}};
    httplib::Result result = method == "GET"    ? client.Get(path.c_str(), headers)
                             : method == "PUT"  ? client.Put(path.c_str(), headers, body, ztsdsim::kMediaType)
                             : method == "POST" ? client.Post(path.c_str(), headers, body, ztsdsim::kMediaType)
                                                : client.Delete(path.c_str(), headers);
    Reply reply;
    reply.error = result.error();
    if (!result) return reply;
    reply.arrived = true;
    reply.status = result->status;
    reply.body = result->body;
    reply.document = parse(reply.body);
    return reply;
}

// Polls condition every millisecond until it holds or timeout_ms passes.
inline bool waitFor(const std::function<bool()>& condition, int timeout_ms = 3000) {
    return ztsdtest::eventually(condition, std::chrono::milliseconds(timeout_ms));
}

inline std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) result.push_back(line);
    return result;
}

// The ztsd-sim program built beside the tests; "" when the build has none.
#ifdef ZTSD_SIM_PATH
inline std::string simPath() { return ZTSD_SIM_PATH; }
#else
inline std::string simPath() { return ""; }
#endif

#define ZTSD_SIM_REQUIRED() \
    if (simtest::simPath().empty()) GTEST_SKIP() << "ztsd-sim is not built"

// The JSON line ztsd-sim prints for each chassis (the lines that start with "{").
inline std::vector<Json> chassisLines(const std::string& out) {
    std::vector<Json> found;
    for (const std::string& line : lines(out)) {
        if (line.rfind("{", 0) == 0) found.push_back(parse(line));
    }
    return found;
}

// POSTs path under a chassis' control URL (http://host:port/chassis/c/);
// returns the status, 0 when nothing answered.
inline int postControl(const std::string& url, const std::string& path) {
    std::smatch match;
    if (!std::regex_match(url, match, std::regex(R"(http://([^:/]+):(\d+)(/.*))"))) return 0;
    httplib::Client client(match[1].str(), std::stoi(match[2].str()));
    client.set_read_timeout(5, 0);
    const httplib::Result reply = client.Post((match[3].str() + path).c_str(), "", "text/plain");
    return reply ? reply->status : 0;
}

// A child process (argv[0] is the program) with both output streams on
// pipes. The destructor kills it if it is still running.
class ChildProcess {
public:
    explicit ChildProcess(std::vector<std::string> arguments) {
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
        std::vector<char*> argv;
        for (std::string& argument : arguments) argv.push_back(argument.data());
        argv.push_back(nullptr);
        if (::posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
        posix_spawn_file_actions_destroy(&actions);
        ::close(out[1]);
        ::close(err[1]);
        out_ = out[0];
        err_ = err[0];
    }
    ~ChildProcess() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        if (out_ >= 0) ::close(out_);
        if (err_ >= 0) ::close(err_);
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool started() const { return pid_ > 0; }
    void signal(int number) {
        if (pid_ > 0) ::kill(pid_, number);
    }
    const std::string& out() const { return outText_; }
    const std::string& err() const { return errText_; }

    // Reads output until stdout (stderr) holds `text` or timeout_ms passes.
    bool waitForOutput(const std::string& text, int timeout_ms) { return waitFor(outText_, text, timeout_ms); }
    bool waitForError(const std::string& text, int timeout_ms) { return waitFor(errText_, text, timeout_ms); }

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
    bool waitFor(const std::string& stream, const std::string& text, int timeout_ms) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
        while (stream.find(text) == std::string::npos) {
            if (std::chrono::steady_clock::now() >= deadline || !pump(50)) return stream.find(text) != std::string::npos;
        }
        return true;
    }

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

}  // namespace simtest
