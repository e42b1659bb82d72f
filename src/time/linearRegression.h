// Least-squares line through a bounded history of paired readings, in exact
// decimal arithmetic.
//
// The history keeps at most maxHistorySize samples, oldest first; adding to a
// full history drops the oldest. Samples are stored as offsets from the first
// sample ever added (start1, start2), which keeps the squares small and
// exact; the start references never move, not even when that first sample is
// dropped. Four running sums (sumX, sumY, sumXX, sumXY over the offsets) are
// updated on every add and always equal the sums over the kept samples.
//
// Fit, with n kept samples:
//   denominator     = n * sumXX - sumX * sumX
//   slope           = (n * sumXY - sumX * sumY) / denominator
//   offsetIntercept = (sumY - slope * sumX) / n
//   intercept       = start2 + offsetIntercept - slope * start1
// n enters as an integer: the decimal multiplies by it exactly as by the
// decimal n, and divides by it by exact long division (truncated to the
// decimal's 5 limbs), which is both more accurate and far cheaper than the
// reciprocal that a division by a decimal goes through.
// The history changes only in addSample, so the fit (or the reason there is
// none: fewer than 2 samples, a zero denominator) is kept between adds and
// calculations use it as it stands, with exactly the results a fresh fit
// would give. addSample only updates the history and the sums and marks the
// fit stale; the fit is made by prepareCalculations() or, when nobody called
// that, by the first calculation after the add. The correlator's sampling
// task calls prepareCalculations() right after each add, so that the cost of
// the fit (a decimal division and four multiplications, about as much as the
// add itself) is paid by the sampling task, and neither by the add nor by the
// callers of correlate. Calculations report the reason when there is no fit:
//   -52010 "Not enough history to calculate slope and intercept"
//   -52008 "Invalid denominator in correlator calculation"
//   -52008 "LinearRegression slope is 0." (calculateFirst only)
// Fit quality: a fifth running sum (sumYY, of dy*dy) gives, with the other
// four, the spread of the samples about the line without visiting them:
//   nSxx = n*sumXX - sumX^2, nSxy = n*sumXY - sumX*sumY, nSyy = n*sumYY - sumY^2
//   residual sum of squares  RSS = (nSyy - nSxy^2 / nSxx) / n   (0 if below)
//   residual std deviation   s   = sqrt(RSS / (n - 2))          (0 for n = 2)
//   slope standard error     se  = sqrt(s^2 * n / nSxx)
//   offset standard error    at the newest sample's first reading xn:
//                            sqrt(s^2 / n + se^2 * (xn - sumX / n)^2)
// all in the exact decimal type; quality() gives them with the span of the
// first coordinate (newest - oldest) and the fitted offset second - first at
// the newest sample.
// Those standard errors hold for independent residuals. Path delays drift,
// so neighbouring residuals are alike and the errors above are too small;
// quality() also visits the kept samples once (in binary floating point,
// on each sample's offsets second - first and first, which are small
// enough that a double keeps them to far below a nanosecond) for
//   r1     the residuals' lag-1 autocorrelation, sum e(i) e(i-1) / sum e(i)^2
//   n_eff  the effective sample count n (1 - r) / (1 + r), kept within
//          [3, n] (n when n <= 3), for r = r1 (0 when below it) raised by
//          its bias in a short series of fitted residuals, (1 + 4 r1) / n,
//          and by one of its standard deviations, sqrt((1 - r1^2) / n): a
//          window that happens to look less correlated than its source
//          still gets its errors widened
//   the corrected standard errors: se and the offset error times
//          s = sqrt((n - 2) / (n_eff - 2)), as RSS spread over n_eff - 2
//          degrees of freedom and n_eff independent samples would give them,
//          times t / 3 for the 99.865 % quantile t of Student's distribution
//          with n_eff - 2 degrees of freedom, so that three of them make the
//          99.73 % interval that three standard errors make for many samples;
//          with the bounds below, instead sqrt((error * s)^2 + bound^2 / 3),
//          each bound taken as a rectangular distribution, so that three of
//          them hold the truth whenever the bound does.
// A sample may come with its pairing interval (addBracketedSample): the
// true second timescale's time at the first reading is known to lie within
// the half-width h of the second reading moved by the shift c, whatever the
// path (the round trip it was read in; c is 0 for a reading paired with the
// middle of its round trip, minus half of it for one paired with its start,
// which came before it). When every kept sample has one, quality() also
// states, for a true relation that is a straight line, assumption-free
// bounds (d = second - first, each side's offsets, and m = d + c the
// interval's middle):
//   slopeBound    how far the fitted slope may be from the true one: any
//                 two samples i, j with x(i) < x(j) confine the true line's
//                 slope to
//                 [(m(j) - h(j)) - (m(i) + h(i)), (m(j) + h(j)) - (m(i) - h(i))]
//                 / (x(j) - x(i));
//                 the tightest ends over all pairs (found with convex hulls,
//                 O(n log n)) are exactly the slopes a line within every
//                 sample's interval can have; the bound is the fitted
//                 slope's distance to the farther end
//   offsetBound   how far the fitted offset at xn may be from the true one:
//                 the smallest over the kept samples k of
//                 h(k) + |e(k) + c(k)| + slopeBound * (xn - x(k)),
//                 since the fitted line passes d(k) - e(k) and the true one
//                 within h(k) of m(k) at x(k).
// Otherwise (or with a degenerate window) both are +infinity. They are made
// when first asked for after an add and kept until the next add.
// Construction refuses maxHistorySize < 2 and sizes the list cannot hold
// (-52005). Reports carry the file label "source\ztsdlib\linearRegression".
//
// Not thread-safe, not even the const calculations (they may make the fit):
// LinearRegressionFilterWrapper serialises access.
#pragma once

