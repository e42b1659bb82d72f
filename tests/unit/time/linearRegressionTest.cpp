// The regression is checked against an exact least-squares fit computed
// here with rational arithmetic on the absolute readings (a centred formula,
// not the offsets and running sums of the code under test), to 2e-15 s.
#include <gtest/gtest.h>

#include <boost/math/distributions/students_t.hpp>
#include <boost/multiprecision/cpp_int.hpp>
#include <cmath>
#include <cstdint>
#include <algorithm>
#include <ios>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "time/linearRegression.h"
#include "time/linearRegressionFilterWrapper.h"
#include "time/timestamp.h"
#include "unit/support/raisedError.h"

using boost::multiprecision::cpp_int;
using boost::multiprecision::cpp_rational;
using ztsdlib::LinearRegression;
using ztsdlib::LinearRegressionFilterWrapper;
using ztsdlib::TimestampDecimal;
using ztsdtest::captureRaise;

namespace {

const cpp_int kNanosPerSecond = 1000000000;

ztsdlib_Timestamp recordOfNanos(const cpp_int& ns) {
    const cpp_int magnitude = ns < 0 ? cpp_int(-ns) : ns;
    ztsdlib_Timestamp t{};
    t.seconds = static_cast<std::uint64_t>(magnitude / kNanosPerSecond);
    t.nanos = static_cast<std::uint32_t>(magnitude % kNanosPerSecond);
    t.isNegative = ns < 0;
    return t;
}

TimestampDecimal decimalOfNanos(const cpp_int& ns) { return ztsdlib::toDecimal(recordOfNanos(ns)); }

// Every stored digit of a decimal, as an exact rational (read from its full
// scientific text, so that the comparison itself loses nothing).
cpp_rational rationalOf(const TimestampDecimal& d) {
    const std::string text = d.str(0, std::ios::scientific);  // all 40 digits, "-d.ddd...e+XX"
    const std::size_t e = text.find('e');
    std::string mantissa = text.substr(0, e);
    const bool negative = !mantissa.empty() && mantissa[0] == '-';
    if (negative) mantissa.erase(0, 1);
    const std::size_t dot = mantissa.find('.');
    const int fractionDigits = dot == std::string::npos ? 0 : static_cast<int>(mantissa.size() - dot - 1);
    if (dot != std::string::npos) mantissa.erase(dot, 1);
    const int exponent = std::stoi(text.substr(e + 1)) - fractionDigits;
    const cpp_int scale = boost::multiprecision::pow(cpp_int(10), exponent < 0 ? -exponent : exponent);
    const cpp_rational value = exponent < 0 ? cpp_rational(cpp_int(mantissa), scale) : cpp_rational(cpp_int(mantissa) * scale);
    return negative ? cpp_rational(-value) : value;
}

// Within 10^-digits of an exact value (the decimal divides through a
// reciprocal, so even simple quotients may differ in the last digits).
::testing::AssertionResult near(const TimestampDecimal& got, const cpp_rational& exact, int digits = 30) {
    if (abs(rationalOf(got) - exact) < cpp_rational(1, boost::multiprecision::pow(cpp_int(10), digits)))
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << got.str(40) << " is not " << exact;
}

struct SampleNs {
    cpp_int x, y;  // readings of the first and second timescale, in ns
};

// The least-squares line through the samples, exactly (seconds).
struct ExactLine {
    cpp_rational slope, intercept;
    cpp_rational second(const cpp_rational& x) const { return slope * x + intercept; }
    cpp_rational first(const cpp_rational& y) const { return (y - intercept) / slope; }
};

ExactLine exactFit(const std::vector<SampleNs>& samples) {
    const cpp_rational n(static_cast<long long>(samples.size()));
    cpp_rational meanX, meanY;
    for (const auto& s : samples) {
        meanX += cpp_rational(s.x, kNanosPerSecond);
        meanY += cpp_rational(s.y, kNanosPerSecond);
    }
    meanX /= n;
    meanY /= n;
    cpp_rational sxx, sxy;
    for (const auto& s : samples) {
        const cpp_rational dx = cpp_rational(s.x, kNanosPerSecond) - meanX;
        const cpp_rational dy = cpp_rational(s.y, kNanosPerSecond) - meanY;
        sxx += dx * dx;
        sxy += dx * dy;
    }
    ExactLine line;
    line.slope = sxy / sxx;
    line.intercept = meanY - line.slope * meanX;
    return line;
}

// Readings 1 ms apart (with jitter) at 1601-epoch magnitudes, the second
// timescale running at slope (ppm off 1) with noise of up to noise_ns.
std::vector<SampleNs> noisySamples(std::mt19937_64& rng, int count, long long ppm, long long noise_ns) {
    std::vector<SampleNs> samples;
    const cpp_int x0 = cpp_int(13400000000LL) * kNanosPerSecond + 123456789;
    const cpp_int offset = cpp_int(-2500000000LL);  // 2.5 s behind
    std::uniform_int_distribution<long long> jitter(0, 999), noise(-noise_ns, noise_ns);
    for (int i = 0; i < count; ++i) {
        const cpp_int x = x0 + cpp_int(i) * 1000000 + jitter(rng);
        const cpp_int ideal = x + (x * ppm) / 1000000 + offset;
        samples.push_back({x, ideal + noise(rng)});
    }
    return samples;
}

std::vector<SampleNs> tail(const std::vector<SampleNs>& all, std::size_t count) {
    return std::vector<SampleNs>(all.end() - static_cast<std::ptrdiff_t>(std::min(count, all.size())), all.end());
}

// The filter's decimal is within 2e-15 s of the exact fit, and the
// wrapper's record is that decimal's record (the conversion's rounding is
// pinned against the literal path in timestampDecimalTest).
void expectMatchesExactFit(const LinearRegressionFilterWrapper& wrapper, const LinearRegression& regression,
                           const std::vector<SampleNs>& kept, const std::vector<cpp_int>& queries_ns) {
    const ExactLine line = exactFit(kept);
    const cpp_rational tolerance(2, cpp_int("1000000000000000"));
    for (const cpp_int& q : queries_ns) {
        const cpp_rational qs(q, kNanosPerSecond);

        const cpp_rational exactSecond = line.second(qs);
        const cpp_rational gotSecond = rationalOf(regression.calculateSecond(decimalOfNanos(q)));
        EXPECT_LT(abs(gotSecond - exactSecond), tolerance) << "calculateSecond at " << q;
        EXPECT_TRUE(ztsdlib::sameTimestamp(wrapper.calculateSecond(recordOfNanos(q)),
                                           ztsdlib::toTimestamp(regression.calculateSecond(decimalOfNanos(q)))))
            << "calculateSecond(" << q << " ns)";

        const cpp_rational exactFirst = line.first(qs);
        const cpp_rational gotFirst = rationalOf(regression.calculateFirst(decimalOfNanos(q)));
        EXPECT_LT(abs(gotFirst - exactFirst), tolerance) << "calculateFirst at " << q;
        EXPECT_TRUE(ztsdlib::sameTimestamp(wrapper.calculateFirst(recordOfNanos(q)),
                                           ztsdlib::toTimestamp(regression.calculateFirst(decimalOfNanos(q)))))
            << "calculateFirst(" << q << " ns)";
    }
}

std::vector<cpp_int> queriesAround(const std::vector<SampleNs>& samples) {
    std::vector<cpp_int> q;
    q.push_back(samples.front().x);
    q.push_back(samples.back().x);
    q.push_back(samples.back().y);
    q.push_back(samples.back().x + cpp_int(3600) * kNanosPerSecond + 7);  // an hour ahead
    q.push_back(samples.front().x - cpp_int(86400) * kNanosPerSecond);    // a day back
    q.push_back(cpp_int(0));
    return q;
}

}  // namespace

