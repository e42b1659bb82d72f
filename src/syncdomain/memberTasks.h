// The tasks a sync domain hands to the caller's pool, one per member, and the
// fan-out that submits them and waits for them.
//
// Threads: a task is written by the pool thread that runs it and read by the
// domain's thread only after it has seen `done` set (an atomic exchange that
// the writer makes after storing its result or error). The completion signal
// wakes the waiting thread as soon as the task it waits for ends, so a
// fan-out costs the slowest member's time rather than that plus a polling
// step. Tasks that end while the waiter waits for another one only count,
// without waking it: the waiter looks at them when it gets to them, and a
// burst of N answers costs one wake-up instead of N. The waiter still polls
// every 50 ms, so a pool that runs tasks inside submit() works as well.
//
// Lifetime: every task of a domain holds the domain's lifeline. A task enters
// it before touching its member and leaves it when it is done; once the
// domain has closed its lifeline (in its destructor) a task that has not
// started does nothing at all when the pool finally runs it, and the domain
// waits only for the tasks already inside a member (each bounded by its
// device's request time-out). A failed fan-out abandons its tasks: those not
// yet started skip their member, so a failure sends no further traffic.
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

// Whether a domain still exists, and how many of its tasks are inside a
// member right now. Shared by the domain and each of its tasks.
class TaskLifeline {
public:
    // Before a task touches its member: false once the domain has closed
    // the lifeline, and the task must then touch nothing of the domain.
    bool enter();
    // After the task has published its result and signalled.
    void leave();
    // The domain is going: no task enters from now on; returns when no task
    // is inside any more.
    void close();

private:
    std::mutex mutex;
    std::condition_variable allLeft;
    bool open = true;
    unsigned inside = 0;
};

class TaskBase : public ThreadPoolInterface::TaskInterface {
public:
    TaskBase(std::shared_ptr<TaskLifeline> lifeline, std::shared_ptr<CompletionSignal> signal)
        : lifeline(std::move(lifeline)), signal(std::move(signal)) {}
    // Unless abandoned or its domain is gone: runs the work, keeps any
    // error, then sets done and signals.
    void run() final;
    bool isDone() const noexcept { return done.load(std::memory_order_acquire) != 0; }
    // The error the work raised; read only once isDone().
    std::exception_ptr error() const noexcept { return errorHolder; }
    // Nobody waits for this task any more: if it has not started, it never will.
    void abandon() noexcept { abandoned.store(true, std::memory_order_release); }

protected:
    virtual void work() = 0;

private:
    std::exception_ptr errorHolder;
    std::atomic<std::uint32_t> done{0};
    std::atomic<bool> abandoned{false};
    std::shared_ptr<TaskLifeline> lifeline;
    std::shared_ptr<CompletionSignal> signal;
};

class CheckMemberCoherencyStateTask : public TaskBase {
public:
    CheckMemberCoherencyStateTask(std::shared_ptr<TaskLifeline> lifeline, std::shared_ptr<CompletionSignal> signal,
                                  std::string memberUri, SyncableDeviceInterface& member)
        : TaskBase(std::move(lifeline), std::move(signal)), memberUri(std::move(memberUri)), member(member) {}

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
    GetMemberJsonTask(std::shared_ptr<TaskLifeline> lifeline, std::shared_ptr<CompletionSignal> signal,
                      SyncableDeviceInterface& member)
        : TaskBase(std::move(lifeline), std::move(signal)), member(member) {}

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

// A request, from another thread, to end the start under way on a domain.
// The domain opens a window for the length of its start; a request made while
// it is open ends that start (the fan-out sees it at its next poll, the pause
// between passes at once); a request made while no start runs is dropped, so
// it never ends a later start.
class StartCancel {
public:
    void open();
    void close();
    // True when a start was under way to take the request.
    bool request();
    bool requested() const { return cancelled.load(std::memory_order_acquire); }
    // Sleeps up to `wait`; returns early, true, once a request came.
    bool sleepUnlessRequested(std::chrono::milliseconds wait);

private:
    std::mutex mutex;
    std::condition_variable changed;
    bool isOpen = false;
    std::atomic<bool> cancelled{false};
};

// -52007 for a start ended by StartCancel::request, with "cancelled": true.
[[noreturn]] void raiseStartCancelled(const std::string& syncDomainUri);

// Submits the tasks in order and waits for each in order: an expired timer
// fails with ztapalerr_operationTimedOut ("timeout_ms"), a task's error with
// ztapalerr_communicationsFault and that error nested. When it fails, for
// those reasons or because submit() threw part-way, every task not yet done
// is abandoned: the pool still owns the submitted ones, a running one
// finishes its request, one not yet started does nothing. Devices are safe
// to ask from several threads, so the next fan-out does not wait for them.
// With `cancel`, a request ends the wait within one poll
// (raiseStartCancelled), the tasks abandoned as on a time-out.
void awaitMemberTasks(ThreadPoolInterface& pool, const std::vector<std::shared_ptr<TaskBase>>& tasks,
                      ztsdtools::MonotonicTimer& timer, const std::shared_ptr<CompletionSignal>& signal,
                      const std::string& syncDomainUri, const StartCancel* cancel = nullptr);

}  // namespace ztsdlib
