// The boundary time value and the few operations every module needs on it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "ztsdlib/ztsdlib.h"

static_assert(sizeof(ztsdlib_Timestamp) == 24, "ztsdlib_Timestamp must stay 24 bytes");
static_assert(offsetof(ztsdlib_Timestamp, seconds) == 0, "seconds at offset 0");
static_assert(offsetof(ztsdlib_Timestamp, nanos) == 8, "nanos at offset 8");
static_assert(offsetof(ztsdlib_Timestamp, fractionalNanos) == 12, "fractionalNanos at offset 12");
static_assert(offsetof(ztsdlib_Timestamp, isNegative) == 16, "isNegative at offset 16");

namespace ztsdlib {

constexpr std::uint32_t kNanosPerSecond = 1000000000u;

// Field-wise equality over all four fields.
inline bool sameTimestamp(const ztsdlib_Timestamp& a, const ztsdlib_Timestamp& b) noexcept {
    return a.seconds == b.seconds && a.nanos == b.nanos && a.fractionalNanos == b.fractionalNanos &&
           a.isNegative == b.isNegative;
}

}  // namespace ztsdlib