TEST(LinearRegression, MatchesAnExactLeastSquaresFitToTheNanosecondAcrossHistorySizes) {
    std::mt19937_64 rng(99);
    struct Case {
        std::uint64_t maxHistory;
        int samples;
        long long ppm, noise_ns;
        bool checkEveryAdd;
    };
    const Case cases[] = {{2, 9, 50, 300, true},      {3, 12, -50, 100, true},  {7, 7, 17, 500, true},
                          {7, 30, -3, 1000, true},     {50, 120, 49, 250, false}, {1000, 1000, -50, 400, false},
                          {1000, 1013, 25, 800, false}};
    for (const Case& c : cases) {
        SCOPED_TRACE("maxHistory " + std::to_string(c.maxHistory) + ", samples " + std::to_string(c.samples));
        const auto samples = noisySamples(rng, c.samples, c.ppm, c.noise_ns);
        auto regression = std::make_shared<LinearRegression>(c.maxHistory);
        LinearRegressionFilterWrapper wrapper(regression);
        for (int i = 0; i < c.samples; ++i) {
            wrapper.addSample(decimalOfNanos(samples[i].x), decimalOfNanos(samples[i].y));
            // Half the fits are made ahead, as the sampling task does; the
            // others by the first calculation after the add.
            if (i % 2) wrapper.prepareCalculations();
            const std::vector<SampleNs> seen(samples.begin(), samples.begin() + i + 1);
            const auto kept = tail(seen, c.maxHistory);
            ASSERT_EQ(regression->getHistorySize(), kept.size());
            ASSERT_EQ(wrapper.getHistorySize(), kept.size());
            const bool last = i + 1 == c.samples;
            if (kept.size() >= 2 && (c.checkEveryAdd || last)) expectMatchesExactFit(wrapper, *regression, kept, queriesAround(kept));
        }
    }
}

