#include "time/linearRegressionFilterWrapper.h"

#include <utility>

namespace ztsdlib {

LinearRegressionFilterWrapper::LinearRegressionFilterWrapper(std::shared_ptr<LinearRegressionFilterInterface> filter)
    : filter_(std::move(filter)) {}

std::uint64_t LinearRegressionFilterWrapper::getHistorySize() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return filter_->getHistorySize();
}

ztsdlib_Timestamp LinearRegressionFilterWrapper::calculate(const ztsdlib_Timestamp& argument,
                                                           Calculation calculation) const {
    const TimestampDecimal in = toDecimal(argument);
    TimestampDecimal out;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        out = ((*filter_).*calculation)(in);
    }
    return toTimestamp(out);
}

ztsdlib_Timestamp LinearRegressionFilterWrapper::calculateFirst(const ztsdlib_Timestamp& second) const {
    return calculate(second, &LinearRegressionFilterInterface::calculateFirst);
}

ztsdlib_Timestamp LinearRegressionFilterWrapper::calculateSecond(const ztsdlib_Timestamp& first) const {
    return calculate(first, &LinearRegressionFilterInterface::calculateSecond);
}

void LinearRegressionFilterWrapper::addSample(const TimestampDecimal& first_s, const TimestampDecimal& second_s) {
    std::lock_guard<std::mutex> lock(mutex_);
    filter_->addSample(first_s, second_s);
    ++added_;
}

void LinearRegressionFilterWrapper::addBracketedSample(const TimestampDecimal& first_s,
                                                       const TimestampDecimal& second_s, double pairingHalfWidth_s,
                                                       double pairingShift_s) {
    std::lock_guard<std::mutex> lock(mutex_);
    filter_->addBracketedSample(first_s, second_s, pairingHalfWidth_s, pairingShift_s);
    ++added_;
}

void LinearRegressionFilterWrapper::prepareCalculations() const {
    std::lock_guard<std::mutex> lock(mutex_);
    filter_->prepareCalculations();
}

}  // namespace ztsdlib
