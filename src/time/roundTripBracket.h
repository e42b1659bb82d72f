// Pieces of the symmetric sampling of a linear correlator, where a round
// reads the first timescale, then the second, then the first again.
//
// BracketFilter decides which rounds are kept. A round's bracket is the time
// between its two first-timescale readings, the whole round trip of the
// second reading when that timescale is remote. A reply held up on its way
// (a busy peer, a lost segment sent again) widens the bracket and leaves its
// reading anywhere inside it, so such rounds are dropped: a bracket is
// refused when it is more than kFactor times the median of the last kWindow
// brackets seen AND more than kMargin_ns above that median (the margin keeps
// a few microseconds of scheduling noise on a quiet loopback from counting
// as delay). Every bracket seen, kept or not, enters the window, so a lasting
// change of the round-trip time is learnt within half a window. Until
// kMinHistory brackets have been seen nothing is refused.
//
// midpoint() gives the exact middle of two readings in the decimal type:
// the half of a whole nanosecond needs one more fraction digit, which the
// type holds, so no rounding happens.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "time/timestampDecimal.h"
#include "ztsdlib/ztsdlib.h"

namespace ztsdlib {

class BracketFilter {
public:
    static constexpr std::size_t kWindow = 15;
    static constexpr std::size_t kMinHistory = 5;
    static constexpr std::int64_t kFactor = 3;
    static constexpr std::int64_t kMargin_ns = 20000;

    // True when a round with this bracket (>= 0) is to be kept.
    bool accept(std::int64_t bracket_ns);
    // The median of the brackets in the window (0 while it is empty); for an
    // even count the lower middle one.
    std::int64_t median_ns() const;

private:
    std::array<std::int64_t, kWindow> recent{};
    std::size_t count = 0;  // brackets seen, up to kWindow
    std::size_t next = 0;   // where the next one goes
};

// (a + b) / 2, exactly.
TimestampDecimal midpoint(const ztsdlib_Timestamp& a, const ztsdlib_Timestamp& b);

// How far a symmetric round's remote reading, paired with the midpoint of a
// bracket of bracket_ns (>= 0), may be from the remote clock's true time at
// that midpoint, in seconds: the reading was taken within the round trip, so
// within half the bracket of the midpoint, widened by one tick of a 100 ns
// clock for the truncated first-timescale readings, by 0.1 % for a remote
// clock running up to 1000 ppm off, and by 1 ns for the remote reading's own
// truncation.
double pairingHalfWidth_s(std::int64_t bracket_ns);

// A sequential round reads the first timescale and then the second, and
// pairs the two readings: the second was taken after the first, within the
// round trip of roundTrip_ns (the time from the start of the first reading
// to the end of the second, >= 0), so the second timescale's true time at
// the first reading lies up to that round trip (widened as above) below
// the second reading and at most the truncations above it. That interval
// is pairingHalfWidth_s(roundTrip_ns) wide on either side of the second
// reading moved by this shift, in seconds (<= 0).
double sequentialPairingShift_s(std::int64_t roundTrip_ns);

// b - a in nanoseconds (signed), for records within ±2^63 ns of each other;
// further apart saturates.
std::int64_t differenceNanos(const ztsdlib_Timestamp& a, const ztsdlib_Timestamp& b);

}  // namespace ztsdlib