TEST(LinearRegression, FitsTheWorkedExampleAndUsesOnlyTheNewestSamplesAfterOverflow) {
    auto r = std::make_shared<LinearRegression>(3);
    LinearRegressionFilterWrapper wrapper(r);
    r->addSample(10, 20);
    r->addSample(11, 22);
    r->addSample(12, 24);
    EXPECT_TRUE(near(r->slope(), 2));
    EXPECT_TRUE(near(r->intercept_s(), 0));
    EXPECT_TRUE(ztsdlib::sameTimestamp(wrapper.calculateSecond(recordOfNanos(13 * kNanosPerSecond)),
                                       recordOfNanos(26 * kNanosPerSecond)));
    EXPECT_TRUE(ztsdlib::sameTimestamp(wrapper.calculateFirst(recordOfNanos(30 * kNanosPerSecond)),
                                       recordOfNanos(15 * kNanosPerSecond)));
    // On the line exactly: no residuals, so none to correlate (0, not 0 / 0).
    EXPECT_EQ(r->quality().residualLag1Correlation, 0.0);

    // A fourth sample drops (10, 20): the fit is over (11,22), (12,24), (13,29).
    r->addSample(13, 29);
    EXPECT_EQ(r->getHistorySize(), 3u);
    EXPECT_TRUE(near(r->slope(), cpp_rational(7, 2)));
    EXPECT_TRUE(near(r->intercept_s(), -17));
}

TEST(LinearRegression, RefusesHistoryBoundsBelowTwoOrBeyondWhatTheListCanHold) {
    for (std::uint64_t size : {0ULL, 1ULL}) {
        auto tooSmall = captureRaise([&] { LinearRegression r(size); });
        ztsdtest::expectReport(tooSmall, -52005,
                               R"({"message":"Max history size needs to be >= 2.","maxHistorySize":)" + std::to_string(size) + "}");
    }
    EXPECT_NO_THROW(LinearRegression r(2));

    // The report gives the list's own limit in full (the JSON text keeps all
    // 64-bit digits): that size is accepted, one more is not.
    auto tooBig = captureRaise([] { LinearRegression r(UINT64_MAX); });
    EXPECT_EQ(tooBig.code, -52005);
    EXPECT_EQ(tooBig.message(), "Max history size set greater than system limitations.");
    const std::string key = "\"offsetsFromStart.max_size()\":";
    const std::size_t at = tooBig.json.find(key);
    ASSERT_NE(at, std::string::npos) << tooBig.json;
    const std::size_t digits = at + key.size(), comma = tooBig.json.find(',', digits);
    EXPECT_EQ(tooBig.json.substr(comma), ",\"maxHistorySize\":18446744073709551615}}");
    const std::uint64_t limit = std::stoull(tooBig.json.substr(digits, comma - digits));
    EXPECT_GT(limit, 1000000000000000ULL);
    EXPECT_NO_THROW(LinearRegression r(limit));
    EXPECT_EQ(captureRaise([&] { LinearRegression r(limit + 1); }).message(), tooBig.message());
}

