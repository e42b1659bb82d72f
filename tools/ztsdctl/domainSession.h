// One sync domain over loaded chassis, as the domain command and the demo
// run it: the library's thread pool, the domain with every chassis' device as
// a member, a waiting start with a progress callback, and checks that pair
// the domain's own verdicts with a per-member table.
//
// Threads: the waiting start runs on a helper thread while the calling
// thread reports progress; nothing else touches the domain or the devices
// until the start has returned. A check asks the members' devices in
// parallel (one thread per device, each device on its own thread), after the
// domain's own queries have returned. Use one session from one thread.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "chassisAccess.h"
#include "libraryCalls.h"
#include "timeText.h"

namespace ztsdctl {

struct DomainSettings {
    std::string uri = "/localhost/ztsdctl/syncDomains/default";
    std::string timescaleUri;        // the required timescale
    std::uint32_t maxOffset_ns = 0;
    std::uint32_t minSyncDuration_ms = 0;
};

struct MemberRow {
    std::string uri;
    bool coherent = false;
    std::uint32_t lossCount = 0;
    std::int64_t lossChange = 0;     // since the previous check (the first: since the start)
    bool reachable = true;           // false: the device did not answer; error says why
    std::string error;               // the library's innermost message when unreachable
    std::int32_t errorCode = 0;      // the library's code when unreachable
};

struct CheckResult {
    unsigned number = 0;             // 1 for the first check after the start
    std::int64_t elapsed_ms = 0;     // since the start began
    bool coherentSinceLastCheck = false;  // the domain's isCoherentSinceLastChecked
    bool coherentSinceStart = false;      // the domain's isCoherent
    std::string domainError;              // when the domain's verdicts failed (both are false then)
    std::vector<MemberRow> members;
};

struct StartResult {
    bool coherent = false;
    std::int64_t elapsed_ms = 0;
    std::optional<LibraryError> notReached;  // the time-out the start ended with
    bool cancelled = false;                  // ended by Ctrl-C (notReached holds the library's report)
};

class DomainSession {
public:
    // Makes the pool (one thread per chassis, at most 64), the domain, and
    // adds every chassis' device. Throws LibraryError.
    DomainSession(std::vector<LoadedChassis> chassis, const DomainSettings& settings);
    ~DomainSession();
    DomainSession(const DomainSession&) = delete;
    DomainSession& operator=(const DomainSession&) = delete;

    // A waiting start with timeout_s; calls progress(elapsed_ms) about every
    // 100 ms while it waits. Coherency not reached in time is a result (with
    // the library's time-out report); any other failure throws LibraryError.
    StartResult start(std::uint32_t timeout_s, const std::function<void(std::int64_t elapsed_ms)>& progress);
    CheckResult check();
    void stop();
    std::string toJson();

    const std::vector<LoadedChassis>& chassis() const { return chassis_; }
    std::int64_t elapsedSinceStart_ms() const;

    // Every member's own answer now (in member order); a member that does
    // not answer is a row with reachable false and its error.
    std::vector<MemberRow> askMembers();

private:

    // Declared in the order they are needed; destroyed the other way round,
    // so the domain goes before the pool, the timescale and the devices.
    std::vector<LoadedChassis> chassis_;
    PoolHandle pool_;
    TimescaleHandle timescale_;
    DomainHandle domain_;
    std::vector<std::uint32_t> lossCounts_;  // per member, as of the last check
    unsigned checks_ = 0;
    std::int64_t startedAt_ns_ = 0;
    bool running_ = false;
};

// The human table of one check.
std::string checkTable(const CheckResult& check);
// The check as a JSON object ("event":"check").
std::string checkJson(const CheckResult& check);

// The check as CSV rows, one per member (no header), and the header.
std::string checkCsv(const CheckResult& check);
extern const char* const kCheckCsvHeader;

}  // namespace ztsdctl