#include <cstdint>
#include <list>

#include "time/linearRegressionFilterInterface.h"

namespace ztsdlib {

constexpr const char* kLinearRegressionFile = "source\\ztsdlib\\linearRegression";

class LinearRegression : public LinearRegressionFilterInterface {
public:
    explicit LinearRegression(std::uint64_t maxHistorySize);

    std::uint64_t getHistorySize() const override { return offsetsFromStart.size(); }
    void addSample(const TimestampDecimal& first_s, const TimestampDecimal& second_s) override;
    void addBracketedSample(const TimestampDecimal& first_s, const TimestampDecimal& second_s,
                            double pairingHalfWidth_s, double pairingShift_s) override;
    TimestampDecimal calculateFirst(const TimestampDecimal& second_s) const override;
    TimestampDecimal calculateSecond(const TimestampDecimal& first_s) const override;
    // Makes the fit now if a sample was added since it was last made.
    void prepareCalculations() const override;

    // The fitted line (throws as the calculations do when there is none).
    TimestampDecimal slope() const;
    TimestampDecimal intercept_s() const;

    struct Quality {
        std::uint64_t sampleCount = 0;
        TimestampDecimal span_s;            // first coordinate, newest - oldest kept sample
        TimestampDecimal newestFirst_s;     // the newest sample's first reading
        TimestampDecimal slope;             // d second / d first
        TimestampDecimal offsetAtNewest_s;  // fitted second - first at the newest first reading
        TimestampDecimal residualStdDev_s;  // of the second coordinate about the line
        TimestampDecimal slopeStdError;     // of the slope, dimensionless
        TimestampDecimal offsetStdError_s;  // of the fitted line at the newest sample
        // Accounting for correlated residuals (see above).
        double residualLag1Correlation = 0;
        double effectiveSampleCount = 0;
        double slopeStdErrorCorrected = 0;
        double offsetStdErrorCorrected_s = 0;
        // Bounds whatever the path (see above); +infinity when not stated.
        double narrowestHalfWidth_s = 0;  // smallest pairing half-width kept (+infinity without)
        double slopeBound = 0;
        double offsetBound_s = 0;
    };
    // The quality of the present fit (throws as the calculations do when
    // there is none).
    const Quality& quality() const;

private:
    // One kept sample. Its two products are kept with it so that dropping
    // it takes out of the sums exactly what adding it put in, without
    // multiplying again.
    struct Sample {
        TimestampDecimal dx_s;  // first reading - start1
        TimestampDecimal dy_s;  // second reading - start2
        TimestampDecimal dxdx;  // dx_s * dx_s
        TimestampDecimal dxdy;  // dx_s * dy_s
        TimestampDecimal dydy;  // dy_s * dy_s
        double x_s;             // dx_s as a double
        double d_s;             // dy_s - dx_s as a double
        double halfWidth_s;     // the pairing half-width, negative when not known
        double shift_s;         // where that interval is centred, from the second reading
    };
    enum class Fit { NotEnoughHistory, InvalidDenominator, Ready };

    void refit() const;
    void makeQuality() const;
    // The figures made by visiting the samples (see above).
    void visitResiduals() const;
    void requireFit() const;

    std::uint64_t maxHistorySize;
    std::list<Sample> offsetsFromStart;
    TimestampDecimal start1_s, start2_s;
    TimestampDecimal sumX, sumY;
    TimestampDecimal sumXX, sumXY, sumYY;

    // The fit of the present history, made on demand (see above).
    mutable bool fitStale = false;
    mutable bool qualityStale = true;
    mutable TimestampDecimal offsetIntercept_, denominator_;
    mutable Fit fit = Fit::NotEnoughHistory;
    mutable TimestampDecimal slope_, intercept_;
    mutable Quality quality_;
};

}  // namespace ztsdlib