TEST(LinearRegression, DegenerateHistoriesReportWhyThereIsNoFit) {
    const std::string notEnough = "Not enough history to calculate slope and intercept";
    LinearRegression r(4);
    auto none = captureRaise([&] { r.calculateSecond(1); });
    ztsdtest::expectReport(none, -52010, std::string(R"({"message":")") + notEnough + "\"}");
    r.addSample(5, 5);  // one sample is no better
    EXPECT_EQ(captureRaise([&] { r.calculateSecond(1); }).message(), notEnough);
    EXPECT_EQ(captureRaise([&] { r.calculateFirst(1); }).message(), notEnough);
    EXPECT_EQ(captureRaise([&] { (void)r.intercept_s(); }).message(), notEnough);

    // Every first reading equal: no line can be fitted. Making the fit ahead
    // records why there is none; it is reported by the calculations only.
    r.addSample(5, 6);
    r.addSample(5, 9);
    EXPECT_NO_THROW(r.prepareCalculations());
    for (int direction = 0; direction < 2; ++direction) {
        const auto report = captureRaise([&] { direction == 0 ? r.calculateSecond(1) : r.calculateFirst(1); });
        ztsdtest::expectReport(report, -52008, R"({"message":"Invalid denominator in correlator calculation"})");
    }

    // Second readings that never change: slope 0, so only one direction works.
    LinearRegression flat(3);
    flat.addSample(13400000000, 77);
    flat.addSample(13400000001, 77);
    flat.addSample(13400000005, 77);
    EXPECT_EQ(flat.calculateSecond(123456), 77);
    auto zero = captureRaise([&] { flat.calculateFirst(77); });
    ztsdtest::expectReport(zero, -52008, R"({"message":"LinearRegression slope is 0."})");

    // Overflow can make a fitted history degenerate: the sums follow the
    // samples that are kept, not those ever added.
    LinearRegression evicting(2);
    evicting.addSample(0, 0);
    evicting.addSample(5, 1);
    EXPECT_TRUE(near(evicting.slope(), cpp_rational(1, 5)));
    evicting.addSample(5, 2);
    EXPECT_EQ(captureRaise([&] { evicting.calculateSecond(1); }).message(), "Invalid denominator in correlator calculation");
    evicting.addSample(6, 4);
    EXPECT_TRUE(near(evicting.slope(), 2));
    EXPECT_TRUE(near(evicting.calculateSecond(7), 6));
}

namespace {

// The fit's quality figures computed from their definitions on the kept
// samples (centred sums of exact rationals, residuals visited one by one),
// squared where the code takes a root.
struct ExactQuality {
    cpp_rational span, slope, offsetAtNewest, residualVariance, slopeVariance, offsetVariance;
};

ExactQuality exactQuality(const std::vector<SampleNs>& kept) {
    const ExactLine line = exactFit(kept);
    const auto seconds = [](const cpp_int& ns) { return cpp_rational(ns, kNanosPerSecond); };
    cpp_rational meanX;
    for (const auto& s : kept) meanX += seconds(s.x);
    meanX /= cpp_rational(static_cast<long long>(kept.size()));
    cpp_rational sxx, rss;
    for (const auto& s : kept) {
        const cpp_rational dx = seconds(s.x) - meanX;
        const cpp_rational r = seconds(s.y) - line.second(seconds(s.x));
        sxx += dx * dx;
        rss += r * r;
    }
    ExactQuality q;
    q.span = seconds(kept.back().x - kept.front().x);
    q.slope = line.slope;
    q.offsetAtNewest = line.second(seconds(kept.back().x)) - seconds(kept.back().x);
    const long long n = static_cast<long long>(kept.size());
    q.residualVariance = n > 2 ? cpp_rational(rss / (n - 2)) : cpp_rational(0);
    q.slopeVariance = q.residualVariance / sxx;
    const cpp_rational fromMean = seconds(kept.back().x) - meanX;
    q.offsetVariance = q.residualVariance / n + q.slopeVariance * fromMean * fromMean;
    return q;
}

bool relativelyNear(const cpp_rational& got, const cpp_rational& exact, const cpp_rational& relative) {
    if (exact == 0) return got == 0;
    return abs(got - exact) <= abs(exact) * relative;
}

}  // namespace

