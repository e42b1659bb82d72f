#include "time/linearRegression.h"

#include <boost/math/distributions/students_t.hpp>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "errors/exception.h"

namespace ztsdlib {
namespace {

// A small offset in seconds as a double, by the timestamp conversion (a
// few ns of work where the decimal's own conversion to double costs over
// a microsecond): truncated to the nanosecond, which the quality figures
// allow for.
double truncatedSeconds(const TimestampDecimal& value_s) {
    const ztsdlib_Timestamp t = toTimestamp(value_s);
    const double magnitude = static_cast<double>(t.seconds) + static_cast<double>(t.nanos) * 1e-9;
    return t.isNegative ? -magnitude : magnitude;
}

[[noreturn]] void raiseFit(int line, const char* constant, std::int32_t code, const char* message) {
    zterr::raise(ZTERR_SITE_AT(kLinearRegressionFile, line, constant), code, "ztsyncdomain_debug",
                 {{"message", message}});
}

// The slopes a line may have that passes within a half-width of every one
// of a series of points (x increasing): the steepest is the least slope
// from a point's low end (y - w) to a later point's high end (y + w), the
// flattest the greatest from a high end to a later low end (a line of two
// unknowns is held by two of the constraints, and each such pair gives
// exactly that). Each is found in one pass with a convex hull of the earlier
// ends, in O(n log n).
class SlopeLimits {
public:
    // Points with the x of the last one are held back until a later x.
    void add(double x, double y, double w) {
        if (!pending.empty() && x > pending.front().x) flush();
        if (!lowHull.empty()) {
            steepest = std::min(steepest, tangent(lowHull, {x, y + w}, true));
            flattest = std::max(flattest, tangent(highHull, {x, y - w}, false));
        }
        pending.push_back({x, y, w});
    }
    double steepest = std::numeric_limits<double>::infinity();
    double flattest = -std::numeric_limits<double>::infinity();

private:
    struct Point {
        double x, y;
    };
    struct Sample {
        double x, y, w;
    };
    // > 0 when c lies left of the way from a to b.
    static double turn(const Point& a, const Point& b, const Point& c) {
        return (b.x - a.x) * (c.y - a.y) - (b.y - a.y) * (c.x - a.x);
    }
    void flush() {
        for (const Sample& s : pending) {
            push(lowHull, {s.x, s.y - s.w}, true);
            push(highHull, {s.x, s.y + s.w}, false);
        }
        pending.clear();
    }
    // The upper hull of the low ends (from below no slope reaches past it),
    // the lower hull of the high ends.
    static void push(std::vector<Point>& hull, const Point& p, bool upper) {
        while (hull.size() >= 2 && (upper ? turn(hull[hull.size() - 2], hull.back(), p) >= 0
                                          : turn(hull[hull.size() - 2], hull.back(), p) <= 0))
            hull.pop_back();
        hull.push_back(p);
    }
    // The least slope from a point of an upper hull to q (or the greatest
    // from a lower hull): along the hull it falls while the next point lies
    // beyond the line from the present one to q, then rises.
    static double tangent(const std::vector<Point>& hull, const Point& q, bool upper) {
        std::size_t low = 0, high = hull.size() - 1;
        while (low < high) {
            const std::size_t mid = (low + high) / 2;
            const double side = turn(hull[mid], q, hull[mid + 1]);
            if (upper ? side > 0 : side < 0) low = mid + 1; else high = mid;
        }
        return (q.y - hull[low].y) / (q.x - hull[low].x);
    }
    std::vector<Point> lowHull, highHull;
    std::vector<Sample> pending;
};

}  // namespace

LinearRegression::LinearRegression(std::uint64_t maxHistory) : maxHistorySize(maxHistory) {
    if (maxHistorySize < 2) {
        zterr::raise(ZTERR_SITE(kLinearRegressionFile, zterr::name::ztapalerr_invalidParameter),
                     zterr::code::ztapalerr_invalidParameter, "ztsyncdomain_debug",
                     {{"message", "Max history size needs to be >= 2."}, {"maxHistorySize", maxHistorySize}});
    }
    const std::uint64_t largest = offsetsFromStart.max_size();
    if (maxHistorySize > largest) {
        zterr::raise(ZTERR_SITE(kLinearRegressionFile, zterr::name::ztapalerr_invalidParameter),
                     zterr::code::ztapalerr_invalidParameter, "ztsyncdomain_debug",
                     {{"message", "Max history size set greater than system limitations."},
                      {"offsetsFromStart.max_size()", largest},
                      {"maxHistorySize", maxHistorySize}});
    }
}

void LinearRegression::addSample(const TimestampDecimal& first_s, const TimestampDecimal& second_s) {
    addBracketedSample(first_s, second_s, -1, 0);
}

void LinearRegression::addBracketedSample(const TimestampDecimal& first_s, const TimestampDecimal& second_s,
                                          double pairingHalfWidth_s, double pairingShift_s) {
    if (offsetsFromStart.empty()) {
        start1_s = first_s;
        start2_s = second_s;
    }
    const TimestampDecimal dx_s = first_s - start1_s;
    const TimestampDecimal dy_s = second_s - start2_s;
    Sample sample{dx_s,
                  dy_s,
                  dx_s * dx_s,
                  dx_s * dy_s,
                  dy_s * dy_s,
                  truncatedSeconds(dx_s),
                  truncatedSeconds(dy_s - dx_s),
                  std::isnan(pairingHalfWidth_s) ? -1.0 : pairingHalfWidth_s,
                  std::isfinite(pairingShift_s) ? pairingShift_s : 0.0};
    if (offsetsFromStart.size() >= maxHistorySize) {
        // Take the oldest sample out of the sums and reuse its node for the
        // new one (moved to the back: no allocation once the history is full).
        const Sample& oldest = offsetsFromStart.front();
        sumX -= oldest.dx_s;
        sumY -= oldest.dy_s;
        sumXX -= oldest.dxdx;
        sumXY -= oldest.dxdy;
        sumYY -= oldest.dydy;
        offsetsFromStart.splice(offsetsFromStart.end(), offsetsFromStart, offsetsFromStart.begin());
        offsetsFromStart.back() = sample;
    } else {
        offsetsFromStart.push_back(sample);
    }
    sumX += sample.dx_s;
    sumY += sample.dy_s;
    sumXX += sample.dxdx;
    sumXY += sample.dxdy;
    sumYY += sample.dydy;
    fitStale = true;
    qualityStale = true;
}

void LinearRegression::prepareCalculations() const {
    if (fitStale) refit();
}

void LinearRegression::refit() const {
    fitStale = false;
    const unsigned long long n = offsetsFromStart.size();
    if (n < 2) {
        fit = Fit::NotEnoughHistory;
        return;
    }
    const TimestampDecimal denominator = sumXX * n - sumX * sumX;
    if (denominator == 0) {
        fit = Fit::InvalidDenominator;
        return;
    }
    slope_ = (sumXY * n - sumX * sumY) / denominator;
    offsetIntercept_ = (sumY - slope_ * sumX) / n;
    intercept_ = start2_s + offsetIntercept_ - slope_ * start1_s;
    denominator_ = denominator;
    fit = Fit::Ready;
}

void LinearRegression::makeQuality() const {
    qualityStale = false;
    const unsigned long long n = offsetsFromStart.size();
    const Sample& newest = offsetsFromStart.back();
    quality_.sampleCount = n;
    quality_.span_s = newest.dx_s - offsetsFromStart.front().dx_s;
    quality_.newestFirst_s = start1_s + newest.dx_s;
    quality_.slope = slope_;
    quality_.offsetAtNewest_s = start2_s + slope_ * newest.dx_s + offsetIntercept_ - (start1_s + newest.dx_s);
    const TimestampDecimal nSxy = sumXY * n - sumX * sumY;
    const TimestampDecimal nSyy = sumYY * n - sumY * sumY;
    TimestampDecimal rss = (nSyy - nSxy * nSxy / denominator_) / n;
    if (rss < 0) rss = 0;  // the last digits of the cancellation, nothing more
    if (n > 2) {
        const TimestampDecimal variance = rss / (n - 2);
        quality_.residualStdDev_s = sqrt(variance);
        const TimestampDecimal slopeVariance = variance * n / denominator_;
        quality_.slopeStdError = sqrt(slopeVariance);
        const TimestampDecimal fromMean_s = newest.dx_s - sumX / n;
        quality_.offsetStdError_s = sqrt(variance / n + slopeVariance * fromMean_s * fromMean_s);
    } else {
        quality_.residualStdDev_s = 0;
        quality_.slopeStdError = 0;
        quality_.offsetStdError_s = 0;
    }
    visitResiduals();
}

void LinearRegression::visitResiduals() const {
    constexpr double kInfinity = std::numeric_limits<double>::infinity();
    const std::size_t n = offsetsFromStart.size();
    // The fitted line on the samples' offsets: d = slope1 * x + intercept.
    const double slope1 = static_cast<double>(slope_ - 1);
    const double intercept_s = static_cast<double>(offsetIntercept_);
    const auto residual = [&](const Sample& s) { return s.d_s - (slope1 * s.x_s + intercept_s); };
    // x and d are truncated to the nanosecond: a residual may be off by
    // that much from d and by the slope times that much from x.
    const double truncation_s = 1e-9 * (1 + std::fabs(slope1));

    double sumSquares = 0, sumLagged = 0, previous = 0;
    bool bracketed = true;
    double narrowest = kInfinity;
    SlopeLimits limits;
    std::size_t index = 0;
    for (const Sample& s : offsetsFromStart) {
        const double e = residual(s);
        sumSquares += e * e;
        if (index > 0) sumLagged += e * previous;
        previous = e;
        if (s.halfWidth_s < 0) bracketed = false;
        narrowest = std::min(narrowest, s.halfWidth_s < 0 ? kInfinity : s.halfWidth_s);
        if (bracketed) limits.add(s.x_s, s.d_s + s.shift_s, s.halfWidth_s + truncation_s);
        ++index;
    }

    const double r1 = n > 2 && sumSquares > 0 ? sumLagged / sumSquares : 0;
    const double nd = static_cast<double>(n);
    double effective = nd;
    const double r0 = std::max(r1, 0.0);
    const double rb = std::min(r0 + (1 + 4 * r0) / nd + std::sqrt((1 - r0 * r0) / nd), 1.0);
    if (n > 3) effective = std::clamp(nd * (1 - rb) / (1 + rb), 3.0, nd);
    const double scatter = n > 3 ? std::sqrt((nd - 2) / (effective - 2)) : 1;
    quality_.residualLag1Correlation = r1;
    quality_.effectiveSampleCount = effective;
    quality_.narrowestHalfWidth_s = narrowest;
    // Without bounds: the scatter's errors, with Student's t.
    const auto unbounded = [&] {
        const double student =
            n > 3 ? boost::math::quantile(boost::math::students_t(effective - 2), 0.99865) / 3 : 1;
        quality_.slopeStdErrorCorrected = static_cast<double>(quality_.slopeStdError) * scatter * student;
        quality_.offsetStdErrorCorrected_s = static_cast<double>(quality_.offsetStdError_s) * scatter * student;
    };

    quality_.slopeBound = kInfinity;
    quality_.offsetBound_s = kInfinity;
    if (!bracketed) return unbounded();
    if (std::isfinite(limits.steepest) && std::isfinite(limits.flattest)) {
        quality_.slopeBound = std::max(slope1 - limits.flattest, limits.steepest - slope1);
    }
    const double newest_s = offsetsFromStart.back().x_s;
    double bound = kInfinity;
    for (const Sample& s : offsetsFromStart) {
        const double age_s = newest_s - s.x_s;
        // An unknown slope allows only samples at the newest reading.
        const double drift_s = age_s > 0 ? quality_.slopeBound * age_s : 0;
        // The fitted line at x(k) is d(k) - e(k), the true one within h(k)
        // of d(k) + shift(k).
        bound = std::min(bound, s.halfWidth_s + std::fabs(residual(s) + s.shift_s) + truncation_s + drift_s);
    }
    quality_.offsetBound_s = bound;
    if (!std::isfinite(bound) || !std::isfinite(quality_.slopeBound)) return unbounded();
    // With bounds the errors are the scatter's (without Student's t: the
    // bounds' share covers the tail) combined with the bounds taken as
    // rectangular distributions, bound / sqrt(3) each.
    const auto combined = [](double scatter_, double bound_) { return std::sqrt(scatter_ * scatter_ + bound_ * bound_ / 3); };
    quality_.slopeStdErrorCorrected = combined(static_cast<double>(quality_.slopeStdError) * scatter, quality_.slopeBound);
    quality_.offsetStdErrorCorrected_s =
        combined(static_cast<double>(quality_.offsetStdError_s) * scatter, quality_.offsetBound_s);
}

const LinearRegression::Quality& LinearRegression::quality() const {
    requireFit();
    if (qualityStale) makeQuality();
    return quality_;
}

void LinearRegression::requireFit() const {
    prepareCalculations();
    if (fit == Fit::NotEnoughHistory) {
        raiseFit(__LINE__, zterr::name::ztapalerr_resourceNotInitialized, zterr::code::ztapalerr_resourceNotInitialized,
                 "Not enough history to calculate slope and intercept");
    }
    if (fit == Fit::InvalidDenominator) {
        raiseFit(__LINE__, zterr::name::ztapalerr_osFault, zterr::code::ztapalerr_osFault,
                 "Invalid denominator in correlator calculation");
    }
}

TimestampDecimal LinearRegression::slope() const {
    requireFit();
    return slope_;
}

TimestampDecimal LinearRegression::intercept_s() const {
    requireFit();
    return intercept_;
}

TimestampDecimal LinearRegression::calculateSecond(const TimestampDecimal& first_s) const {
    requireFit();
    return slope_ * first_s + intercept_;
}

TimestampDecimal LinearRegression::calculateFirst(const TimestampDecimal& second_s) const {
    requireFit();
    if (slope_ == 0) {
        raiseFit(__LINE__, zterr::name::ztapalerr_osFault, zterr::code::ztapalerr_osFault,
                 "LinearRegression slope is 0.");
    }
    return (second_s - intercept_) / slope_;
}

}  // namespace ztsdlib
