#include <gtest/gtest.h>

#include <cstdint>
#include <ios>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "errors/exception.h"
#include "time/timestamp.h"
#include "time/timestampDecimal.h"
#include "unit/support/literalTimestampConversion.h"
#include "unit/support/raisedError.h"
#include "unit/support/testTimescales.h"

using ztsdlib::TimestampDecimal;
using ztsdlib::toDecimal;
using ztsdlib::toTimestamp;
using ztsdtest::show;
using ztsdtest::ts;

namespace {

constexpr std::uint64_t kMax64 = UINT64_MAX;

TimestampDecimal dec(const std::string& text) { return TimestampDecimal(text); }

// The message of a library error, checked to be the conversions' report.
std::string libraryMessage(const zterr::Exception& e) {
    const auto r = ztsdtest::Raised::fromReport(e.code(), e.status().json);
    ztsdtest::expectSite(r, -52005, "ztapalerr_invalidParameter", "source\\ztsdlib\\linearRegressionFilterWrapper");
    return r.message();
}

// What one conversion did: a value, or a failure as "<kind>: <message>".
struct Outcome {
    std::string failure;  // empty for a value
    ztsdlib_Timestamp timestamp{};
    TimestampDecimal decimal;

    std::string decimalText() const { return failure.empty() ? decimal.str() : failure; }
    std::string timestampText() const { return failure.empty() ? show(timestamp) : failure; }
};

template <typename Conversion>
Outcome run(Conversion&& conversion) {
    Outcome o;
    try {
        conversion(o);
    } catch (const zterr::Exception& e) {
        o.failure = "library error: " + libraryMessage(e);
    } catch (const ztsdtest::LiteralConversionFailure& e) {
        o.failure = "library error: " + e.message;
    } catch (const std::out_of_range& e) {
        o.failure = std::string("out_of_range: ") + e.what();
    } catch (const std::invalid_argument& e) {
        o.failure = std::string("invalid_argument: ") + e.what();
    } catch (const std::exception& e) {
        o.failure = std::string("other: ") + e.what();
    }
    return o;
}

Outcome fastToDecimal(const ztsdlib_Timestamp& t) { return run([&](Outcome& o) { o.decimal = toDecimal(t); }); }
Outcome fastToTimestamp(const TimestampDecimal& d) { return run([&](Outcome& o) { o.timestamp = toTimestamp(d); }); }

// The fast and the literal conversion of a record agree in value, in
// representation (every limb, exponent and sign) and in failure.
::testing::AssertionResult sameToDecimal(const ztsdlib_Timestamp& t) {
    const Outcome fast = fastToDecimal(t);
    const Outcome literal = run([&](Outcome& o) { o.decimal = ztsdtest::literalToDecimal(t); });
    auto text = [](const Outcome& o) { return o.failure.empty() ? o.decimal.str(40, std::ios::scientific) : o.failure; };
    if (text(fast) == text(literal) && fast.decimal == literal.decimal &&
        fast.decimal.backend().hash() == literal.decimal.backend().hash())
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "toDecimal(" << show(t) << "): fast " << text(fast) << ", literal "
                                         << text(literal);
}

::testing::AssertionResult sameToTimestamp(const TimestampDecimal& d) {
    const std::string fast = fastToTimestamp(d).timestampText();
    const std::string literal = run([&](Outcome& o) { o.timestamp = ztsdtest::literalToTimestamp(d); }).timestampText();
    if (fast == literal) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "toTimestamp(" << d.str(45, std::ios::scientific) << "): fast " << fast
                                         << ", literal " << literal;
}

class RandomDigits {
public:
    explicit RandomDigits(std::uint32_t seed) : engine(seed) {}
    std::string digits(int count, bool nonZeroFirst = false) {
        std::string s;
        for (int i = 0; i < count; ++i) s += static_cast<char>('0' + pick(i == 0 && nonZeroFirst ? 1 : 0, 9));
        return s;
    }
    int pick(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(engine); }
    std::uint64_t u64(std::uint64_t lo = 0, std::uint64_t hi = kMax64) {
        return std::uniform_int_distribution<std::uint64_t>(lo, hi)(engine);
    }
    bool coin() { return pick(0, 1) == 1; }
    std::mt19937_64 engine;
};

ztsdlib_Timestamp randomRecord(RandomDigits& r) {
    std::uint64_t seconds = 0;
    switch (r.pick(0, 5)) {
        case 0: seconds = r.u64(); break;
        case 1: seconds = r.u64(0, 1000); break;
        case 2: seconds = kMax64 - r.u64(0, 1000); break;
        case 3: seconds = 13400000000ULL + r.u64(0, 200000000ULL) - 100000000ULL; break;  // 1601-epoch now
        case 4: seconds = r.u64(0, 99999999ULL) * (r.coin() ? 100000000ULL : 1ULL); break;  // limb edges
        default: seconds = 0; break;
    }
    std::uint32_t nanos = 0;
    switch (r.pick(0, 5)) {
        case 0: nanos = 0; break;
        case 1: nanos = 999999999u; break;
        case 2: nanos = static_cast<std::uint32_t>(r.u64(0, 9)) * 100000000u; break;
        case 3: nanos = static_cast<std::uint32_t>(r.u64(0, 9)); break;
        default: nanos = static_cast<std::uint32_t>(r.u64(0, 999999999u)); break;
    }
    return ts(seconds, nanos, r.coin(), static_cast<std::uint32_t>(r.u64(0, 3)));
}

// Decimals of every shape the conversions meet: quotients and products of
// records, texts with more than 15 fraction digits close to the rounding
// edges, huge and tiny magnitudes, both signs.
TimestampDecimal randomDecimal(RandomDigits& r) {
    const std::string sign = r.coin() ? "-" : "";
    switch (r.pick(0, 9)) {
        case 0: {  // a quotient of two records
            ztsdlib_Timestamp a = randomRecord(r), b = randomRecord(r);
            if (b.seconds == 0 && b.nanos == 0) b.nanos = 3;
            return toDecimal(a) / toDecimal(b);
        }
        case 1: {  // small quotients: fractions with long expansions
            return TimestampDecimal(static_cast<long long>(r.u64(0, 1000000)) * (r.coin() ? 1 : -1)) /
                   TimestampDecimal(static_cast<long long>(r.u64(1, 999)));
        }
        case 2: {  // x.ddd999...9 (15 fraction digits), then a rounding digit: just below a boundary
            const int random = r.pick(0, 14);
            return dec(sign + std::to_string(r.u64(0, r.coin() ? 20000000000ULL : kMax64)) + "." +
                       r.digits(random) + std::string(static_cast<std::size_t>(15 - random), '9') +
                       std::to_string(r.pick(4, 9)) + r.digits(r.pick(0, 12)));
        }
        case 3: {  // 9 nanosecond digits, then 999999 and a rounding digit
            return dec(sign + std::to_string(r.u64(0, 20000000000ULL)) + "." + r.digits(9) + "999999" +
                       std::to_string(r.pick(4, 6)) + (r.coin() ? r.digits(r.pick(1, 10)) : std::string()));
        }
        case 4: {  // exact ties at the 16th fraction digit, odd and even 15th digits
            return dec(sign + std::to_string(r.u64(0, 99999)) + "." + r.digits(15) + "5" +
                       (r.coin() ? std::string() : r.digits(r.pick(1, 8))));
        }
        case 5: {  // near 2^64
            return dec(sign + "1844674407370955161" + std::to_string(r.pick(4, 6)) + "." + r.digits(r.pick(0, 18)));
        }
        case 6: {  // huge
            return dec(sign + r.digits(1, true) + "." + r.digits(r.pick(0, 30)) + "e" + std::to_string(r.pick(15, 40)));
        }
        case 7: {  // tiny
            return dec(sign + r.digits(1, true) + "." + r.digits(r.pick(0, 30)) + "e-" + std::to_string(r.pick(8, 40)));
        }
        case 8: {  // products of records and a slope near 1
            const TimestampDecimal slope = dec("1." + std::string(4, '0') + r.digits(r.pick(1, 12)));
            return toDecimal(randomRecord(r)) * slope + toDecimal(randomRecord(r)) / TimestampDecimal(7);
        }
        default:
            return toDecimal(randomRecord(r));
    }
}

}  // namespace

