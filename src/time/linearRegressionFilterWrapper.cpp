#include "time/linearRegressionFilterWrapper.h"

#include <utility>

namespace ztsdlib {

LinearRegressionFilterWrapper::LinearRegressionFilterWrapper(std::shared_ptr<LinearRegressionFilterInterface> filter)
    : filter_(std::move(filter)) {}

std::uint64_t LinearRegressionFilterWrapper::getHistorySize() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return filter_->getHistorySize();
}

ztsdlib_Timestamp LinearRegressionFilterWrapper::calculateFirst(const ztsdlib_Timestamp& second) const {
    const TimestampDecimal y = toDecimal(second);
    TimestampDecimal x;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        x = filter_->calculateFirst(y);
    }
    return toTimestamp(x);
}

ztsdlib_Timestamp LinearRegressionFilterWrapper::calculateSecond(const ztsdlib_Timestamp& first) const {
    const TimestampDecimal x = toDecimal(first);
    TimestampDecimal y;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        y = filter_->calculateSecond(x);
    }
    return toTimestamp(y);
}

void LinearRegressionFilterWrapper::addSample(const TimestampDecimal& first_s, const TimestampDecimal& second_s) {
    std::lock_guard<std::mutex> lock(mutex_);
    filter_->addSample(first_s, second_s);
}

}  // namespace ztsdlib
