// A correlator between two timescales that share one clock: it checks that
// the source is one of its two timescales and hands the timestamp back
// unchanged, all four fields. start() and stop() do nothing and never fail;
// isRunning() is always true. No state changes after construction, so every
// operation may run on any number of threads at once.
//
// A source that is neither timescale: -52005 "Source timescale does not
// match either timescale in the correlator.", file "source\ztsdlib\nopCorrelator".
#pragma once

#include <string>
#include <string_view>

#include "time/timestampCorrelatorInterface.h"

namespace ztsdlib {

constexpr const char* kNopCorrelatorFile = "source\\ztsdlib\\nopCorrelator";

class NopCorrelator : public TimescalePairCorrelator {
public:
    NopCorrelator(std::string correlatorUri, TimescaleInterface& timescale1, TimescaleInterface& timescale2);

    ztsdlib_Timestamp correlate(std::string_view sourceTimescaleUri,
                                const ztsdlib_Timestamp& timestampInSourceTimescale) override;
    void start() override {}
    void stop() override {}
    bool isRunning() const override { return true; }
    // { "type" : "nop", "uri" : "...", "timescaleUri1" : "...", "timescaleUri2" : "...",
    //   "isRunning" : true } on one line, URIs not escaped.
    std::string toJson() const override;
};

}  // namespace ztsdlib
