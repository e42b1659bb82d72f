// The exact decimal number that all timestamp arithmetic is done in, and the
// two conversions between it and the boundary record ztsdlib_Timestamp.
//
// TimestampDecimal is a decimal floating-point number of 5 limbs of 8 decimal
// digits each (40 digits, the first and last limb with 1..8 digits of play),
// so that 20 integer digits and 9 fraction digits are held exactly. The digit
// request that gives 5 limbs depends on the Boost release (the backend adds
// three guard limbs to ceil(request / 8) here); the static_assert below pins
// the limb count rather than the request. Expression templates are off so
// that every operation is evaluated one step at a time, the same way in
// every caller.
//
// Only the time module includes this header: other modules see timestamps
// as ztsdlib_Timestamp and never the decimal type.
//
// Both conversions behave exactly as going through decimal text would
// (sign, seconds, ".", nanos padded to 9 digits, parsed; and back: fixed
// notation with 15 fraction digits, the integer part read as an unsigned
// 64-bit number, the first 9 fraction digits as nanos), but work on the
// digits directly, without any text and never through binary floating
// point:
//  - toDecimal fails for nanos >= 1e9 ("Nano seconds field greater than
//    1e+9", the message is kept although the test is >=); a negative zero
//    gives zero; fractionalNanos is ignored.
//  - toTimestamp fails for NaN and for values >= 2^64 (+infinity included)
//    with the library's exception. Otherwise the magnitude is rounded to 15
//    fraction digits (half to even, on all stored digits), then truncated to
//    whole nanoseconds: it never rounds to the nanosecond, but a value within
//    half of 1e-15 below a nanosecond boundary lands on the boundary (carries
//    included, up into the seconds). isNegative is set for any value below
//    zero, even one that rounds to zero. A negative magnitude that reaches
//    2^64 after rounding throws std::out_of_range("stoull argument out of
//    range"), -infinity std::invalid_argument("invalid stoull argument"), as
//    the standard conversions of the text would; the export frame reports
//    them as other standard exceptions. fractionalNanos of the result is 0.
#pragma once

#include <boost/multiprecision/cpp_dec_float.hpp>

#include "ztsdlib/ztsdlib.h"

namespace ztsdlib {

using TimestampDecimalBackend = boost::multiprecision::cpp_dec_float<16>;
using TimestampDecimal = boost::multiprecision::number<TimestampDecimalBackend, boost::multiprecision::et_off>;

static_assert(TimestampDecimalBackend::cpp_dec_float_total_digits10 == 5 * 8,
              "TimestampDecimal must have exactly 5 limbs of 8 decimal digits");

// Source label of the conversions' error reports.
constexpr const char* kTimestampConversionFile = "source\\ztsdlib\\linearRegressionFilterWrapper";

// The record's value as an exact decimal. Throws zterr::Exception (-52005)
// when nanos >= 1000000000.
TimestampDecimal toDecimal(const ztsdlib_Timestamp& timestamp);

// The decimal as a record, truncated to whole nanoseconds after rounding to
// 15 fraction digits. Throws zterr::Exception (-52005) for NaN and for
// values >= 2^64; std::out_of_range / std::invalid_argument for negative
// magnitudes >= 2^64 and -infinity.
ztsdlib_Timestamp toTimestamp(const TimestampDecimal& value);

// 18446744073709551616 (2^64), built once on first use; toTimestamp accepts
// only values strictly below it.
const TimestampDecimal& timestampUpperLimit();

}  // namespace ztsdlib