TEST(LinearRegression, QualityFiguresMatchAnExactComputationAndRecoverTheNoise) {
    std::mt19937_64 rng(1717);
    struct Case {
        std::uint64_t maxHistory;
        int samples;
        long long ppm, noise_ns;
    };
    // Two samples (no residual), a history that has dropped samples, clean
    // and noisy lines, and a long history whose noise is measurable.
    const Case cases[] = {{2, 2, 20, 500},   {2, 9, -50, 300},    {5, 40, 120, 0},
                          {64, 200, -7, 50}, {1000, 1000, 120, 3000}, {1000, 1500, -49, 10000}};
    for (const Case& c : cases) {
        SCOPED_TRACE("maxHistory " + std::to_string(c.maxHistory) + ", samples " + std::to_string(c.samples) +
                     ", noise " + std::to_string(c.noise_ns));
        const auto samples = noisySamples(rng, c.samples, c.ppm, c.noise_ns);
        LinearRegression regression(c.maxHistory);
        for (const auto& s : samples) regression.addSample(decimalOfNanos(s.x), decimalOfNanos(s.y));
        const auto kept = tail(samples, c.maxHistory);
        const ExactQuality exact = exactQuality(kept);
        const LinearRegression::Quality& got = regression.quality();

        EXPECT_EQ(got.sampleCount, kept.size());
        EXPECT_EQ(rationalOf(got.span_s), exact.span);
        EXPECT_TRUE(relativelyNear(rationalOf(got.slope), exact.slope, cpp_rational(1, cpp_int("1000000000000000000"))));
        EXPECT_LT(abs(rationalOf(got.offsetAtNewest_s) - exact.offsetAtNewest), cpp_rational(1, cpp_int("1000000000000")));
        const cpp_rational sd = rationalOf(got.residualStdDev_s), se = rationalOf(got.slopeStdError),
                           oe = rationalOf(got.offsetStdError_s);
        EXPECT_TRUE(relativelyNear(oe * oe, exact.offsetVariance, cpp_rational(1, 1000000000)))
            << got.offsetStdError_s.str() << " vs variance " << static_cast<double>(exact.offsetVariance);
        EXPECT_TRUE(relativelyNear(sd * sd, exact.residualVariance, cpp_rational(1, 1000000000)))
            << got.residualStdDev_s.str() << " vs variance " << static_cast<double>(exact.residualVariance);
        EXPECT_TRUE(relativelyNear(se * se, exact.slopeVariance, cpp_rational(1, 1000000000)))
            << got.slopeStdError.str() << " vs variance " << static_cast<double>(exact.slopeVariance);
        // Noise uniform in [-a, a] has a standard deviation of a / sqrt(3)
        // (the 0..999 ns jitter of the first reading adds to it at most
        // 120 ppm of 1 us); a long history measures it to within 10 %.
        if (kept.size() >= 1000) {
            const double expected_ns = static_cast<double>(c.noise_ns) / std::sqrt(3.0);
            EXPECT_NEAR(static_cast<double>(got.residualStdDev_s) * 1e9, expected_ns, expected_ns * 0.1);
        }
    }
    // Samples exactly on a line at 10^7 s magnitudes (1 ms apart, 50 ppm
    // fast), three at a time: the sums' cancellation leaves only its last
    // digits, below zero with Boost 1.74 and a hair above it with 1.81.
    // Either way that is no residual (not a negative variance's root).
    LinearRegression onLine(3);
    for (int i = 0; i < 20; ++i)
        onLine.addSample(decimalOfNanos(cpp_int(10000000000000000LL) + cpp_int(i) * 1000000),
                         decimalOfNanos(cpp_int(20000000000000000LL) + cpp_int(i) * 1000050));
    EXPECT_LT(onLine.quality().residualStdDev_s, TimestampDecimal("1e-18"));
    EXPECT_LT(onLine.quality().slopeStdError, TimestampDecimal("1e-15"));
    // No quality without a fit, for the fit's reasons.
    LinearRegression one(4);
    one.addSample(decimalOfNanos(5), decimalOfNanos(7));
    EXPECT_EQ(captureRaise([&] { one.quality(); }).code, -52010);
    one.addSample(decimalOfNanos(5), decimalOfNanos(9));
    EXPECT_EQ(captureRaise([&] { one.quality(); }).code, -52008);
}

