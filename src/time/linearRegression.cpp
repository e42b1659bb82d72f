#include "time/linearRegression.h"

#include "errors/exception.h"

namespace ztsdlib {
namespace {

[[noreturn]] void raiseFit(int line, const char* constant, std::int32_t code, const char* message) {
    zterr::raise(ZTERR_SITE_AT(kLinearRegressionFile, line, constant), code, "ztsyncdomain_debug",
                 {{"message", message}});
}

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
    if (offsetsFromStart.empty()) {
        start1_s = first_s;
        start2_s = second_s;
    }
    const TimestampDecimal dx_s = first_s - start1_s;
    const TimestampDecimal dy_s = second_s - start2_s;
    Sample sample{dx_s, dy_s, dx_s * dx_s, dx_s * dy_s, dy_s * dy_s};
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
    const TimestampDecimal offsetIntercept = (sumY - slope_ * sumX) / n;
    intercept_ = start2_s + offsetIntercept - slope_ * start1_s;
    fit = Fit::Ready;

    const Sample& newest = offsetsFromStart.back();
    quality_.sampleCount = n;
    quality_.span_s = newest.dx_s - offsetsFromStart.front().dx_s;
    quality_.slope = slope_;
    quality_.offsetAtNewest_s = start2_s + slope_ * newest.dx_s + offsetIntercept - (start1_s + newest.dx_s);
    const TimestampDecimal nSxy = sumXY * n - sumX * sumY;
    const TimestampDecimal nSyy = sumYY * n - sumY * sumY;
    TimestampDecimal rss = (nSyy - nSxy * nSxy / denominator) / n;
    if (rss < 0) rss = 0;  // the last digits of the cancellation, nothing more
    if (n > 2) {
        const TimestampDecimal variance = rss / (n - 2);
        quality_.residualStdDev_s = sqrt(variance);
        const TimestampDecimal slopeVariance = variance * n / denominator;
        quality_.slopeStdError = sqrt(slopeVariance);
        const TimestampDecimal fromMean_s = newest.dx_s - sumX / n;
        quality_.offsetStdError_s = sqrt(variance / n + slopeVariance * fromMean_s * fromMean_s);
    } else {
        quality_.residualStdDev_s = 0;
        quality_.slopeStdError = 0;
        quality_.offsetStdError_s = 0;
    }
}

const LinearRegression::Quality& LinearRegression::quality() const {
    requireFit();
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
