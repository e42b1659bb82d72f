// Elapsed time on the steady clock: a stopwatch in nanoseconds and a timer
// with a millisecond time-out whose expiry latches until it is restarted.
// Neither locks: each instance belongs to one thread at a time.
#pragma once

#include <cstdint>

namespace ztsdtools {

// Now on the steady clock, in nanoseconds, from the platform counter as
// (counter / frequency) * 1e9 + ((counter % frequency) * 1e9) / frequency.
std::int64_t steadyNow_ns() noexcept;

// A count of a steady counter running at `frequency` counts per second, in
// nanoseconds: (counter / frequency) * 1e9 + ((counter % frequency) * 1e9) /
// frequency, which is exactly the floor of counter * 1e9 / frequency without
// forming that product: it holds for any counter worth up to 292 years and
// any frequency up to 9.2 GHz (the performance counter of Windows runs at
// 10 MHz, or at the processor's or a chipset timer's own odd rate).
std::int64_t countsToNs(std::int64_t counter, std::int64_t frequency) noexcept;

class MonotonicStopWatch {
public:
    MonotonicStopWatch() noexcept;
    virtual ~MonotonicStopWatch() = default;

    virtual void restart() noexcept;
    // Whole milliseconds since the last restart, truncated toward zero.
    std::int64_t elapsed_ms() const noexcept;

protected:
    std::int64_t startTime_ns;
};

class MonotonicTimer : public MonotonicStopWatch {
public:
    explicit MonotonicTimer(std::int64_t timeout_ms = 0) noexcept;

    // Clears the expiry and restarts with the same time-out.
    void restart() noexcept override;
    // Stores a new time-out, clears the expiry and restarts.
    virtual void restart(std::int64_t timeout_ms) noexcept;
    // True once elapsed_ms() >= timeout_ms; stays true until restarted.
    bool hasExpired() noexcept;
    std::int64_t timeout() const noexcept { return timeout_ms; }

private:
    bool isExpired = false;
    std::int64_t timeout_ms;
};

}  // namespace ztsdtools
