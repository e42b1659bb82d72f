#include "interrupt.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

namespace ztsdctl {

namespace {
std::atomic<bool> interruptFlag{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the flag is set from a signal handler");
}  // namespace

void raiseInterrupt() { interruptFlag.store(true); }


bool interrupted() { return interruptFlag.load(); }

bool sleepUnlessInterrupted(double ms) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double, std::milli>(ms));
    while (!interrupted()) {
        const Clock::time_point now = Clock::now();
        if (now >= end) return true;
        std::this_thread::sleep_for(std::min<Clock::duration>(end - now, std::chrono::milliseconds(20)));
    }
    return false;
}

}  // namespace ztsdctl
