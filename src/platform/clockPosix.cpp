#include "platform/clock.h"

#include <time.h>

namespace ztsdlib {
namespace platform {
namespace {
// Seconds from 1601-01-01 to 1970-01-01 (369 years, 89 of them leap years).
constexpr std::uint64_t kSeconds1601To1970 = 11644473600ULL;
}  // namespace

std::uint64_t systemTime100nsSince1601() noexcept {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    // A clock set before 1970 still counts from 1601.
    const std::int64_t seconds = static_cast<std::int64_t>(ts.tv_sec) + static_cast<std::int64_t>(kSeconds1601To1970);
    return static_cast<std::uint64_t>(seconds) * 10000000ULL + static_cast<std::uint64_t>(ts.tv_nsec) / 100ULL;
}

std::int64_t steadyCounter() noexcept {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

std::int64_t steadyFrequency() noexcept { return 1000000000LL; }

}  // namespace platform
}  // namespace ztsdlib
