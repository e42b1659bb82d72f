#include "domainSession.h"

#include <algorithm>
#include <chrono>
#include <future>
#include <sstream>

#include "errorSummary.h"
#include "interrupt.h"
#include "jsonText.h"

namespace ztsdctl {

namespace {

constexpr std::size_t kMaxPoolThreads = 64;

std::int64_t steadyNow_ns() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

bool domainQuery(const char* what, bool (*query)(ztsdlib_SyncDomain*, zterr_Status*), ztsdlib_SyncDomain* domain) {
    return call(what, [&](zterr_Status* status) { return query(domain, status); });
}

}  // namespace

DomainSession::DomainSession(std::vector<LoadedChassis> chassis, const DomainSettings& settings)
    : chassis_(std::move(chassis)) {
    const std::size_t threads = std::clamp<std::size_t>(chassis_.size(), 1, kMaxPoolThreads);
    pool_.reset(call("ztsdlib_ThreadPool_create", [&](zterr_Status* status) {
        return ztsdlib_ThreadPool_create(static_cast<uint32_t>(threads), status);
    }));
    if (!pool_) throw std::runtime_error("ztsdlib_ThreadPool_create returned no pool");
    // The domain reads only the URI of its required timescale; a host
    // timescale under that name carries it.
    timescale_ = owned<TimescaleHandle>(call("ztsdlib_HostTimescale_create",
                                             [&](zterr_Status* status) {
                                                 return ztsdlib_HostTimescale_create(settings.timescaleUri.c_str(),
                                                                                     status);
                                             }),
                                        "ztsdlib_HostTimescale_create");
    domain_ = owned<DomainHandle>(call("ztsdlib_SyncDomain_create",
                                       [&](zterr_Status* status) {
                                           return ztsdlib_SyncDomain_create(
                                               settings.uri.c_str(), timescale_.get(), settings.maxOffset_ns,
                                               settings.minSyncDuration_ms, pool_.get(), status);
                                       }),
                                  "ztsdlib_SyncDomain_create");
    for (const LoadedChassis& member : chassis_) {
        try {  // adding a device places the domain's requirements on it
            call("ztsdlib_SyncDomain_addSyncableDevice", [&](zterr_Status* status) {
                ztsdlib_SyncDomain_addSyncableDevice(domain_.get(), member.device.get(), status);
            });
        } catch (LibraryError& error) {
            throw error.setContext(uriOf(member.device.get()));
        }
    }
}

DomainSession::~DomainSession() {
    if (running_) {
        Status status;
        ztsdlib_SyncDomain_stop(domain_.get(), status.get());
    }
}

std::int64_t DomainSession::elapsedSinceStart_ms() const { return (steadyNow_ns() - startedAt_ns_) / 1000000; }

StartResult DomainSession::start(std::uint32_t timeout_s,
                                 const std::function<void(std::int64_t elapsed_ms)>& progress) {
    startedAt_ns_ = steadyNow_ns();
    ztsdlib_SyncDomain* domain = domain_.get();
    // The start blocks for up to timeout_s; it runs on its own thread so this
    // one can keep the user informed. Its status lives on that thread.
    std::future<std::pair<std::int32_t, std::string>> waiting =
        std::async(std::launch::async, [domain, timeout_s] {
            Status status;
            ztsdlib_SyncDomain_start(domain, timeout_s, status.get());
            return std::make_pair(status.code(), status.report());
        });
    if (progress) progress(0);
    // Ctrl-C asks the library to end the start (it does within about 50 ms).
    // A cancel that finds no start yet (the thread has not reached it) is
    // dropped by the library, so it is asked again at every look.
    bool cancelTaken = false;
    std::int64_t shown_ms = 0;
    while (waiting.wait_for(std::chrono::milliseconds(20)) != std::future_status::ready) {
        if (interrupted() && !cancelTaken) {
            Status status;
            cancelTaken = ztsdlib_SyncDomain_cancelStart(domain, status.get());
        }
        const std::int64_t elapsed_ms = elapsedSinceStart_ms();
        if (progress && elapsed_ms - shown_ms >= 100) progress(shown_ms = elapsed_ms);
    }
    const auto [code, report] = waiting.get();
    StartResult result;
    result.elapsed_ms = elapsedSinceStart_ms();
    if (code == kOperationTimedOut) {  // not coherent within timeout_s, or cancelled
        result.notReached.emplace(code, report);
        result.cancelled = cancelTaken;
        return result;
    }
    if (code < 0) {
        // The report names the request that failed; the error names its member.
        std::vector<std::string> uris;
        for (const LoadedChassis& member : chassis_) uris.push_back(uriOf(member.device.get()));
        LibraryError error(code, report);
        throw error.setContext(memberOfUrl(failedUrl(report), uris));
    }
    running_ = true;
    result.coherent = true;
    checks_ = 0;
    lossCounts_.clear();
    for (const MemberRow& row : askMembers()) lossCounts_.push_back(row.lossCount);
    return result;
}

std::vector<MemberRow> DomainSession::askMembers() {
    std::vector<std::future<MemberRow>> answers;
    answers.reserve(chassis_.size());
    for (const LoadedChassis& member : chassis_) {
        ztsdlib_SyncableDevice* device = member.device.get();
        answers.push_back(std::async(std::launch::async, [device] {
            MemberRow row;
            row.uri = uriOf(device);
            try {
                row.coherent = call("ztsdlib_SyncableDevice_isCoherent", [&](zterr_Status* status) {
                    return ztsdlib_SyncableDevice_isCoherent(device, &row.lossCount, status);
                });
            } catch (const LibraryError& error) {
                row.reachable = false;
                row.errorCode = error.code();
                row.coherent = false;
                row.lossCount = 0;
                const ErrorSummary summary = summarize(error);
                row.error = (summary.hostPort.empty() ? "" : summary.hostPort + ": ") + summary.message;
            }
            return row;
        }));
    }
    // Wait for every answer before the first failure is passed on, so no
    // thread is left using a device.
    for (auto& answer : answers) answer.wait();
    std::vector<MemberRow> rows;
    for (auto& answer : answers) rows.push_back(answer.get());
    return rows;
}

CheckResult DomainSession::check() {
    CheckResult result;
    result.number = ++checks_;
    // A member that does not answer makes the domain's verdicts fail; the
    // watch goes on, with both verdicts false and the member's row saying why.
    try {
        result.coherentSinceLastCheck = domainQuery("ztsdlib_SyncDomain_isCoherentSinceLastChecked",
                                                    ztsdlib_SyncDomain_isCoherentSinceLastChecked, domain_.get());
        result.coherentSinceStart = domainQuery("ztsdlib_SyncDomain_isCoherent", ztsdlib_SyncDomain_isCoherent,
                                                domain_.get());
    } catch (const LibraryError& error) {
        result.coherentSinceLastCheck = false;
        result.coherentSinceStart = false;
        result.domainError = summarize(error).message;
    }
    result.members = askMembers();
    for (std::size_t i = 0; i < result.members.size(); ++i) {
        MemberRow& row = result.members[i];
        if (!row.reachable) continue;  // its count is unknown; the change shows once it answers again
        const std::uint32_t previous = i < lossCounts_.size() ? lossCounts_[i] : row.lossCount;
        row.lossChange = static_cast<std::int64_t>(row.lossCount) - static_cast<std::int64_t>(previous);
        if (i < lossCounts_.size()) lossCounts_[i] = row.lossCount;
    }
    result.elapsed_ms = elapsedSinceStart_ms();
    return result;
}

void DomainSession::stop() {
    if (!running_) return;
    running_ = false;
    call("ztsdlib_SyncDomain_stop", [&](zterr_Status* status) { ztsdlib_SyncDomain_stop(domain_.get(), status); });
}

std::string DomainSession::toJson() {
    return takeText(call("ztsdlib_SyncDomain_toJson",
                         [&](zterr_Status* status) { return ztsdlib_SyncDomain_toJson(domain_.get(), status); }));
}

std::string checkTable(const CheckResult& check) {
    std::ostringstream out;
    out << "check " << check.number << " at " << fixedPoint(check.elapsed_ms, 3, false)
        << " s: coherent since last check: " << (check.coherentSinceLastCheck ? "yes" : "NO")
        << ", since start: " << (check.coherentSinceStart ? "yes" : "NO") << "\n";
    std::size_t width = std::string("member").size();
    for (const MemberRow& row : check.members) width = std::max(width, row.uri.size());
    auto pad = [](const std::string& text, std::size_t size) {
        return text.size() >= size ? text : text + std::string(size - text.size(), ' ');
    };
    auto right = [](const std::string& text, std::size_t size) {
        return text.size() >= size ? text : std::string(size - text.size(), ' ') + text;
    };
    out << "  " << pad("member", width) << "  coherent  " << right("losses", 8) << "  " << right("change", 8) << "\n";
    for (const MemberRow& row : check.members) {
        if (!row.reachable) {
            out << "  " << pad(row.uri, width) << "  unreachable: " << row.error << "\n";
            continue;
        }
        out << "  " << pad(row.uri, width) << "  " << pad(row.coherent ? "yes" : "NO", 8) << "  "
            << right(std::to_string(row.lossCount), 8) << "  " << right(fixedPoint(row.lossChange, 0, true), 8)
            << "\n";
    }
    return out.str();
}

std::string checkJson(const CheckResult& check) {
    std::vector<std::string> members;
    for (const MemberRow& row : check.members) {
        JsonObject member;
        member.addString("uri", row.uri).addBool("reachable", row.reachable).addBool("isCoherent", row.coherent);
        member.addInteger("coherencyLossCount", row.lossCount).addInteger("lossesSinceLastCheck", row.lossChange);
        if (!row.reachable) member.addString("error", row.error);
        members.push_back(member.text());
    }
    JsonObject object;
    object.addString("event", "check").addString("time", utcNow()).addInteger("check", check.number);
    object.addInteger("elapsed_ms", check.elapsed_ms).addBool("coherentSinceLastCheck", check.coherentSinceLastCheck);
    object.addBool("coherentSinceStart", check.coherentSinceStart).addRaw("members", jsonArray(members));
    if (!check.domainError.empty()) object.addString("domainError", check.domainError);
    return object.text();
}

const char* const kCheckCsvHeader =
    "time,check,elapsed_ms,coherentSinceLastCheck,coherentSinceStart,member,reachable,isCoherent,"
    "coherencyLossCount,lossesSinceLastCheck,error";

namespace {

// A CSV field: quoted when it holds a comma, a quote or a line break.
std::string csvField(const std::string& text) {
    if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
    std::string quoted = "\"";
    for (char c : text) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    return quoted + "\"";
}

}  // namespace

std::string checkCsv(const CheckResult& check) {
    const std::string time = utcNow();
    const auto flag = [](bool value) { return value ? "true" : "false"; };
    std::ostringstream out;
    for (const MemberRow& row : check.members) {
        out << time << "," << check.number << "," << check.elapsed_ms << "," << flag(check.coherentSinceLastCheck)
            << "," << flag(check.coherentSinceStart) << "," << csvField(row.uri) << "," << flag(row.reachable) << ","
            << flag(row.coherent) << "," << row.lossCount << "," << row.lossChange << ","
            << csvField(row.reachable ? "" : row.error) << "\n";
    }
    return out.str();
}

}  // namespace ztsdctl
