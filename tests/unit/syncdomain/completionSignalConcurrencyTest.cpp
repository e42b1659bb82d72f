// The fan-out's completion signal, with real threads: the waiter wakes for
// the task it waits for, not for the others, and never sleeps through a
// completion that came before it started to wait.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "syncdomain/memberTasks.h"

using ztsdlib::CompletionSignal;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

namespace {

int taskA = 0, taskB = 0;  // two distinct addresses stand for two tasks

milliseconds since(Clock::time_point start) {
    return std::chrono::duration_cast<milliseconds>(Clock::now() - start);
}

}  // namespace

TEST(CompletionSignalConcurrency, WakesForTheAwaitedTaskOnly) {
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
    EXPECT_GE(since(start).count(), 140);
    EXPECT_EQ(signal.count(), 1u);

    // A ends while awaited: the waiter wakes long before its wait would end.
    std::thread awaited([&] {
        std::this_thread::sleep_for(milliseconds(20));
        signal.notify(&taskA);
    });
    start = Clock::now();
    signal.waitFor(&taskA, signal.count(), milliseconds(20000));
    awaited.join();
    EXPECT_LT(since(start).count(), 10000);
    EXPECT_EQ(signal.count(), 2u);
}

TEST(CompletionSignalConcurrency, ACompletionBeforeTheWaitEndsItAtOnce) {
    CompletionSignal signal;
    const auto seen = signal.count();
    std::thread early([&] { signal.notify(&taskA); });
    early.join();
    const auto start = Clock::now();
    signal.waitFor(&taskA, seen, milliseconds(20000));
    EXPECT_LT(since(start).count(), 10000);
}
