#include "syncdomain/memberTasks.h"

#include "errors/exception.h"
#include "errors/status.h"

namespace ztsdlib {
namespace {

constexpr const char* kFile = "source\\ztsdlib\\syncDomain";
constexpr std::chrono::milliseconds kPollInterval{50};

[[noreturn]] void raiseMemberFailure(const std::exception_ptr& error, const std::string& syncDomainUri) {
    zterr_Status inner = zterr::makeOwnedStatus();
    try {
        std::rethrow_exception(error);
    } catch (...) {
        zterr::translateCurrentException(&inner);
    }
    zterr_Status outer = zterr::makeReport(
        ZTERR_SITE(kFile, zterr::name::ztapalerr_communicationsFault), zterr::code::ztapalerr_communicationsFault,
        "ztsyncdomain_debug",
        {{"message", "Encountered error while communicating with one or more syncable devices."},
         {"syncDomainUri", syncDomainUri}});
    zterr::attachNestedError(&outer, &inner);
    zterr::releaseStatus(&inner);
    throw zterr::Exception(std::move(outer));
}

}  // namespace

void CompletionSignal::notify(const void* task) {
    bool wake = false;
    {
        std::lock_guard<std::mutex> lock(mutex);
        ++completed;
        if (awaited == task) wake = awaitedEnded = true;
    }
    if (wake) changed.notify_all();
}

std::uint64_t CompletionSignal::count() const {
    std::lock_guard<std::mutex> lock(mutex);
    return completed;
}

void CompletionSignal::waitFor(const void* task, std::uint64_t seen, std::chrono::milliseconds wait) const {
    std::unique_lock<std::mutex> lock(mutex);
    // A completion since `seen` may be this task's, notified before it was
    // awaited: the caller looks again rather than sleeping through it.
    if (completed != seen) return;
    awaited = task;
    awaitedEnded = false;
    changed.wait_for(lock, wait, [&] { return awaitedEnded; });
    awaited = nullptr;
}

void StartCancel::open() {
    std::lock_guard<std::mutex> lock(mutex);
    isOpen = true;
    cancelled.store(false, std::memory_order_release);
}

void StartCancel::close() {
    std::lock_guard<std::mutex> lock(mutex);
    isOpen = false;
    cancelled.store(false, std::memory_order_release);
}

bool StartCancel::request() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (!isOpen) return false;
        cancelled.store(true, std::memory_order_release);
    }
    changed.notify_all();
    return true;
}

bool StartCancel::sleepUnlessRequested(std::chrono::milliseconds wait) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, wait, [this] { return cancelled.load(std::memory_order_acquire); });
}

void raiseStartCancelled(const std::string& syncDomainUri) {
    zterr::raise(ZTERR_SITE(kFile, zterr::name::ztapalerr_operationTimedOut), zterr::code::ztapalerr_operationTimedOut,
                 "ztsyncdomain_debug",
                 {{"message", "The start of the Sync Domain was cancelled before every syncable device was coherent."},
                  {"syncDomainUri", syncDomainUri},
                  {"cancelled", true}});
}

bool TaskLifeline::enter() {
    std::lock_guard<std::mutex> lock(mutex);
    if (!open) return false;
    ++inside;
    return true;
}

void TaskLifeline::leave() {
    std::lock_guard<std::mutex> lock(mutex);
    if (--inside == 0) allLeft.notify_all();
}

void TaskLifeline::close() {
    std::unique_lock<std::mutex> lock(mutex);
    open = false;
    allLeft.wait(lock, [this] { return inside == 0; });
}

void TaskBase::run() {
    if (abandoned.load(std::memory_order_acquire)) return;
    if (!lifeline->enter()) return;
    try {
        work();
    } catch (...) {
        errorHolder = std::current_exception();
    }
    // The pool owns this task until run() returns, so the signal and the
    // lifeline are still here after done is published.
    done.exchange(1, std::memory_order_acq_rel);
    signal->notify(this);
    lifeline->leave();
}

void GetMemberJsonTask::work() {
    try {
        result = member.toJson();
    } catch (...) {
        zterr_Status status = zterr::makeOwnedStatus();
        zterr::translateCurrentException(&status);
        result = "{\"uri\":\"" + member.getUri() + "\",\"error\":" + (status.json ? status.json : "null") + "}";
        zterr::releaseStatus(&status);
    }
}

std::string GetMemberJsonTask::text() const {
    if (result.empty()) return "{\"uri\":\"" + member.getUri() + "\"}";
    return result;
}

namespace {

[[noreturn]] void raiseTimedOut(const ztsdtools::MonotonicTimer& timer, const std::string& syncDomainUri) {
    zterr::raise(ZTERR_SITE(kFile, zterr::name::ztapalerr_operationTimedOut), zterr::code::ztapalerr_operationTimedOut,
                 "ztsyncdomain_debug",
                 {{"message", "Timed out while waiting for one or more syncable devices to respond."},
                  {"syncDomainUri", syncDomainUri},
                  {"timeout_ms", timer.timeout()}});
}

// Waits until the task is done; raises the time-out when the timer expires first.
void awaitDone(const TaskBase& task, ztsdtools::MonotonicTimer& timer, const CompletionSignal& signal,
               const std::string& syncDomainUri, const StartCancel* cancel) {
    for (;;) {
        if (cancel && cancel->requested()) raiseStartCancelled(syncDomainUri);
        if (timer.hasExpired()) raiseTimedOut(timer, syncDomainUri);
        // Read the count before looking at the task, so a completion
        // between the look and the wait still ends the wait.
        const std::uint64_t seen = signal.count();
        if (task.isDone()) return;
        signal.waitFor(&task, seen, kPollInterval);
    }
}

}  // namespace

void awaitMemberTasks(ThreadPoolInterface& pool, const std::vector<std::shared_ptr<TaskBase>>& tasks,
                      ztsdtools::MonotonicTimer& timer, const std::shared_ptr<CompletionSignal>& signal,
                      const std::string& syncDomainUri, const StartCancel* cancel) {
    try {
        for (const auto& task : tasks) pool.submit(task);
        for (const auto& task : tasks) {
            awaitDone(*task, timer, *signal, syncDomainUri, cancel);
            if (task->error()) raiseMemberFailure(task->error(), syncDomainUri);
        }
    } catch (...) {
        for (const auto& task : tasks)
            if (!task->isDone()) task->abandon();
        throw;
    }
}

}  // namespace ztsdlib
