// A member is never asked twice at once: a fan-out that fails while some of
// its tasks still run (a time-out, another member's error) leaves those
// tasks to the pool, and the domain's next fan-out must not start a second
// task on the same device while they do. Device proxies are not safe for
// concurrent use (one HTTP handle each), so an overlap there is a crash.
// Nor may such a task outlive the domain: the caller releases the devices
// after the domain.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "errors/exception.h"
#include "syncdomain/libraryThreadPool.h"
#include "syncdomain/syncDomain.h"
#include "time/hostTimescale.h"
#include "unit/support/raisedError.h"

namespace {

// Counts how many calls are inside the device at once; its first check
// takes firstCheck_ms, the others answer at once.
class OverlapDetectingDevice : public ztsdlib::SyncableDeviceInterface {
public:
    OverlapDetectingDevice(std::string uri, int firstCheck_ms) : uri(std::move(uri)), firstCheck_ms(firstCheck_ms) {}

    void setCoherencyRequirements(const std::string&, const std::string&) override {}
    void clearCoherencyRequirements(const std::string&) override {}
    bool isCoherent(std::uint32_t* lossCount) override {
        const int inside = ++callsInside;
        int seen = maxInside.load();
        while (inside > seen && !maxInside.compare_exchange_weak(seen, inside)) {
        }
        if (checks++ == 0) std::this_thread::sleep_for(std::chrono::milliseconds(firstCheck_ms));
        --callsInside;
        *lossCount = 0;
        return true;
    }
    const std::string& getUri() const override { return uri; }
    std::string toJson() override { return "{\"uri\":\"" + uri + "\"}"; }

    const std::string uri;
    const int firstCheck_ms;
    std::atomic<int> callsInside{0};
    std::atomic<int> maxInside{0};
    std::atomic<int> checks{0};
};

TEST(SyncDomainFanOutConcurrency, ANewFanOutWaitsForTheTasksAFailedOneLeftRunning) {
    ztsdlib::HostTimescale timescale{"/localhost/ztsds/timescales/system"};
    OverlapDetectingDevice quick("/h/ztsdwebs/resources/ztsd/syncableDevices/quick", 0);
    OverlapDetectingDevice slow("/h/ztsdwebs/resources/ztsd/syncableDevices/slow", 1400);
    ztsdlib::LibraryThreadPool pool{4};
    ztsdlib::SyncDomain domain("/domains/overlap", timescale, 1000, 100, &pool);
    domain.addSyncableDevice(&quick);
    domain.addSyncableDevice(&slow);

    // The slow member's first check outlasts the 1 s start: the start times
    // out with that check still running.
    const ztsdtest::Raised timedOut = ztsdtest::captureRaise([&] { domain.start(1); });
    EXPECT_EQ(timedOut.code, -52007) << timedOut.json;
    EXPECT_EQ(slow.callsInside.load(), 1);

    // At once again: the new start waits for the straggler, then asks.
    const auto began = std::chrono::steady_clock::now();
    EXPECT_TRUE(domain.start(1));
    EXPECT_GE(std::chrono::steady_clock::now() - began, std::chrono::milliseconds(300));
    EXPECT_EQ(slow.maxInside.load(), 1) << "the slow device was asked twice at once";
    EXPECT_EQ(slow.checks.load(), 2);
    EXPECT_EQ(quick.checks.load(), 2);
}

TEST(SyncDomainFanOutConcurrency, DeletingTheDomainWaitsForTheTasksAFailedFanOutLeftRunning) {
    ztsdlib::HostTimescale timescale{"/localhost/ztsds/timescales/system"};
    OverlapDetectingDevice slow("/h/ztsdwebs/resources/ztsd/syncableDevices/slow", 1300);
    ztsdlib::LibraryThreadPool pool{2};
    auto domain = std::make_unique<ztsdlib::SyncDomain>("/domains/late", timescale, 1000, 100, &pool);
    domain->addSyncableDevice(&slow);
    EXPECT_EQ(ztsdtest::captureRaise([&] { domain->start(1); }).code, -52007);
    EXPECT_EQ(slow.callsInside.load(), 1);

    // The caller may release the devices as soon as the domain is gone, so
    // no task of the domain may still be inside one.
    domain.reset();
    EXPECT_EQ(slow.callsInside.load(), 0);
}

}  // namespace
