// The domain's fan-out with real threads. The completion signal wakes the
// waiter for the task it waits for only, and never sleeps through a
// completion that came before the wait. Tasks a failed fan-out (a time-out,
// another member's error) left running do not hold up the next fan-out:
// devices are safe to ask from several threads. A task never outlives the
// domain inside a device, and one the pool runs after the domain is gone
// touches nothing, since the caller releases the devices after the domain.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <new>
#include <vector>
#include <thread>

#include "syncdomain/libraryThreadPool.h"
#include "syncdomain/memberTasks.h"
#include "syncdomain/syncDomain.h"
#include "time/hostTimescale.h"
#include "unit/support/raisedError.h"
#include "unit/support/timing.h"
#include "unit/syncdomain/fakeDevice.h"

using ztsdlib::CompletionSignal;
using ztsdtest::msSince;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

namespace {

int taskA = 0, taskB = 0;  // two distinct addresses stand for two tasks

// A domain of a quick member and a slow one whose first check takes
// firstCheck_ms; declared so that the domain goes first, then the pool.
struct SlowMemberDomain {
    explicit SlowMemberDomain(int firstCheck_ms) {
        slow.delay_ms = firstCheck_ms;
        slow.delayedChecks = 1;
        domain = std::make_unique<ztsdlib::SyncDomain>("/domains/overlap", timescale, 1000, 100, &pool);
        domain->addSyncableDevice(&quick);
        domain->addSyncableDevice(&slow);
    }
    ztsdlib::HostTimescale timescale{"/localhost/ztsds/timescales/system"};
    ztsdtest::FakeDevice quick{"/h/ztsdwebs/resources/ztsd/syncableDevices/quick"};
    ztsdtest::FakeDevice slow{"/h/ztsdwebs/resources/ztsd/syncableDevices/slow"};
    ztsdlib::LibraryThreadPool pool{4};
    std::unique_ptr<ztsdlib::SyncDomain> domain;
};

}  // namespace

TEST(CompletionSignalConcurrency, WakesForTheAwaitedTaskOnlyAndAtOnceForAnEarlierCompletion) {
    CompletionSignal signal;

    // B ends while the waiter waits for A: it counts, but the waiter sleeps on
    // until its wait runs out.
    std::thread other([&] {
        std::this_thread::sleep_for(milliseconds(5));
        signal.notify(&taskB);
    });
    auto start = Clock::now();
    signal.waitFor(&taskA, 0, milliseconds(150));
    other.join();
    EXPECT_GE(msSince(start), 140);
    EXPECT_EQ(signal.count(), 1u);

    // A ends while awaited: the waiter wakes long before its wait would end.
    std::thread awaited([&] {
        std::this_thread::sleep_for(milliseconds(20));
        signal.notify(&taskA);
    });
    start = Clock::now();
    signal.waitFor(&taskA, signal.count(), milliseconds(20000));
    awaited.join();
    EXPECT_LT(msSince(start), 10000);
    EXPECT_EQ(signal.count(), 2u);

    // A ends before the wait starts: the wait ends at once.
    const auto seen = signal.count();
    std::thread early([&] { signal.notify(&taskA); });
    early.join();
    start = Clock::now();
    signal.waitFor(&taskA, seen, milliseconds(20000));
    EXPECT_LT(msSince(start), 10000);
}

TEST(SyncDomainFanOutConcurrency, ANewFanOutAsksRecoveredMembersAtOnceWhileAStragglerStillRuns) {
    SlowMemberDomain d(1400);
    // The slow member's first check outlasts the 1 s start: the start times
    // out with that check still running.
    EXPECT_EQ(ztsdtest::captureRaise([&] { d.domain->start(1); }).code, -52007);
    EXPECT_EQ(d.slow.callsInside.load(), 1);

    // At once again: the new start asks both members without waiting for
    // the straggler, and the slow member answers its second check at once.
    const auto began = Clock::now();
    EXPECT_TRUE(d.domain->start(1));
    EXPECT_LT(msSince(began), 300);
    EXPECT_EQ(d.slow.maxInside.load(), 2);
    EXPECT_EQ(d.slow.checkCalls.load(), 2);
    EXPECT_EQ(d.quick.checkCalls.load(), 2);
}

TEST(SyncDomainFanOutConcurrency, DeletingTheDomainWaitsForTheTasksInsideAMember) {
    SlowMemberDomain d(1300);
    EXPECT_EQ(ztsdtest::captureRaise([&] { d.domain->start(1); }).code, -52007);
    EXPECT_EQ(d.slow.callsInside.load(), 1);
    // The caller may release the devices as soon as the domain is gone, so
    // no task of the domain may still be inside one.
    d.domain.reset();
    EXPECT_EQ(d.slow.callsInside.load(), 0);
}

namespace {

// A pool that keeps what it is given and runs it only when told; it can
// refuse the n-th submit with an exception.
struct HoldingPool : ztsdlib::ThreadPoolInterface {
    void submit(std::shared_ptr<TaskInterface> task) override {
        if (++submits == failAtSubmit) throw std::bad_alloc();
        held.push_back(std::move(task));
    }
    void runAll() {
        for (auto& task : held) task->run();
        held.clear();
    }
    int failAtSubmit = 0;
    int submits = 0;
    std::vector<std::shared_ptr<TaskInterface>> held;
};

}  // namespace

// Deletion never waits for tasks that have not started: over a pool that
// never runs them it returns at once, and when the pool runs them after the
// domain is gone they touch neither the domain nor its members (the devices
// see no call; under AddressSanitizer, nothing freed is touched either). The
// same holds for tasks a failed fan-out abandoned and for those submitted
// before a submit() that threw.
TEST(SyncDomainFanOutConcurrency, TasksThatStartAfterTheirDomainOrFanOutIsGoneTouchNothing) {
    struct Case {
        const char* what;
        int failAtSubmit;
        bool deleteDomain;
    };
    const Case cases[] = {
        {"pool never ran the tasks, domain deleted", 0, true},
        {"submit threw at the second member, domain deleted", 2, true},
        {"submit threw at the second member, domain kept", 2, false},
    };
    for (const Case& c : cases) {
        ztsdlib::HostTimescale timescale{"/localhost/ztsds/timescales/system"};
        ztsdtest::FakeDevice first{"/h/ztsdwebs/resources/ztsd/syncableDevices/first"};
        ztsdtest::FakeDevice second{"/h/ztsdwebs/resources/ztsd/syncableDevices/second"};
        HoldingPool pool;
        pool.failAtSubmit = c.failAtSubmit;
        auto domain = std::make_unique<ztsdlib::SyncDomain>("/domains/held", timescale, 1000, 100, &pool);
        domain->addSyncableDevice(&first);
        domain->addSyncableDevice(&second);

        const auto began = Clock::now();
        bool failed = false;
        try {
            domain->start(1);
        } catch (...) {  // the time-out, or the pool's own exception
            failed = true;
        }
        EXPECT_TRUE(failed) << c.what;
        if (c.deleteDomain) domain.reset();
        EXPECT_LT(msSince(began), 1500) << c.what;
        EXPECT_FALSE(pool.held.empty()) << c.what;
        pool.runAll();
        EXPECT_EQ(first.checkCalls.load() + second.checkCalls.load(), 0) << c.what;
    }
}
