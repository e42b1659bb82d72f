#include "interrupt.h"

#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

namespace ztsdctl {

namespace {

std::atomic<bool> interruptFlag{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the flag is set from a signal handler");

extern "C" void onInterrupt(int) { interruptFlag.store(true); }

}  // namespace

void catchInterrupt() {
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESETHAND;  // the second Ctrl-C gets the default action
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);  // a service manager's stop ends the command as Ctrl-C does
}

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