TEST(TimestampConversion, ToDecimalGivesKnownAnswersMatchesTheLiteralConversionAndRoundTrips) {
    // -0 is plain zero, and fractionalNanos plays no part.
    const std::pair<ztsdlib_Timestamp, std::string> known[] = {
        {ts(5, 999999999u), "5.999999999"},
        {ts(12, 345, true), "-12.000000345"},
        {ts(kMax64, 999999999u), "18446744073709551615.999999999"},
        {ts(0, 0, true), "0"},
        {ts(3, 7, false, 99), "3.000000007"},
        {ts(5, 1000000000u), "library error: Nano seconds field greater than 1e+9"},
        {ts(0, UINT32_MAX, true), "library error: Nano seconds field greater than 1e+9"},
    };
    for (const auto& [t, expected] : known) {
        EXPECT_EQ(fastToDecimal(t).decimalText(), expected) << show(t);
        EXPECT_TRUE(sameToDecimal(t));
    }
    const std::vector<ztsdlib_Timestamp> boundaries = {
        ts(0, 0),        ts(0, 1),           ts(0, 1, true),  ts(0, 999999999u), ts(1, 0),
        ts(kMax64, 0),   ts(kMax64, 0, true), ts(99999999, 0), ts(100000000, 0),  ts(0, 10),
        ts(0, 100000000u, true), ts(10000000000000000ULL, 5), ts(13400000000ULL, 123456789u),
    };
    for (const auto& t : boundaries) EXPECT_TRUE(sameToDecimal(t));

    RandomDigits r(20240611u);
    for (int i = 0; i < 30000; ++i) {
        ztsdlib_Timestamp t = randomRecord(r);
        ASSERT_TRUE(sameToDecimal(t)) << "iteration " << i;
        // Every valid record comes back, less what the decimal does not
        // carry: fractionalNanos and the sign of zero.
        t.fractionalNanos = 0;
        if (t.seconds == 0 && t.nanos == 0) t.isNegative = false;
        const ztsdlib_Timestamp back = toTimestamp(toDecimal(t));
        ASSERT_TRUE(ztsdlib::sameTimestamp(back, t)) << show(t) << " came back as " << show(back);
    }
}

