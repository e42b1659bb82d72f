// A linear correlator between the host clock and a remote timescale, run
// once: start it, let it gather its samples, read the fitted line, stop it.
//
// The fitted offset and rate are derived from two correlations of host
// times 1000 s apart (t0 and t0 + 1000 s, t0 = the host's time when the
// line is read): offset_ns = remote(t0) - t0, and the rate deviation
// (d remote / d host - 1) in units of 1e-12 is remote(t0 + 1000 s) -
// remote(t0) - 1000 s, counted in nanoseconds; so rate_ppt / 1000 is the
// deviation in parts per billion, exact to the correlator's whole-nanosecond
// results. Positive offset: the remote clock is ahead; positive rate: it runs
// fast.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "libraryCalls.h"
#include "timeText.h"

namespace ztsdctl {

struct CorrelationSettings {
    std::uint32_t samplingIntervalMs = 10;      // between samples once the history is full
    std::uint32_t maxSampleSize = 100;          // samples in the fitted history
    std::uint32_t maxWaitForFirstCorrelateMs = 5000;
    std::uint32_t settleMs = 0;                 // extra time to sample before the line is read
};

struct CorrelationResult {
    std::string correlatorJson;                 // the correlator's toJson while it ran
    std::string hostUri;
    std::string remoteUri;
    ztsdlib_Timestamp reference{};              // host time t0 at which the offset holds
    Nanos offset_ns = 0;                        // remote - host at t0
    Nanos rate_ppt = 0;                         // rate deviation in parts per trillion
    ztsdlib_Timestamp at{};                     // the time asked about
    bool atIsRemote = false;                    // `at` was read on the remote timescale
    ztsdlib_Timestamp correlated{};             // `at` on the other timescale
};

// host is timescale1 and remote timescale2 of a fresh linear correlator.
// `at` defaults to t0 on the host timescale. Throws LibraryError; returns
// nullopt when interrupted (Ctrl-C) before the line was read.
std::optional<CorrelationResult> correlateHostWith(ztsdlib_Timescale* host, ztsdlib_Timescale* remote,
                                                   const CorrelationSettings& settings,
                                                   std::optional<ztsdlib_Timestamp> at, bool atIsRemote);

ztsdlib_Timestamp readTime(ztsdlib_Timescale* timescale);

}  // namespace ztsdctl
