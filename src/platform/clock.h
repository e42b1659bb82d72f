// Clocks of the host. The only place that knows how the operating system
// tells time; a port to another system replaces clock.cpp.
#pragma once

#include <cstdint>

namespace ztsdlib {
namespace platform {

// The wall clock as a count of 100-nanosecond intervals since
// 1601-01-01 00:00:00 UTC. Adjustable: it may step.
std::uint64_t systemTime100nsSince1601() noexcept;

// A steady counter and its frequency in counts per second.
std::int64_t steadyCounter() noexcept;
std::int64_t steadyFrequency() noexcept;

}  // namespace platform
}  // namespace ztsdlib
