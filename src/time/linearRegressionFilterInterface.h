// A filter that fits a straight line through paired readings of two
// timescales and maps a reading of either one onto the other. Readings are
// exact decimals of seconds; the first coordinate is the first timescale's
// reading, the second the second's.
#pragma once

#include <cstdint>

#include "time/timestampDecimal.h"

namespace ztsdlib {

class LinearRegressionFilterInterface {
public:
    virtual ~LinearRegressionFilterInterface() = default;

    // Number of samples the fit is made over now.
    virtual std::uint64_t getHistorySize() const = 0;
    // Adds one paired reading (first on the first timescale, second on the
    // second), dropping the oldest sample when the history is full.
    virtual void addSample(const TimestampDecimal& first_s, const TimestampDecimal& second_s) = 0;
    // The same for a pair where the second timescale's true time at first_s
    // is known to lie within pairingHalfWidth_s of second_s +
    // pairingShift_s: shift 0 for a reading paired with the middle of the
    // round trip it was read in (half that round trip wide), minus half the
    // round trip for one paired with its start, after which it came. A
    // filter that does not use it adds the sample as above.
    virtual void addBracketedSample(const TimestampDecimal& first_s, const TimestampDecimal& second_s,
                                    double pairingHalfWidth_s, double pairingShift_s) {
        (void)pairingHalfWidth_s;
        (void)pairingShift_s;
        addSample(first_s, second_s);
    }
    // The first timescale's reading for a reading of the second:
    // x = (y - intercept) / slope.
    virtual TimestampDecimal calculateFirst(const TimestampDecimal& second_s) const = 0;
    // The second timescale's reading for a reading of the first:
    // y = slope * x + intercept.
    virtual TimestampDecimal calculateSecond(const TimestampDecimal& first_s) const = 0;
    // Does ahead of time the work the calculations need after an add (a
    // filter that keeps its fit makes it here), so that whoever adds can
    // spare the callers of the calculations that cost. Nothing by default.
    virtual void prepareCalculations() const {}
};

}  // namespace ztsdlib
