// The ztsdctl commands. Each run function prints its result on stdout (one
// JSON object per line with json set) and returns the process exit status;
// a failure the library reports leaves as LibraryError, for main to print.
//
// Exit statuses:
//   0  success; for domain and device: coherent (coherency held)
//   1  coherency lost or not reached (domain, device, demo)
//   2  the library reported an error (its code and JSON report go to stderr),
//      or another failure stopped the command
//   64 the command line is wrong
#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "chassisAccess.h"
#include "correlation.h"
#include "domainSession.h"

namespace ztsdctl {

enum ExitStatus : int { kExitOk = 0, kExitNotCoherent = 1, kExitFailure = 2, kExitUsage = 64 };

struct ListOptions {
    ChassisAddress chassis;
};
int runList(const ListOptions& options, bool json);

struct DeviceOptions {
    std::string uri;
};
int runDevice(const DeviceOptions& options, bool json);

struct TimeOptions {
    std::string uri;
    std::string host;
    std::uint32_t port = 0;
};
int runTime(const TimeOptions& options, bool json);

struct CorrelateOptions {
    std::string uri;
    std::string host;
    std::uint32_t port = 0;
    CorrelationSettings settings;
    std::optional<ztsdlib_Timestamp> at;
    bool atIsRemote = false;
};
int runCorrelate(const CorrelateOptions& options, bool json);

struct DomainOptions {
    std::vector<ChassisAddress> chassis;
    DomainSettings settings;
    std::uint32_t timeout_s = 10;
    std::optional<double> watch_s;   // check every watch_s seconds
    unsigned checks = 0;             // with watch: stop after this many checks; 0 = until Ctrl-C
    bool verbose = false;            // with a start that timed out: the library's whole report too
    bool csv = false;                // checks as CSV rows (a header first) instead of tables
    std::vector<std::string> extraDevices;  // further members by device URI (other devices of a chassis)
    bool allDevices = false;                // every device each chassis lists is a member
    std::string metricsListen;       // ADDR:PORT of a Prometheus metrics server while watching; "" = none
};
int runDomain(const DomainOptions& options, bool json);

int runDemo(bool json);

// Shared by the commands and the demo.
void printCorrelation(std::ostream& out, const CorrelationResult& result);
std::string correlationJson(const CorrelationResult& result);
std::string progressText(std::int64_t elapsed_ms, std::uint32_t timeout_s);

}  // namespace ztsdctl
