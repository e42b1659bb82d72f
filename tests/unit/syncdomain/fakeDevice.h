// A syncable device that answers from memory, for unit tests of the domain
// logic behind SyncableDeviceInterface. It can be slowed, stalled or made to
// fail; every call is counted. Safe to call from pool threads.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "errors/exception.h"
#include "syncdomain/syncableDeviceInterface.h"
#include "ztsdlib/threadPool.hpp"

namespace ztsdtest {

class FakeDevice : public ztsdlib::SyncableDeviceInterface {
public:
    explicit FakeDevice(std::string uri) : uri(std::move(uri)) {}
    ~FakeDevice() override { release(); }

    void setCoherencyRequirements(const std::string& json, const std::string& domainUri) override {
        ++setCalls;
        if (refuseRequirements) {
            zterr::raise(ZTERR_SITE("test", "ztsyncdomainerr_conflictingCoherencyRequirements"), -1074100993,
                         "ztsync_debug", {{"message", "conflict"}, {"New SyncDomain URI", domainUri}});
        }
        std::lock_guard<std::mutex> lock(mutex);
        lastRequirements = json;
    }
    void clearCoherencyRequirements(const std::string&) override {}
    bool isCoherent(std::uint32_t* lossCount) override {
        ++checkCalls;
        if (delay_ms) std::this_thread::sleep_for(std::chrono::milliseconds(delay_ms.load()));
        if (stalled) {
            std::unique_lock<std::mutex> lock(mutex);
            released.wait(lock, [this] { return !stalled; });
        }
        if (failing) {
            zterr::raise(ZTERR_SITE("test", "ztapalerr_communicationsFault"), -52024, "ztsyncdomain_debug",
                         {{"message", "device unreachable"}, {"uri", uri}});
        }
        // Answers "incoherent" for the first incoherentChecks calls.
        if (incoherentChecks > 0) {
            --incoherentChecks;
            *lossCount = lossCountValue;
            return false;
        }
        *lossCount = lossCountValue;
        return coherent;
    }
    const std::string& getUri() const override { return uri; }
    std::string toJson() override {
        if (failing) {
            zterr::raise(ZTERR_SITE("test", "ztapalerr_communicationsFault"), -52024, "ztsyncdomain_debug",
                         {{"message", "device unreachable"}});
        }
        return "{\"uri\":\"" + uri + "\",\"isCoherent\":" + (coherent ? "true" : "false") + "}";
    }
    void release() {
        {
            std::lock_guard<std::mutex> lock(mutex);
            stalled = false;
        }
        released.notify_all();
    }
    std::string requirements() {
        std::lock_guard<std::mutex> lock(mutex);
        return lastRequirements;
    }

    const std::string uri;
    std::atomic<bool> coherent{true};
    std::atomic<std::uint32_t> lossCountValue{0};
    std::atomic<int> incoherentChecks{0};
    std::atomic<int> delay_ms{0};
    std::atomic<bool> failing{false};
    std::atomic<bool> refuseRequirements{false};
    std::atomic<bool> stalled{false};
    std::atomic<int> setCalls{0};
    std::atomic<int> checkCalls{0};

private:
    std::mutex mutex;
    std::condition_variable released;
    std::string lastRequirements;
};

// A pool that runs every task at once on the submitting thread.
class InlinePool : public ztsdlib::ThreadPoolInterface {
public:
    void submit(std::shared_ptr<TaskInterface> task) override { task->run(); }
};

}  // namespace ztsdtest