namespace {

// A window of count samples 20 ms apart whose second reading strays from a
// true line (20 ppm fast, 2.5 s ahead) by a drifting error: an AR(1) series
// of coefficient phi with innovations of about innovation_ns, in whole
// nanoseconds.
struct DriftingWindow {
    std::vector<SampleNs> samples;
    cpp_rational trueSlope = cpp_rational(1000020, 1000000);
    cpp_int x0 = cpp_int(13400000000LL) * kNanosPerSecond + 123456789;
    cpp_int y0 = x0 + 2500000000LL;
    // The true second reading at x, in seconds.
    cpp_rational truth(const cpp_int& x) const {
        return (cpp_rational(y0) + cpp_rational(x - x0) * trueSlope) / cpp_rational(kNanosPerSecond);
    }
};

DriftingWindow driftingWindow(std::mt19937_64& rng, int count, double phi, double innovation_ns) {
    DriftingWindow w;
    std::normal_distribution<double> innovation(0, innovation_ns);
    double error = innovation(rng) / std::sqrt(1 - phi * phi);
    for (int i = 0; i < count; ++i) {
        const cpp_int x = w.x0 + cpp_int(i) * 20000000;
        const cpp_rational exact = cpp_rational(w.y0) + cpp_rational(x - w.x0) * w.trueSlope;
        const long long e = std::llround(error);
        w.samples.push_back({x, cpp_int(numerator(exact) / denominator(exact)) + e});
        error = phi * error + innovation(rng);
    }
    return w;
}

// Where the correlated-residual figures come from, computed here from the
// exact residuals of the exact fit (rationals), by their definitions.
struct ExactCorrelation {
    double r1, effective, scatter, inflation;  // inflation: scatter and Student's t
};

ExactCorrelation exactCorrelation(const std::vector<SampleNs>& kept) {
    const ExactLine line = exactFit(kept);
    cpp_rational lagged, squares, previous;
    for (std::size_t i = 0; i < kept.size(); ++i) {
        const cpp_rational e =
            cpp_rational(kept[i].y, kNanosPerSecond) - line.second(cpp_rational(kept[i].x, kNanosPerSecond));
        squares += e * e;
        if (i > 0) lagged += e * previous;
        previous = e;
    }
    ExactCorrelation c;
    const double n = static_cast<double>(kept.size());
    c.r1 = static_cast<double>(lagged / squares);
    const double r0 = std::max(c.r1, 0.0);
    const double r = std::min(r0 + (1 + 4 * r0) / n + std::sqrt((1 - r0 * r0) / n), 1.0);
    c.effective = std::min(std::max(n * (1 - r) / (1 + r), 3.0), n);
    c.scatter = std::sqrt((n - 2) / (c.effective - 2));
    c.inflation = c.scatter * boost::math::quantile(boost::math::students_t(c.effective - 2), 0.99865) / 3;
    return c;
}

}  // namespace

