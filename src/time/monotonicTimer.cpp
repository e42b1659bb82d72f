#include "time/monotonicTimer.h"

#include "platform/clock.h"

namespace ztsdtools {

std::int64_t countsToNs(std::int64_t counter, std::int64_t frequency) noexcept {
    return (counter / frequency) * 1000000000LL + ((counter % frequency) * 1000000000LL) / frequency;
}

std::int64_t steadyNow_ns() noexcept {
    return countsToNs(ztsdlib::platform::steadyCounter(), ztsdlib::platform::steadyFrequency());
}

MonotonicStopWatch::MonotonicStopWatch() noexcept : startTime_ns(steadyNow_ns()) {}

void MonotonicStopWatch::restart() noexcept { startTime_ns = steadyNow_ns(); }

std::int64_t MonotonicStopWatch::elapsed_ms() const noexcept { return (steadyNow_ns() - startTime_ns) / 1000000LL; }

MonotonicTimer::MonotonicTimer(std::int64_t timeout) noexcept : timeout_ms(timeout) {}

void MonotonicTimer::restart() noexcept {
    isExpired = false;
    MonotonicStopWatch::restart();
}

void MonotonicTimer::restart(std::int64_t timeout) noexcept {
    timeout_ms = timeout;
    restart();
}

bool MonotonicTimer::hasExpired() noexcept {
    if (isExpired) return true;
    isExpired = elapsed_ms() >= timeout_ms;
    return isExpired;
}

}  // namespace ztsdtools
