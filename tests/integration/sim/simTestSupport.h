// Helpers for the simulator's own tests: one HTTP exchange over a real
// loopback connection, and read access to the JSON that comes back.
#pragma once

#include <cjson/cJSON.h>
#include <gtest/gtest.h>
#include <httplib.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "ztsd-sim/chassisSimulator.h"

namespace simtest {

struct JsonDeleter {
    void operator()(cJSON* item) const { cJSON_Delete(item); }
};
using Json = std::unique_ptr<cJSON, JsonDeleter>;

inline Json parse(const std::string& text) { return Json(cJSON_ParseWithLength(text.data(), text.size())); }

inline const cJSON* member(const cJSON* object, const char* key) {
    return object == nullptr ? nullptr : cJSON_GetObjectItemCaseSensitive(object, key);
}

inline std::string text(const cJSON* item) {
    return cJSON_IsString(item) ? std::string(item->valuestring) : std::string("<not a string>");
}

inline std::string printed(const cJSON* item) {
    if (item == nullptr) return "<absent>";
    char* raw = cJSON_PrintUnformatted(item);
    std::string result(raw);
    cJSON_free(raw);
    return result;
}

struct Reply {
    bool arrived = false;            // false: the connection failed or closed without an answer
    httplib::Error error = httplib::Error::Success;
    int status = 0;
    std::string contentType;
    std::string body;
    Json document;                   // the body parsed, null when it is not JSON

    const cJSON* error_() const { return member(document.get(), "error"); }
    bool success() const { return cJSON_IsTrue(member(error_(), "success")); }
    double errorCode() const {
        const cJSON* code = member(error_(), "errorCode");
        return cJSON_IsNumber(code) ? code->valuedouble : -1e300;
    }
    std::string errorText() const { return text(member(error_(), "errorText")); }
    const cJSON* errorInfo() const { return member(error_(), "errorInfo"); }
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
    reply.contentType = result->get_header_value("Content-Type");
    reply.body = result->body;
    reply.document = parse(reply.body);
    return reply;
}

// Polls condition every millisecond until it holds or timeout_ms passes.
inline bool waitFor(const std::function<bool()>& condition, int timeout_ms = 3000) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

inline std::int64_t elapsed_ms(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - since).count();
}

}  // namespace simtest
