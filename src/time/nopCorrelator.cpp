#include "time/nopCorrelator.h"

#include <utility>

namespace ztsdlib {

NopCorrelator::NopCorrelator(std::string correlatorUri, TimescaleInterface& first, TimescaleInterface& second)
    : TimescalePairCorrelator(std::move(correlatorUri), first, second) {}

ztsdlib_Timestamp NopCorrelator::correlate(std::string_view sourceTimescaleUri,
                                           const ztsdlib_Timestamp& timestampInSourceTimescale) {
    sourceIsFirst(sourceTimescaleUri, kNopCorrelatorFile);
    return timestampInSourceTimescale;
}

std::string NopCorrelator::toJson() const {
    std::string json = toJsonOpening("nop");
    json += "\"isRunning\" : ";
    json += "true";
    json += " }";
    return json;
}

}  // namespace ztsdlib
