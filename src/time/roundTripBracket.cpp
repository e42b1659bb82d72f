#include "time/roundTripBracket.h"

#include <algorithm>
#include <limits>


namespace ztsdlib {

std::int64_t BracketFilter::median_ns() const {
    if (count == 0) return 0;
    std::array<std::int64_t, kWindow> sorted = recent;
    const auto end = sorted.begin() + static_cast<std::ptrdiff_t>(count);
    const auto middle = sorted.begin() + static_cast<std::ptrdiff_t>((count - 1) / 2);
    std::nth_element(sorted.begin(), middle, end);
    return *middle;
}

bool BracketFilter::accept(std::int64_t bracket_ns) {
    bool keep = true;
    if (count >= kMinHistory) {
        const std::int64_t median = median_ns();
        keep = !(bracket_ns > kFactor * median && bracket_ns - median > kMargin_ns);
    }
    recent[next] = bracket_ns;
    next = (next + 1) % kWindow;
    if (count < kWindow) ++count;
    return keep;
}

TimestampDecimal midpoint(const ztsdlib_Timestamp& a, const ztsdlib_Timestamp& b) {
    return (toDecimal(a) + toDecimal(b)) / 2;
}

namespace {
constexpr double kTick_ns = 100;
constexpr double kRateAllowance = 1.001;
constexpr double kRemoteTruncation_ns = 1;
}  // namespace

double pairingHalfWidth_s(std::int64_t bracket_ns) {
    return ((static_cast<double>(bracket_ns) / 2 + kTick_ns) * kRateAllowance + kRemoteTruncation_ns) * 1e-9;
}

// The interval [second - (trip + tick) * allowance - 1 ns, second + tick *
// allowance + 1 ns] is the half-width's around second - trip * allowance / 2.
double sequentialPairingShift_s(std::int64_t roundTrip_ns) {
    return -static_cast<double>(roundTrip_ns) / 2 * kRateAllowance * 1e-9;
}

std::int64_t differenceNanos(const ztsdlib_Timestamp& a, const ztsdlib_Timestamp& b) {
    using Wide = __int128;
    const auto value = [](const ztsdlib_Timestamp& t) {
        const Wide magnitude = static_cast<Wide>(t.seconds) * 1000000000 + t.nanos;
        return t.isNegative ? -magnitude : magnitude;
    };
    const Wide difference = value(b) - value(a);
    constexpr Wide kMax = std::numeric_limits<std::int64_t>::max();
    constexpr Wide kMin = std::numeric_limits<std::int64_t>::min();
    return static_cast<std::int64_t>(std::min(kMax, std::max(kMin, difference)));
}

}  // namespace ztsdlib
