#include "time/hostTimescale.h"

#include <utility>

#include "platform/clock.h"

namespace ztsdlib {

HostTimescale::HostTimescale(std::string uriText) : uri(std::move(uriText)) {}

ztsdlib_Timestamp HostTimescale::fromIntervals100ns(std::uint64_t intervals) noexcept {
    ztsdlib_Timestamp t{};
    t.seconds = intervals / 10000000ULL;
    // The remainder is below 1e7, so the low 32 bits hold it exactly.
    const std::uint32_t remainder = static_cast<std::uint32_t>(intervals - t.seconds * 10000000ULL);
    t.nanos = remainder * 100u;
    t.fractionalNanos = 0;
    t.isNegative = false;
    return t;
}

void HostTimescale::getTime(ztsdlib_Timestamp& timestamp, zterr_Status*) {
    timestamp = fromIntervals100ns(platform::systemTime100nsSince1601());
}

std::string HostTimescale::toJson() const { return "{\"uri\":\"" + uri + "\"}"; }

}  // namespace ztsdlib
