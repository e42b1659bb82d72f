// A syncable device that answers from memory, for unit tests of the domain
// logic behind SyncableDeviceInterface. Its checks can be slowed; every call
// is counted, and so is the most checks ever inside it at once. Safe to call
// from pool threads.
#pragma once

#include <atomic>
#include <chrono>
#include <climits>
#include <mutex>
#include <string>
#include <thread>

#include "syncdomain/syncableDeviceInterface.h"
#include "ztsdlib/threadPool.hpp"

namespace ztsdtest {

class FakeDevice : public ztsdlib::SyncableDeviceInterface {
public:
    explicit FakeDevice(std::string uri) : uri(std::move(uri)) {}

    void setCoherencyRequirements(const std::string& json, const std::string&) override {
        ++setCalls;
        std::lock_guard<std::mutex> lock(mutex);
        lastRequirements = json;
    }
    void clearCoherencyRequirements(const std::string&) override {}
    // Answers "incoherent" for the first incoherentChecks calls; the first
    // delayedChecks calls take delay_ms.
    bool isCoherent(std::uint32_t* lossCount) override {
        const int inside = ++callsInside;
        for (int seen = maxInside.load(); inside > seen && !maxInside.compare_exchange_weak(seen, inside);) {
        }
        const int n = checkCalls++;
        if (delay_ms && n < delayedChecks) std::this_thread::sleep_for(std::chrono::milliseconds(delay_ms.load()));
        *lossCount = lossCountValue;
        bool answer = coherent;
        if (incoherentChecks > 0) {
            --incoherentChecks;
            answer = false;
        }
        --callsInside;
        return answer;
    }
    const std::string& getUri() const override { return uri; }
    std::string toJson() override {
        return "{\"uri\":\"" + uri + "\",\"isCoherent\":" + (coherent ? "true" : "false") + "}";
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
    std::atomic<int> delayedChecks{INT_MAX};
    std::atomic<int> setCalls{0}, checkCalls{0}, callsInside{0}, maxInside{0};

private:
    std::mutex mutex;
    std::string lastRequirements;
};

// A pool that runs every task at once on the submitting thread.
class InlinePool : public ztsdlib::ThreadPoolInterface {
public:
    void submit(std::shared_ptr<TaskInterface> task) override { task->run(); }
};

}  // namespace ztsdtest