TEST(TimestampConversion, ToTimestampGivesKnownAnswersAndMatchesTheLiteralConversion) {
    // Truncation to nanoseconds after rounding to 15 fraction digits (half to
    // even), and the failures at and beyond the limits.
    const TimestampDecimal inf = std::numeric_limits<TimestampDecimal>::infinity();
    const std::pair<TimestampDecimal, std::string> known[] = {
        {dec("0"), "+0s 0ns f0"},
        {dec("1.9999999999"), "+1s 999999999ns f0"},  // truncated, not rounded up to 2
        {dec("-0.5"), "-0s 500000000ns f0"},
        {dec("18446744073709551615.999999999"), "+18446744073709551615s 999999999ns f0"},
        {dec("1.9999999999999996"), "+2s 0ns f0"},  // within half of 1e-15 below a boundary: carries
        {dec("1.9999999999999994"), "+1s 999999999ns f0"},
        {dec("0.0000000019999995"), "+0s 2ns f0"},  // tie, 15th digit odd: rounds up
        {dec("0.0000000029999985"), "+0s 2ns f0"},  // tie, 15th digit 8 (even): stays
        {dec("-4e-30"), "-0s 0ns f0"},              // below zero although it rounds to zero
        {dec("18446744073709551616"), "library error: Exceeded the max ztsdlib_Timestamp value"},
        {inf, "library error: Exceeded the max ztsdlib_Timestamp value"},
        {std::numeric_limits<TimestampDecimal>::quiet_NaN(), "library error: The input timestamp is NaN"},
        // Below 2^64 but rounding up to it, or a magnitude of 2^64 below zero:
        // the seconds no longer fit.
        {dec("18446744073709551615.9999999999999999"), "out_of_range: stoull argument out of range"},
        {dec("-18446744073709551616"), "out_of_range: stoull argument out of range"},
        {-inf, "invalid_argument: invalid stoull argument"},
    };
    for (const auto& [d, expected] : known) {
        EXPECT_EQ(fastToTimestamp(d).timestampText(), expected) << d.str(40);
        EXPECT_TRUE(sameToTimestamp(d));
    }
    const std::vector<std::string> edges = {
        "-0", "18446744073709551615.9999999999999994", "18446744073709551615.9999999999999995",
        "-18446744073709551615.9999999999999995", "-18446744073709551615.5", "0.0000000009999999999999995",
        "0.0000000009999999999999994", "0.9999999999999995", "0.9999999999999985", "0.0000000000000005",
        "0.0000000000000015", "0.00000000000000050000001", "0.00000000000000049", "1e-16", "-1e-16", "5e-16",
        "6e-16", "1e19", "1e20", "-1e20", "-1e25", "123.000000001",
    };
    for (const auto& e : edges) EXPECT_TRUE(sameToTimestamp(dec(e)));
    EXPECT_TRUE(sameToTimestamp(TimestampDecimal(1) / TimestampDecimal(3)));
    EXPECT_TRUE(sameToTimestamp(TimestampDecimal(-2) / TimestampDecimal(3)));

    RandomDigits r(77001u);
    for (int i = 0; i < 30000; ++i) ASSERT_TRUE(sameToTimestamp(randomDecimal(r))) << "iteration " << i;
}
