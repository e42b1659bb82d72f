// Helpers for the simulator's own tests: one HTTP exchange over a real
// loopback connection, read access to the JSON that comes back, a child
// process with its output on pipes (the simulator and ztsdctl programs), and
// what the ztsd-sim program prints and its control server takes.
#pragma once

#include <cjson/cJSON.h>
#include <gtest/gtest.h>
#include <httplib.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <functional>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "integration/sim/childProcess.h"
#include "unit/support/statusFixture.h"
#include "unit/support/timing.h"
#include "ztsd-sim/chassisSimulator.h"

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

}  // namespace simtest
