// A regression filter shared between a correlator's sampling task and the
// callers of correlate: one mutex guards every use of the filter.
//
// The calculations take and give ztsdlib_Timestamp: the argument is
// converted to an exact decimal before the lock is taken, the filter's
// operation runs under the lock, and the result is converted back after it
// (toDecimal/toTimestamp, so a result that no timestamp can hold fails with
// their messages). The sampling task adds decimals it converted itself.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>

#include "time/linearRegressionFilterInterface.h"
#include "ztsdlib/ztsdlib.h"

namespace ztsdlib {

class LinearRegressionFilterWrapper {
public:
    explicit LinearRegressionFilterWrapper(std::shared_ptr<LinearRegressionFilterInterface> filter);
    virtual ~LinearRegressionFilterWrapper() = default;

    LinearRegressionFilterWrapper(const LinearRegressionFilterWrapper&) = delete;
    LinearRegressionFilterWrapper& operator=(const LinearRegressionFilterWrapper&) = delete;

    std::uint64_t getHistorySize() const;
    // The first timescale's time for a time of the second, and back.
    ztsdlib_Timestamp calculateFirst(const ztsdlib_Timestamp& second) const;
    ztsdlib_Timestamp calculateSecond(const ztsdlib_Timestamp& first) const;
    // One paired reading, added under the lock.
    void addSample(const TimestampDecimal& first_s, const TimestampDecimal& second_s);
    // The same with the pairing's interval (the filter's addBracketedSample).
    void addBracketedSample(const TimestampDecimal& first_s, const TimestampDecimal& second_s,
                            double pairingHalfWidth_s, double pairingShift_s);
    // The filter's preparation for the calculations, under the lock (taken
    // apart from the add's, so that a waiting calculation can come between).
    void prepareCalculations() const;

    // For callers that need several steps under one lock: hold mutex() while
    // using filter().
    std::mutex& mutex() const { return mutex_; }
    LinearRegressionFilterInterface& filter() const { return *filter_; }
    // How many samples were ever added; hold mutex() to read it together
    // with the filter's state.
    std::uint64_t samplesAddedLocked() const { return added_; }

private:
    using Calculation = TimestampDecimal (LinearRegressionFilterInterface::*)(const TimestampDecimal&) const;
    // Converts the argument, runs the calculation under the lock, converts back.
    ztsdlib_Timestamp calculate(const ztsdlib_Timestamp& argument, Calculation calculation) const;

    mutable std::mutex mutex_;
    std::shared_ptr<LinearRegressionFilterInterface> filter_;
    std::uint64_t added_ = 0;
};

}  // namespace ztsdlib