TEST(LinearRegression, CorrelatedResidualsWidenTheStandardErrorsEnoughToCoverTheTruth) {
    std::mt19937_64 rng(4242);
    // Known answers: drifting errors of several strengths, against the exact
    // residuals' figures.
    for (const double phi : {0.0, 0.5, 0.9, 0.99}) {
        SCOPED_TRACE("phi " + std::to_string(phi));
        const DriftingWindow w = driftingWindow(rng, 150, phi, 2000);
        LinearRegression regression(150);
        for (const auto& s : w.samples) regression.addSample(decimalOfNanos(s.x), decimalOfNanos(s.y));
        const ExactCorrelation exact = exactCorrelation(w.samples);
        const auto& q = regression.quality();
        EXPECT_NEAR(q.residualLag1Correlation, exact.r1, 1e-9);
        EXPECT_NEAR(q.effectiveSampleCount, exact.effective, 1e-6 * exact.effective);
        EXPECT_NEAR(q.slopeStdErrorCorrected, static_cast<double>(q.slopeStdError) * exact.inflation,
                    1e-9 * q.slopeStdErrorCorrected);
        EXPECT_NEAR(q.offsetStdErrorCorrected_s, static_cast<double>(q.offsetStdError_s) * exact.inflation,
                    1e-9 * q.offsetStdErrorCorrected_s);
        EXPECT_TRUE(std::isinf(q.offsetBound_s) && std::isinf(q.slopeBound));  // no brackets, no bounds
    }
    // Coverage: in 400 windows of strongly drifting errors, three corrected
    // standard errors hold the true slope and offset in 99 % of them; three
    // plain ones in about half.
    int plainSlope = 0, slope = 0, plainOffset = 0, offset = 0;
    const int windows = 400;
    for (int k = 0; k < windows; ++k) {
        const DriftingWindow w = driftingWindow(rng, 200, 0.9, 300);
        LinearRegression regression(200);
        for (const auto& s : w.samples) regression.addSample(decimalOfNanos(s.x), decimalOfNanos(s.y));
        const auto& q = regression.quality();
        const cpp_int& xn = w.samples.back().x;
        const double slopeError = std::fabs(static_cast<double>(rationalOf(q.slope) - w.trueSlope));
        const double offsetError = std::fabs(static_cast<double>(
            rationalOf(q.offsetAtNewest_s) - (w.truth(xn) - cpp_rational(xn, kNanosPerSecond))));
        plainSlope += slopeError <= 3 * static_cast<double>(q.slopeStdError);
        slope += slopeError <= 3 * q.slopeStdErrorCorrected;
        plainOffset += offsetError <= 3 * static_cast<double>(q.offsetStdError_s);
        offset += offsetError <= 3 * q.offsetStdErrorCorrected_s;
    }
    EXPECT_GE(slope, windows * 99 / 100);
    EXPECT_GE(offset, windows * 99 / 100);
    EXPECT_LT(plainSlope, windows * 8 / 10);
    EXPECT_LT(plainOffset, windows * 8 / 10);
}

