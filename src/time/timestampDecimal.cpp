#include "time/timestampDecimal.h"

#include <boost/version.hpp>

#include <cstdint>
#include <stdexcept>

#include "errors/exception.h"

namespace ztsdlib {
namespace {

constexpr std::uint32_t kLimbBase = 100000000u;  // 10^8: one limb holds 8 decimal digits
constexpr int kLimbCount = kTimestampDecimalLimbs;
constexpr std::uint64_t kFraction15 = 1000000000000000ULL;  // 10^15
constexpr std::uint64_t kFraction15PerNano = 1000000ULL;    // 10^15 / 10^9

// The digits of a TimestampDecimal: value = sum(limb[i] * 10^(exponent - 8 i)),
// limb[0] != 0 for non-zero finite values, exponent a multiple of 8. The
// backend publishes its fields only through its serialisation hook, which
// visits them in a fixed order (5 limbs, exponent, sign, class, precision);
// this archive records where each one lives.
class FieldLocator {
public:
    template <typename T>
    FieldLocator& operator&(const boost::serialization::nvp<T>& field) {
        locate(field.value());
        return *this;
    }

    std::uint32_t* limb[kLimbCount] = {};
    std::int32_t* exponent = nullptr;
    bool* negative = nullptr;
    int valueClass = 0;  // 0 finite, 1 infinity, 2 NaN (the backend's order)

private:
    void locate(std::uint32_t& digits) {
        if (limbsSeen < kLimbCount) limb[limbsSeen] = &digits;
        ++limbsSeen;
    }
    void locate(std::int32_t& number) {
        if (!exponent) exponent = &number;  // the second one is the working precision
    }
    void locate(bool& sign) { negative = &sign; }
    template <typename ClassEnum>
    void locate(ClassEnum& c) {
        valueClass = static_cast<int>(c);
    }

