// The tasks a sync domain hands to the caller's pool, one per member, and the
// fan-out that submits them and waits for them.
//
// Threads: a task is written by the pool thread that runs it and read by the
// domain's thread only after it has seen `done` set (an atomic exchange that
// the writer makes after storing its result or error). The completion signal
// is the only object both sides lock; it wakes the waiting thread as soon as
// the task it waits for ends, so a fan-out costs the slowest member's time
// rather than that plus a polling step. Tasks that end while the waiter waits
// for another one only count, without waking it: the waiter looks at them
// when it gets to them, and a burst of N answers costs one wake-up instead of
// N. The waiter still polls every 50 ms, so a pool that runs tasks inside
// submit() works as well.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "syncdomain/syncableDeviceInterface.h"
#include "time/monotonicTimer.h"
#include "ztsdlib/threadPool.hpp"

namespace ztsdlib {

// Counts completed tasks of one fan-out and wakes its waiting thread.
class CompletionSignal {
public:
    // A task ended; wakes the waiter when it waits for this task.
    void notify(const void* task);
    std::uint64_t count() const;
    // Waits for `task`: returns when a notify for it came after the count
    // was `seen` (or any notify did, before this call started waiting), or
    // after `wait`.
    void waitFor(const void* task, std::uint64_t seen, std::chrono::milliseconds wait) const;

private:
    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    std::uint64_t completed = 0;
    mutable const void* awaited = nullptr;  // the task the waiter waits for, while it waits
    mutable bool awaitedEnded = false;
};

class TaskBase : public ThreadPoolInterface::TaskInterface {
public:
    explicit TaskBase(std::shared_ptr<CompletionSignal> signal) : signal(std::move(signal)) {}
    // Runs the work, keeps any error, then sets done and signals.
    void run() final;
    bool isDone() const noexcept { return done.load(std::memory_order_acquire) != 0; }
    // The error the work raised; read only once isDone().
    std::exception_ptr error() const noexcept { return errorHolder; }

protected:
    virtual void work() = 0;

private:
    std::exception_ptr errorHolder;
    std::atomic<std::uint32_t> done{0};
    std::shared_ptr<CompletionSignal> signal;
};

class CheckMemberCoherencyStateTask : public TaskBase {
public:
    CheckMemberCoherencyStateTask(std::shared_ptr<CompletionSignal> signal, std::string memberUri,
                                  SyncableDeviceInterface& member)
        : TaskBase(std::move(signal)), memberUri(std::move(memberUri)), member(member) {}

    const std::string memberUri;
    bool isCoherent = false;
    std::uint32_t coherencyLossCount = 0xFFFFFFFFu;

protected:
    void work() override { isCoherent = member.isCoherent(&coherencyLossCount); }

private:
    SyncableDeviceInterface& member;
};

class GetMemberJsonTask : public TaskBase {
public:
    GetMemberJsonTask(std::shared_ptr<CompletionSignal> signal, SyncableDeviceInterface& member)
        : TaskBase(std::move(signal)), member(member) {}

    // The member's JSON; or {"uri":..,"error":..} when it failed; or
    // {"uri":..} when the task never produced anything.
    std::string text() const;

protected:
    // Never fails: a member's error becomes part of the text.
    void work() override;

private:
    SyncableDeviceInterface& member;
    std::string result;
};

// The tasks of a failed fan-out that were still running when it failed.
// Each uses its member's device, and a device is asked from one task at a
// time (device proxies are not safe for concurrent use), so the domain's
// next fan-out waits for these before it submits anything.
struct UnfinishedTasks {
    std::shared_ptr<CompletionSignal> signal;  // theirs
    std::vector<std::shared_ptr<TaskBase>> tasks;
};

// Waits, with no time limit, until every unfinished task is done (each is
// bounded by its device's own request time-out). For the domain's
// destructor: the caller may release the devices once the domain is gone.
void finishUnfinishedTasks(UnfinishedTasks& unfinished);

// First waits, under the same timer, for the unfinished tasks of an earlier
// fan-out (an expired timer fails as below and keeps them). Then submits the
// tasks in order and waits for each in order: an expired timer fails with
// ztapalerr_operationTimedOut ("timeout_ms"), a task's error with
// ztapalerr_communicationsFault and that error nested. Tasks still running
// when it fails are left to the pool, which owns them too, and recorded in
// `unfinished`.
void awaitMemberTasks(ThreadPoolInterface& pool, const std::vector<std::shared_ptr<TaskBase>>& tasks,
                      ztsdtools::MonotonicTimer& timer, const std::shared_ptr<CompletionSignal>& signal,
                      const std::string& syncDomainUri, UnfinishedTasks& unfinished);

}  // namespace ztsdlib
