// The exact decimal number that all timestamp arithmetic is done in, and the
// two conversions between it and the boundary record ztsdlib_Timestamp.
//
// TimestampDecimal is a decimal floating-point number of limbs of 8 decimal
// digits each, the first and last limb with 1..8 digits of play, so that 20
// integer digits and 9 fraction digits are held exactly and the regression
// keeps some 32 correct digits through its products and quotients. How many
// limbs give that depends on the Boost release, and is chosen from the
// backend's public constants:
//  - releases whose backend publishes cpp_dec_float_total_digits10 (1.74 and
//    its kin) keep every limb of a product: 5 limbs (cpp_dec_float<16>);
//  - releases that publish cpp_dec_float_max_digits10 instead (1.81, 1.83)
//    drop the last limb of each product and quotient, so with 5 limbs the
//    regression would keep only about 28 digits: they get 6 limbs
//    (cpp_dec_float<24>), which keeps at least as many as 1.74 does.
// The static_assert below pins the limb count through std::numeric_limits.
// Expression templates are off so that every operation is evaluated one step
// at a time, the same way in every caller.
//
// Only the time module includes this header: other modules see timestamps
// as ztsdlib_Timestamp and never the decimal type.
//
// The conversions have two implementations with the same results: a direct
// one that lays the digits into the backend's limbs (about 20 ns a round
// trip), used on the Boost releases whose digit layout it was checked
// against, and one through the number's public arithmetic for every other
// release (or when ZTSD_DECIMAL_PUBLIC_PATH is defined); see the .cpp.
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

#include <limits>
#include <type_traits>

#include "ztsdlib/ztsdlib.h"

namespace ztsdlib {

namespace detail {
// True for backends that publish cpp_dec_float_total_digits10, whose
// products keep every limb.
template <typename Backend, typename = void>
struct keepsWholeProducts : std::false_type {};
template <typename Backend>
struct keepsWholeProducts<Backend, std::void_t<decltype(Backend::cpp_dec_float_total_digits10)>> : std::true_type {};
}  // namespace detail

// Limbs of TimestampDecimal on this Boost release (see above).
constexpr int kTimestampDecimalLimbs =
    detail::keepsWholeProducts<boost::multiprecision::cpp_dec_float<16>>::value ? 5 : 6;

// The backend asks for (limbs - 3) * 8 digits: it adds three guard limbs.
using TimestampDecimalBackend = boost::multiprecision::cpp_dec_float<(kTimestampDecimalLimbs - 3) * 8>;
using TimestampDecimal = boost::multiprecision::number<TimestampDecimalBackend, boost::multiprecision::et_off>;

// max_digits10 is the backend's whole digit store, its limbs times 8; the
// conversions below lay digits out in limbs of 10^8.
static_assert(std::numeric_limits<TimestampDecimal>::max_digits10 == kTimestampDecimalLimbs * 8,
              "TimestampDecimal must have the chosen number of limbs of 8 decimal digits");

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
