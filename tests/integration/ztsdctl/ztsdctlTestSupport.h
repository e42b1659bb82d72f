// Running the built ztsdctl as a child process (through the simulator
// tests' child-process runner) and reading its JSON lines with an
// independent parser.
#pragma once

#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "integration/sim/simTestSupport.h"

namespace ctltest {

// The binary under test; "" when the build has no ztsdctl (tests skip).
#ifdef ZTSDCTL_PATH
inline std::string programPath() { return ZTSDCTL_PATH; }
#else
inline std::string programPath() { return ""; }
#endif

#define ZTSDCTL_REQUIRED() \
    if (ctltest::programPath().empty()) GTEST_SKIP() << "ztsdctl is not built"

using simtest::Json;
using simtest::lines;
using simtest::parse;
inline const cJSON* at(const cJSON* object, const char* key) { return simtest::member(object, key); }
inline std::string str(const cJSON* item) { return simtest::text(item); }
inline double num(const cJSON* item) { return cJSON_IsNumber(item) ? item->valuedouble : -1e300; }

// The "time" of every event.
inline const std::regex kRfc3339(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)");

// A running ztsdctl with these arguments; killed if still running when destroyed.
class Ztsdctl : public simtest::ChildProcess {
public:
    explicit Ztsdctl(std::vector<std::string> arguments)
        : ChildProcess((arguments.insert(arguments.begin(), programPath()), arguments)) {}
};

// A domain command line: the chassis addresses, a 1000 ns offset, minSync_ms
// and the host's timescale as its requirements, then `more`.
inline std::vector<std::string> domainCommand(std::vector<std::string> addresses, const std::vector<std::string>& more,
                                              const char* minSync_ms = "10") {
    addresses.insert(addresses.begin(), "domain");
    for (const char* option : {"--max-offset-ns", "1000", "--min-sync-ms", minSync_ms, "--timescale",
                               "/localhost/ztsds/timescales/system"})
        addresses.push_back(option);
    addresses.insert(addresses.end(), more.begin(), more.end());
    return addresses;
}

struct Run {
    int exitStatus;  // -1: killed after the time-out
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
