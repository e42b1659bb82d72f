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
//
// The correlator samples symmetrically by default (host, remote, host; the
// remote reading paired with the middle of the round trip), which removes
// the bias of half a round trip from the offset. Its fit quality comes with
// the result (ztsdlib_TimestampCorrelator_getQualityV2): the standard
// uncertainties of offset and rate allowing for residuals that drift
// together, the residual scatter, the sample count and the span, and for the
// symmetric sampling the bounds that hold whatever the path asymmetry. The
// rate is called meaningful when three of those standard uncertainties stay
// within kMeaningfulRate_ppb (1 ppm); otherwise the
// baseline is still too short and the tool says so. The defaults (300
// samples, one every 20 ms, 6 s of sampling) give a span of almost 6 s,
// enough for a rate within 1 ppm on loopback and a quiet LAN (2 s were not
// on a loaded machine: residuals of 7 us left a standard error of 0.8 ppm).
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "libraryCalls.h"
#include "timeText.h"

namespace ztsdctl {

constexpr double kMeaningfulRate_ppb = 1000;

struct CorrelationSettings {
    std::uint32_t samplingIntervalMs = 20;      // between samples once the history is full
    std::uint32_t maxSampleSize = 300;          // samples in the fitted history
    std::uint32_t maxWaitForFirstCorrelateMs = 5000;
    std::uint32_t settleMs = 6000;              // extra time to sample before the line is read
    bool symmetric = true;                      // host, remote, host rounds (else host, remote)
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
    ztsdlib_CorrelationQualityV2 quality{};     // the fit's figures when the line was read
    bool symmetric = true;

    // Three standard uncertainties of the rate within kMeaningfulRate_ppb.
    bool rateIsMeaningful() const { return 3 * quality.slopeStdErrorCorrected_ppb <= kMeaningfulRate_ppb; }
    // How far offset_ns may be from the truth at the reference, whatever the
    // path asymmetry: the record's bound at its newest sample widened by the
    // rate's bound over the time from there (+infinity when the record
    // states none).
    double offsetBoundAtReference_ns() const;
};

// host is timescale1 and remote timescale2 of a fresh linear correlator.
// `at` defaults to t0 on the host timescale. Throws LibraryError; returns
// nullopt when interrupted (Ctrl-C) before the line was read.
std::optional<CorrelationResult> correlateHostWith(ztsdlib_Timescale* host, ztsdlib_Timescale* remote,
                                                   const CorrelationSettings& settings,
                                                   std::optional<ztsdlib_Timestamp> at, bool atIsRemote);

ztsdlib_Timestamp readTime(ztsdlib_Timescale* timescale);

}  // namespace ztsdctl
