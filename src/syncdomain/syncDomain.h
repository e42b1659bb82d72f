// A sync domain: devices held to one maximum offset, minimum sync duration
// and required timescale, asked in parallel on the caller's pool.
//
// Threads: the domain has no lock and is used from one caller thread at a
// time. Parallel work happens only inside a fan-out, whose tasks touch their
// own member and their own result; the domain reads the results after all
// tasks are done (see memberTasks.h). A fan-out that fails leaves the tasks
// still running to the pool and abandons the others; the next fan-out asks
// every member at once (devices are safe to ask from several threads). The
// destructor closes the domain's task lifeline: tasks that have not started
// never touch anything of the domain, and it waits only for those inside a
// member, since the caller may release the devices right after it.
//
// A waiting start runs passes until every member is coherent; two passes
// start at least kPassSpacing_ms apart, so a chassis that is slow to lock is
// asked about 20 times a second at most, not as fast as it answers. The pause
// ends at once when the start's timer runs out.
//
// cancelStart() is the one call made from another thread while a start runs
// on the caller's: it ends that start within one fan-out poll (50 ms) with
// -52007 and "cancelled": true, the members' tasks abandoned as on a time-out;
// it does nothing when no start is under way.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "syncdomain/memberTasks.h"
#include "syncdomain/syncDomainInterface.h"
#include "time/monotonicTimer.h"
#include "time/timescaleInterface.h"
#include "ztsdlib/threadPool.hpp"

namespace ztsdlib {

class SyncDomain : public SyncDomainInterface {
public:
    // Member checks outside a waiting start wait this long.
    static constexpr std::int64_t kCheckTimeout_ms = 10000;
    // The least time between the starts of two passes of a waiting start.
    static constexpr std::int64_t kPassSpacing_ms = 50;

    struct MemberState {
        bool isCoherentAtStart = false;
        bool isCoherentAtLastCheck = false;
        std::uint32_t coherencyLossCountAtStart = 0;
        std::uint32_t coherencyLossCountAtLastCheck = 0;
    };

    SyncDomain(std::string uri, TimescaleInterface& timescale, std::uint32_t maxOffset_ns,
               std::uint32_t minSyncDuration_ms, ThreadPoolInterface* threadPool);
    // Tasks not yet started will do nothing; waits for those inside a
    // member's device, so that none is inside one once the domain is gone.
    ~SyncDomain() override;

    bool isMember(const std::string& deviceUri) const override;
    void addSyncableDevice(SyncableDeviceInterface* device) override;
    bool isCoherent() override;
    bool isCoherentSinceLastChecked() override;
    bool isRunning() const override { return isDomainRunning; }
    bool start(std::uint32_t timeout_s) override;
    void startV2(bool waitToBecomeCoherent, bool saveInitialCoherency, std::uint32_t timeout_s) override;
    void stop() override { isDomainRunning = false; }
    bool cancelStart() override;
    const std::string& getTimescaleUri() const override { return requiredTimescaleUri; }
    const std::string& getUri() const override { return uri; }
    std::string toJson() override;

    // The document placed on every member as it is added.
    const std::string& getRequirementsJson() const { return requirementsJson; }
    // Per-member state, keyed by device URI (for inspection).
    const MemberState* memberState(const std::string& deviceUri) const;

private:
    struct Member {
        SyncableDeviceInterface* device;
        MemberState state;
    };
    // (isCoherent, coherencyLossCount) per member URI.
    using CheckResults = std::unordered_map<std::string, std::pair<bool, std::uint32_t>>;

    CheckResults checkMembers(ztsdtools::MonotonicTimer& timer, const StartCancel* cancel = nullptr);
    std::vector<std::string> getMemberJsons(ztsdtools::MonotonicTimer& timer);
    void saveAsStartAndLastCheck(const CheckResults& results);
    [[noreturn]] void raiseStartTimedOut() const;

    bool isDomainRunning = false;
    bool isCoherentLatch = false;
    std::string uri;
    std::string requiredTimescaleUri;
    std::uint32_t maxOffset_ns;
    std::uint32_t minSyncDuration_ms;
    std::string requirementsJson;
    std::unordered_map<std::string, Member> members;
    ThreadPoolInterface* threadPool;
    std::uint32_t startTimeout_s = 10;
    StartCancel startCancel;
    // Shared with every task this domain submits.
    std::shared_ptr<TaskLifeline> lifeline = std::make_shared<TaskLifeline>();
};

}  // namespace ztsdlib