    int limbsSeen = 0;
};

FieldLocator locateFields(TimestampDecimal& value) {
    FieldLocator locator;
    value.backend().serialize(locator, 0u);
    return locator;
}

[[noreturn]] void raiseInvalid(int line, const char* message) {
    zterr::raise(ZTERR_SITE_AT(kTimestampConversionFile, line, zterr::name::ztapalerr_invalidParameter),
                 zterr::code::ztapalerr_invalidParameter, "ztsyncdomain_debug", {{"message", message}});
}

constexpr std::uint64_t pow10(int e) {
    std::uint64_t r = 1;
    for (int i = 0; i < e; ++i) r *= 10;
    return r;
}

}  // namespace

// The direct path reads and writes the number's digit blocks through the
// backend's serialisation hook; it is used only on the Boost releases whose
// layout it was checked against (1.74 to 1.81: limbs of 10^8 visited first,
// then the exponent, the sign, the class and the precision), and the tests
// compare it with the decimal-text conversion there. Every other release,
// or a build with ZTSD_DECIMAL_PUBLIC_PATH defined, gets the public path.
#if !defined(ZTSD_DECIMAL_PUBLIC_PATH) && BOOST_VERSION >= 107400 && BOOST_VERSION <= 108100
#define ZTSD_DECIMAL_DIRECT_PATH 1
#else
#define ZTSD_DECIMAL_DIRECT_PATH 0
#endif

const TimestampDecimal& timestampUpperLimit() {
    static const TimestampDecimal limit = TimestampDecimal(UINT64_MAX) + 1;
    return limit;
}

namespace {

[[maybe_unused]] TimestampDecimal directToDecimal(const ztsdlib_Timestamp& timestamp) {
    TimestampDecimal result;  // finite zero, full precision
    if (timestamp.seconds == 0 && timestamp.nanos == 0) return result;  // -0 is zero

    // The digits sss...sss.nnnnnnnnn laid out in limbs whose weights are
    // 10^16, 10^8, 10^0, 10^-8 and 10^-16 (and 0 in any further limb).
    const std::uint64_t s = timestamp.seconds;
    const std::uint32_t digits[kLimbCount] = {
        static_cast<std::uint32_t>(s / (std::uint64_t(kLimbBase) * kLimbBase)),
        static_cast<std::uint32_t>((s / kLimbBase) % kLimbBase),
        static_cast<std::uint32_t>(s % kLimbBase),
        timestamp.nanos / 10u,
        (timestamp.nanos % 10u) * (kLimbBase / 10u),
    };
    static_assert(kLimbCount >= 5, "the digits need five limbs");
    int first = 0;
    while (digits[first] == 0) ++first;  // some limb is non-zero

    FieldLocator fields = locateFields(result);
    for (int i = 0; i < kLimbCount; ++i) *fields.limb[i] = i + first < kLimbCount ? digits[i + first] : 0u;
    *fields.exponent = 16 - 8 * first;
    *fields.negative = timestamp.isNegative;
    return result;
}

[[maybe_unused]] ztsdlib_Timestamp directToTimestamp(const TimestampDecimal& value) {
    TimestampDecimal copy = value;
    const FieldLocator fields = locateFields(copy);
    if (fields.valueClass == 2) raiseInvalid(__LINE__, "The input timestamp is NaN");
    if (!(value < timestampUpperLimit())) raiseInvalid(__LINE__, "Exceeded the max ztsdlib_Timestamp value");
    // Only -infinity is left of the non-finite values: its text has no digits.
    if (fields.valueClass != 0) throw std::invalid_argument("invalid stoull argument");

    ztsdlib_Timestamp result{};
    const std::uint32_t lead = *fields.limb[0];
    if (lead == 0) return result;  // zero, whatever its sign flag
    result.isNegative = *fields.negative;

    const std::int32_t exponent = *fields.exponent;
    int leadDigits = 1;
    for (std::uint32_t d = lead; d >= 10; d /= 10) ++leadDigits;
    // 10^20 > 2^64: such magnitudes cannot be read back as seconds.
    if (exponent + leadDigits - 1 >= 20) throw std::out_of_range("stoull argument out of range");

    // Split into the integer part and fraction digits 1..8 (the limb of
    // weight 10^-8) and 9..16 (10^-16); later digits cannot matter.
    unsigned __int128 integer = 0;
    std::uint64_t fraction1to8 = 0;
    std::uint64_t fraction9to16 = 0;
    for (int i = 0; i < kLimbCount; ++i) {
        const std::uint32_t limb = *fields.limb[i];
        const std::int32_t weight = exponent - 8 * i;  // limb i counts units of 10^weight
        if (weight >= 0) {
            integer += static_cast<unsigned __int128>(limb) * pow10(weight);  // weight is 0, 8 or 16
        } else if (weight == -8) {
            fraction1to8 = limb;
        } else if (weight == -16) {
            fraction9to16 = limb;
        }
    }

    // Round to 15 fraction digits. Rounding half to even and rounding half
    // up differ only when the 15th digit is even, and then no carry reaches
    // the nanoseconds (that takes digits 10..15 all 9), so after truncation
    // to 9 digits the 16th digit alone decides.
    std::uint64_t fraction15 = fraction1to8 * 10000000ULL + fraction9to16 / 10;
    if (fraction9to16 % 10 >= 5 && ++fraction15 == kFraction15) {
        fraction15 = 0;
        ++integer;
    }
    if (integer > UINT64_MAX) throw std::out_of_range("stoull argument out of range");

    result.seconds = static_cast<std::uint64_t>(integer);
    result.nanos = static_cast<std::uint32_t>(fraction15 / kFraction15PerNano);
    return result;
}


// The same two conversions through the number's public arithmetic only:
// every step is exact for these magnitudes (a 20-digit integer plus 9
// fraction digits fits the decimal; multiplying by a power of ten shifts
// digits), so the results equal the direct path's, digit for digit.
[[maybe_unused]] TimestampDecimal publicToDecimal(const ztsdlib_Timestamp& timestamp) {
    static const TimestampDecimal nano("1e-9");
    TimestampDecimal result(timestamp.seconds);
    if (timestamp.nanos != 0) result += TimestampDecimal(timestamp.nanos) * nano;
    if (timestamp.isNegative && result != 0) result = -result;  // -0 is zero
    return result;
}

[[maybe_unused]] ztsdlib_Timestamp publicToTimestamp(const TimestampDecimal& value) {
    using boost::multiprecision::isinf;
    using boost::multiprecision::isnan;
    if (isnan(value)) raiseInvalid(__LINE__, "The input timestamp is NaN");
    if (!(value < timestampUpperLimit())) raiseInvalid(__LINE__, "Exceeded the max ztsdlib_Timestamp value");
    if (isinf(value)) throw std::invalid_argument("invalid stoull argument");  // -infinity

    ztsdlib_Timestamp result{};
    if (value == 0) return result;  // zero, whatever its sign
    result.isNegative = value < 0;
    const TimestampDecimal magnitude = result.isNegative ? TimestampDecimal(-value) : value;
    if (!(magnitude < timestampUpperLimit())) throw std::out_of_range("stoull argument out of range");

    static const TimestampDecimal fraction15Scale(kFraction15);
    const TimestampDecimal integer = boost::multiprecision::trunc(magnitude);
    // The fraction's first 15 digits, rounded on the 16th and later ones
    // (see the direct path for why half up equals half to even here).
    const TimestampDecimal scaled = (magnitude - integer) * fraction15Scale;
    const TimestampDecimal first15 = boost::multiprecision::trunc(scaled);
    static const TimestampDecimal half("0.5");
    std::uint64_t fraction15 = first15.convert_to<std::uint64_t>();
    std::uint64_t seconds = integer.convert_to<std::uint64_t>();
    if (!(scaled - first15 < half) && ++fraction15 == kFraction15) {
        fraction15 = 0;
        if (seconds == UINT64_MAX) throw std::out_of_range("stoull argument out of range");
        ++seconds;
    }
    result.seconds = seconds;
    result.nanos = static_cast<std::uint32_t>(fraction15 / kFraction15PerNano);
    return result;
}

}  // namespace

TimestampDecimal toDecimal(const ztsdlib_Timestamp& timestamp) {
    if (timestamp.nanos >= 1000000000u) raiseInvalid(__LINE__, "Nano seconds field greater than 1e+9");
#if ZTSD_DECIMAL_DIRECT_PATH
    return directToDecimal(timestamp);
#else
    return publicToDecimal(timestamp);
#endif
}

ztsdlib_Timestamp toTimestamp(const TimestampDecimal& value) {
#if ZTSD_DECIMAL_DIRECT_PATH
    return directToTimestamp(value);
#else
    return publicToTimestamp(value);
#endif
}

}  // namespace ztsdlib