TEST(LinearRegression, BoundsFromThePairingHalfWidthsHoldWhateverThePathAsymmetry) {
    std::mt19937_64 rng(977);
    std::uniform_int_distribution<long long> halfWidth_ns(20000, 80000);
    // How the reading sits in its bracket: anywhere, drifting from one edge
    // to the other over the window, or always at the late edge (every reply
    // slow: the bias no standard error sees). Paired with the middle of its
    // round trip (2h wide) the reading lies within h of the truth; paired
    // with its start (the sequential sampling) up to 2h above it, which the
    // shift -h centres.
    enum class Asymmetry { uniform, drifting, late };
    int covers = 0, cases = 0;
    for (const bool pairedWithStart : {false, true})
    for (const Asymmetry asymmetry : {Asymmetry::uniform, Asymmetry::drifting, Asymmetry::late}) {
        SCOPED_TRACE(std::string(pairedWithStart ? "start" : "middle") + " " + std::to_string(static_cast<int>(asymmetry)));
        for (int k = 0; k < 30; ++k, ++cases) {
            DriftingWindow w;
            LinearRegression regression(120);
            std::vector<long long> h(120), a(120), c(120);
            for (int i = 0; i < 120; ++i) {
                h[i] = halfWidth_ns(rng);
                const double share = asymmetry == Asymmetry::uniform
                                         ? std::uniform_real_distribution<double>(-1, 1)(rng)
                                         : asymmetry == Asymmetry::drifting ? std::sin(i / 19.0 + k) : 1.0;
                a[i] = static_cast<long long>(share * static_cast<double>(h[i])) + (pairedWithStart ? h[i] : 0);
                c[i] = pairedWithStart ? -h[i] : 0;
                const cpp_int x = w.x0 + cpp_int(i) * 20000000;
                const cpp_rational exact = cpp_rational(w.y0) + cpp_rational(x - w.x0) * w.trueSlope;
                w.samples.push_back({x, cpp_int(numerator(exact) / denominator(exact)) + a[i]});
                regression.addBracketedSample(decimalOfNanos(x), decimalOfNanos(w.samples.back().y),
                                              static_cast<double>(h[i] + 1) * 1e-9, static_cast<double>(c[i]) * 1e-9);
            }
            const auto& q = regression.quality();
            const cpp_int& xn = w.samples.back().x;
            const double offsetError = std::fabs(static_cast<double>(
                rationalOf(q.offsetAtNewest_s) - (w.truth(xn) - cpp_rational(xn, kNanosPerSecond))));
            const double slopeError = std::fabs(static_cast<double>(rationalOf(q.slope) - w.trueSlope));
            EXPECT_LE(offsetError, q.offsetBound_s);
            EXPECT_LE(slopeError, q.slopeBound);
            // Never looser than the newest sample's own half-width and
            // distance of its interval's middle from the line (and a few ns
            // for the truncations).
            const double newestResidual_s =
                static_cast<double>(cpp_rational(w.samples.back().y + c.back(), kNanosPerSecond) -
                                    rationalOf(regression.calculateSecond(decimalOfNanos(xn))));
            EXPECT_LE(q.offsetBound_s, static_cast<double>(h.back() + 1) * 1e-9 + std::fabs(newestResidual_s) + 3e-9);
            EXPECT_EQ(q.narrowestHalfWidth_s, static_cast<double>(*std::min_element(h.begin(), h.end()) + 1) * 1e-9);
            // The slope's bound is the tightest any two samples give: the
            // steepest line from a low end to a later high end and the
            // flattest from a high end to a later low end (widths with the
            // nanosecond truncations).
            const double slope1 = static_cast<double>(rationalOf(q.slope) - 1);
            double steepest = 1e300, flattest = -1e300;
            for (int i = 0; i < 120; ++i) {
                for (int j = i + 1; j < 120; ++j) {
                    const double run = static_cast<double>(w.samples[j].x - w.samples[i].x) * 1e-9;
                    const double rise = static_cast<double>((w.samples[j].y + c[j] - w.samples[i].y - c[i]) -
                                                            (w.samples[j].x - w.samples[i].x)) * 1e-9;
                    const double widths = static_cast<double>(h[i] + h[j] + 2) * 1e-9 + 2e-9 * (1 + std::fabs(slope1));
                    steepest = std::min(steepest, (rise + widths) / run);
                    flattest = std::max(flattest, (rise - widths) / run);
                }
            }
            EXPECT_NEAR(q.slopeBound, std::max(slope1 - flattest, steepest - slope1), 1e-6 * q.slopeBound);
            // The stated errors: the scatter's, for residuals that drift
            // together, combined with each bound as a rectangular share.
            const double scatter = exactCorrelation(w.samples).scatter;
            EXPECT_NEAR(q.offsetStdErrorCorrected_s,
                        std::hypot(static_cast<double>(q.offsetStdError_s) * scatter, q.offsetBound_s / std::sqrt(3.0)),
                        1e-9 * q.offsetStdErrorCorrected_s);
            EXPECT_NEAR(q.slopeStdErrorCorrected,
                        std::hypot(static_cast<double>(q.slopeStdError) * scatter, q.slopeBound / std::sqrt(3.0)),
                        1e-9 * q.slopeStdErrorCorrected);
            covers += offsetError <= 3 * q.offsetStdErrorCorrected_s && slopeError <= 3 * q.slopeStdErrorCorrected;
        }
    }
    // Even the late edge, which moves every sample alike and which no
    // scatter shows, lies within three stated errors.
    EXPECT_EQ(covers, cases);
    // One sample without its half-width and nothing is bounded.
    LinearRegression mixed(10);
    for (int i = 0; i < 5; ++i) mixed.addBracketedSample(decimalOfNanos(i * 1000), decimalOfNanos(i * 1001), 1e-6, 0);
    mixed.addSample(decimalOfNanos(5000), decimalOfNanos(5005));
    EXPECT_TRUE(std::isinf(mixed.quality().offsetBound_s) && std::isinf(mixed.quality().slopeBound));
}
