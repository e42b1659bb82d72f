#include "syncdomain/syncDomain.h"

#include <algorithm>
#include <chrono>
#include <memory>
#include <thread>

#include "errors/exception.h"
#include "syncdomain/domainChecks.h"
#include "syncdomain/memberTasks.h"

namespace ztsdlib {
namespace {

constexpr const char* kFile = "source\\ztsdlib\\syncDomain";
constexpr const char* kDebug = "ztsyncdomain_debug";
constexpr const char* kMissingParameter = "Encountered missing parameter needed for task completion.";

const char* boolText(bool value) { return value ? "true" : "false"; }

}  // namespace

SyncDomain::SyncDomain(std::string uriText, TimescaleInterface& timescale, std::uint32_t maxOffset,
                       std::uint32_t minSyncDuration, ThreadPoolInterface* pool)
    : uri(std::move(uriText)),
      requiredTimescaleUri(timescale.getUri()),
      maxOffset_ns(maxOffset),
      minSyncDuration_ms(minSyncDuration),
      threadPool(pool) {
    if (!threadPool) {
        zterr::raise(ZTERR_SITE(kFile, zterr::name::ztapalerr_invalidParameter), zterr::code::ztapalerr_invalidParameter,
                     kDebug, {{"message", kMissingParameter}, {"threadPool", "nullptr"}});
    }
    requirementsJson = "{\"version\":1,\"syncDomainUri\":\"" + uri + "\",\"coherencyRequirements\":{" +
                       "\"requiredTimescaleUri\":\"" + requiredTimescaleUri + "\",\"maxOffset_ns\":" +
                       std::to_string(maxOffset_ns) + ",\"minSyncDuration_ms\":" + std::to_string(minSyncDuration_ms) +
                       "},\"data\":{}}";
}

SyncDomain::~SyncDomain() { lifeline->close(); }

bool SyncDomain::isMember(const std::string& deviceUri) const { return members.count(deviceUri) != 0; }

const SyncDomain::MemberState* SyncDomain::memberState(const std::string& deviceUri) const {
    const auto it = members.find(deviceUri);
    return it == members.end() ? nullptr : &it->second.state;
}

void SyncDomain::addSyncableDevice(SyncableDeviceInterface* device) {
    domainChecks::checkCanAddDevice(kFile, device, isDomainRunning, uri);
    const std::string deviceUri = device->getUri();
    if (members.count(deviceUri)) return;
    device->setCoherencyRequirements(requirementsJson, uri);
    members.emplace(deviceUri, Member{device, MemberState{}});
}

SyncDomain::CheckResults SyncDomain::checkMembers(ztsdtools::MonotonicTimer& timer, const StartCancel* cancel) {
    auto signal = std::make_shared<CompletionSignal>();
    std::vector<std::shared_ptr<CheckMemberCoherencyStateTask>> checks;
    std::vector<std::shared_ptr<TaskBase>> tasks;
    checks.reserve(members.size());
    tasks.reserve(members.size());
    for (auto& [memberUri, member] : members) {
        checks.push_back(std::make_shared<CheckMemberCoherencyStateTask>(lifeline, signal, memberUri, *member.device));
        tasks.push_back(checks.back());
    }
    awaitMemberTasks(*threadPool, tasks, timer, signal, uri, cancel);
    CheckResults results;
    results.reserve(checks.size());
    for (const auto& check : checks) results[check->memberUri] = {check->isCoherent, check->coherencyLossCount};
    return results;
}

std::vector<std::string> SyncDomain::getMemberJsons(ztsdtools::MonotonicTimer& timer) {
    auto signal = std::make_shared<CompletionSignal>();
    std::vector<std::shared_ptr<GetMemberJsonTask>> jsonTasks;
    std::vector<std::shared_ptr<TaskBase>> tasks;
    for (auto& entry : members) {
        jsonTasks.push_back(std::make_shared<GetMemberJsonTask>(lifeline, signal, *entry.second.device));
        tasks.push_back(jsonTasks.back());
    }
    awaitMemberTasks(*threadPool, tasks, timer, signal, uri);
    std::vector<std::string> texts;
    texts.reserve(jsonTasks.size());
    for (const auto& task : jsonTasks) texts.push_back(task->text());
    return texts;
}

void SyncDomain::saveAsStartAndLastCheck(const CheckResults& results) {
    for (const auto& [memberUri, result] : results) {
        auto it = members.find(memberUri);
        if (it == members.end()) continue;
        MemberState& state = it->second.state;
        state.isCoherentAtStart = state.isCoherentAtLastCheck = result.first;
        state.coherencyLossCountAtStart = state.coherencyLossCountAtLastCheck = result.second;
    }
}

bool SyncDomain::start(std::uint32_t timeout_s) {
    startV2(true, true, timeout_s);
    return true;
}

void SyncDomain::startV2(bool waitToBecomeCoherent, bool saveInitialCoherency, std::uint32_t timeout_s) {
    domainChecks::checkCanStart(kFile, isDomainRunning, !members.empty(), &uri);
    if (!saveInitialCoherency) {
        if (waitToBecomeCoherent) {
            zterr::raise(ZTERR_SITE(kFile, zterr::name::ztapalerr_featureUnsupported),
                         zterr::code::ztapalerr_featureUnsupported, kDebug,
                         {{"message",
                           "Requesting to start Sync Domain with wait to be coherent but not saving initial coherency "
                           "is not supported."},
                          {"saveInitialCoherency", false},
                          {"waitToBecomeCoherent", true},
                          {"syncDomainUri", uri}});
        }
        isDomainRunning = true;
        return;
    }
    // From here on, cancelStart() from another thread ends this start.
    struct CancelWindow {
        StartCancel& cancel;
        explicit CancelWindow(StartCancel& c) : cancel(c) { cancel.open(); }
        ~CancelWindow() { cancel.close(); }
    } window(startCancel);
    if (!waitToBecomeCoherent) {
        ztsdtools::MonotonicTimer timer(kCheckTimeout_ms);
        saveAsStartAndLastCheck(checkMembers(timer, &startCancel));
        isDomainRunning = true;
        return;
    }
    if (timeout_s == 0) {
        zterr::raise(ZTERR_SITE(kFile, zterr::name::ztapalerr_invalidParameter), zterr::code::ztapalerr_invalidParameter,
                     kDebug,
                     {{"message", "Please provide a non-zero timeout for starting the Sync Domain."},
                      {"syncDomainUri", uri},
                      {"waitTimeout_s", std::uint32_t{0}}});
    }
    startTimeout_s = timeout_s;
    ztsdtools::MonotonicTimer timer(static_cast<std::int64_t>(timeout_s) * 1000);
    for (;;) {
        const ztsdtools::MonotonicStopWatch pass;
        const CheckResults results = checkMembers(timer, &startCancel);
        saveAsStartAndLastCheck(results);
        isCoherentLatch = true;
        for (const auto& entry : results) {
            if (entry.second.first) continue;
            if (timer.hasExpired()) raiseStartTimedOut();
            isCoherentLatch = false;
            break;
        }
        if (isCoherentLatch) break;
        // Not coherent yet: the next pass starts kPassSpacing_ms after this
        // one did, or as soon as the timer runs out, which ends the start
        // with the same error as a pass that ends after it.
        const std::int64_t pause_ms = std::min(kPassSpacing_ms - pass.elapsed_ms(), timer.timeout() - timer.elapsed_ms());
        if (pause_ms > 0 && startCancel.sleepUnlessRequested(std::chrono::milliseconds(pause_ms)))
            raiseStartCancelled(uri);
        if (startCancel.requested()) raiseStartCancelled(uri);
        if (timer.hasExpired()) raiseStartTimedOut();
    }
    isDomainRunning = true;
}

bool SyncDomain::cancelStart() { return startCancel.request(); }

void SyncDomain::raiseStartTimedOut() const {
    zterr::raise(ZTERR_SITE(kFile, zterr::name::ztapalerr_operationTimedOut), zterr::code::ztapalerr_operationTimedOut,
                 kDebug,
                 {{"message", "Timed out while waiting for one or more syncable devices to respond."},
                  {"syncDomainUri", uri},
                  {"timeoutInSeconds", startTimeout_s}});
}

bool SyncDomain::isCoherent() {
    domainChecks::checkCanQueryCoherency(kFile, isDomainRunning, &uri);
    if (!isCoherentLatch) return false;
    ztsdtools::MonotonicTimer timer(kCheckTimeout_ms);
    for (const auto& [memberUri, result] : checkMembers(timer)) {
        const auto it = members.find(memberUri);
        const MemberState& state = it->second.state;
        if (!result.first || !state.isCoherentAtStart || result.second != state.coherencyLossCountAtStart) {
            isCoherentLatch = false;
            return false;
        }
    }
    return true;
}

bool SyncDomain::isCoherentSinceLastChecked() {
    domainChecks::checkCanQueryCoherency(kFile, isDomainRunning, &uri);
    ztsdtools::MonotonicTimer timer(kCheckTimeout_ms);
    const CheckResults results = checkMembers(timer);
    bool coherent = true;
    for (const auto& [memberUri, result] : results) {
        const MemberState& state = members.find(memberUri)->second.state;
        if (!result.first || !state.isCoherentAtLastCheck || result.second != state.coherencyLossCountAtLastCheck)
            coherent = false;
    }
    for (const auto& [memberUri, result] : results) {
        MemberState& state = members.find(memberUri)->second.state;
        state.isCoherentAtLastCheck = result.first;
        state.coherencyLossCountAtLastCheck = result.second;
    }
    return coherent;
}

std::string SyncDomain::toJson() {
    std::string json = std::string("{\"type\":\"SyncDomain\",\"uri\":\"") + uri + "\",\"isCoherent\":" +
                       boolText(isCoherentLatch) + ",\"coherencyRequirements\":{\"requiredTimescaleUri\":\"" +
                       requiredTimescaleUri + "\",\"maxOffset_ns\":" + std::to_string(maxOffset_ns) +
                       ",\"minSyncDuration_ms\":" + std::to_string(minSyncDuration_ms) +
                       "},\"isRunning\":" + boolText(isDomainRunning) + ",\"syncableDevices\":[";
    if (!members.empty()) {
        ztsdtools::MonotonicTimer timer(kCheckTimeout_ms);
        bool first = true;
        for (const std::string& text : getMemberJsons(timer)) {
            if (!first) json += ",";
            json += text;
            first = false;
        }
    }
    return json + "]}";
}

}  // namespace ztsdlib
