// Time values as the tool shows and reads them.
//
// The library's ztsdlib_Timestamp is sign and magnitude; host timescales
// count seconds from 1601-01-01 00:00:00 UTC. The tool converts a timestamp
// to a signed count of whole nanoseconds (Nanos, 128 bits, so that any
// 64-bit seconds value fits) and back, and never goes through floating point:
// offsets and rates are printed from integer arithmetic. fractionalNanos is
// dropped, as the library's own decimal arithmetic drops it.
//
// Texts read (parseTime):
//   decimal seconds  "13380000000.25", "-1.5"       (up to 9 fractional digits)
//   UTC date-time    "2025-01-02T03:04:05.123456789Z" (T or a space; Z optional)
// Texts written: decimalSeconds "13380000000.250000000", utcText
// "2025-01-02T03:04:05.123456789Z" (for times on or after 1601-01-01).
#pragma once

#include <optional>
#include <string>

#include "ztsdlib/ztsdlib.h"

namespace ztsdctl {

using Nanos = __int128;

constexpr Nanos kNanosPerSecond = 1000000000;

Nanos toNanos(const ztsdlib_Timestamp& t);
ztsdlib_Timestamp fromNanos(Nanos ns);

std::string integerText(Nanos value);               // "-123", "45"
std::string decimalSeconds(const ztsdlib_Timestamp& t);
std::string utcText(const ztsdlib_Timestamp& t);    // "" before 1601
// The present UTC time in RFC 3339 with milliseconds: "2026-11-23T02:59:07.123Z".
std::string utcNow();
// value / 10^decimals written exactly with `decimals` digits after the point,
// with a leading sign when signed_ is set ("+2.500", "-0.001").
std::string fixedPoint(Nanos value, int decimals, bool signed_);
// A signed duration in the largest unit that keeps it readable:
// "+340 ns", "-12.500 us", "+1.234567 ms", "+2.500000000 s".
std::string durationText(Nanos ns);

std::optional<ztsdlib_Timestamp> parseTime(const std::string& text);

}  // namespace ztsdctl
