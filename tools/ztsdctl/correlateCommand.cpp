// correlate: fit the host clock against a remote timescale and read the line.
#include <cmath>
#include <iostream>
#include <sstream>
#include <string>

#include "commands.h"
#include "interrupt.h"
#include "jsonText.h"

namespace ztsdctl {

namespace {

// A non-negative figure in nanoseconds, rounded to the nanosecond, as a duration.
std::string uncertaintyText(double ns) {
    std::string text = durationText(static_cast<Nanos>(ns + 0.5));
    if (!text.empty() && text[0] == '+') text.erase(0, 1);
    return text;
}

// ppb to a text in ppm with three decimals.
std::string ppmText(double ppb) {
    std::ostringstream text;
    text.setf(std::ios::fixed);
    text.precision(3);
    text << ppb / 1000;
    return text.str();
}

}  // namespace

void printCorrelation(std::ostream& out, const CorrelationResult& result) {
    const std::string& atUri = result.atIsRemote ? result.remoteUri : result.hostUri;
    const std::string& otherUri = result.atIsRemote ? result.hostUri : result.remoteUri;
    const ztsdlib_CorrelationQualityV2& q = result.quality;
    out << "correlator   " << result.correlatorJson << "\n"
        << "offset       remote - host = " << durationText(result.offset_ns) << " +/- "
        << uncertaintyText(q.offsetStdErrorCorrected_ns) << " at host time " << utcText(result.reference) << "\n"
        << "rate         remote runs " << fixedPoint(result.rate_ppt, 6, true) << " ppm ("
        << fixedPoint(result.rate_ppt, 3, true) << " ppb) +/- " << ppmText(q.slopeStdErrorCorrected_ppb)
        << " ppm against the host\n"
        << "fit          " << q.quality.sampleCount << " samples over "
        << fixedPoint(static_cast<Nanos>(q.quality.span_ns), 9, false) << " s, residual "
        << uncertaintyText(q.quality.residualStdDev_ns) << " (" << (result.symmetric ? "symmetric" : "sequential")
        << " sampling; +/- is one standard uncertainty, for residuals that drift together: "
        << fixedPoint(static_cast<Nanos>(q.effectiveSampleCount * 10 + 0.5), 1, false) << " effective samples)\n";
    // The standard uncertainty describes the fit's scatter; the bound is
    // the accuracy. The sequential sampling's offset is late by the outward
    // delay, up to the whole round trip, and its bound is about that wide.
    if (std::isfinite(q.offsetBound_ns)) {
        out << "accuracy     offset within +/- " << uncertaintyText(result.offsetBoundAtReference_ns())
            << ", rate within +/- " << ppmText(q.rateBound_ppb)
            << " ppm, whatever the path asymmetry (half the narrowest round trip "
            << uncertaintyText(q.narrowestHalfRoundTrip_ns)
            << (result.symmetric ? " and the fit)\n"
                                 : ", the fit, and the outward delay, up to the whole round trip, by which the "
                                   "sequential sampling's offset runs late; sample symmetrically for a bound "
                                   "of half of it)\n");
    } else {
        out << "accuracy     no bound: a sample of the history has no round trip to bound it\n";
    }
    if (!result.rateIsMeaningful()) {
        out << "warning      the rate means nothing yet: its uncertainty (3 x " << ppmText(q.slopeStdErrorCorrected_ppb)
            << " ppm) exceeds 1 ppm; the baseline of "
            << fixedPoint(static_cast<Nanos>(q.quality.span_ns / 1e6), 3, false)
            << " s is still too short (sample longer: --settle-ms, --samples, --interval-ms)\n";
    }
    out << "time         " << decimalSeconds(result.at) << "  " << utcText(result.at) << "  on " << atUri << "\n"
        << "correlated   " << decimalSeconds(result.correlated) << "  " << utcText(result.correlated) << "  on "
        << otherUri << "\n";
}

std::string correlationJson(const CorrelationResult& result) {
    const ztsdlib_CorrelationQualityV2& q = result.quality;
    // The bounds are null where the history states none.
    const bool bounded = std::isfinite(q.offsetBound_ns);
    const std::string offsetBound =
        bounded ? fixedPoint(static_cast<Nanos>(std::ceil(result.offsetBoundAtReference_ns())), 0, false) : "";
    const std::string rateBound = bounded ? fixedPoint(static_cast<Nanos>(std::ceil(q.rateBound_ppb * 1000)), 3, false) : "";
    return JsonObject()
        .addRaw("correlator", result.correlatorJson)
        .addString("hostUri", result.hostUri)
        .addString("remoteUri", result.remoteUri)
        .addRaw("reference", timestampJson(result.reference))
        .addInteger("offset_ns", result.offset_ns)
        .addRaw("rate_ppb", fixedPoint(result.rate_ppt, 3, false))
        .addRaw("quality", JsonObject()
                               .addString("sampling", result.symmetric ? "symmetric" : "sequential")
                               .addInteger("sampleCount", static_cast<Nanos>(q.quality.sampleCount))
                               .addInteger("span_ns", static_cast<Nanos>(q.quality.span_ns))
                               .addInteger("offsetUncertainty_ns", static_cast<Nanos>(q.offsetStdErrorCorrected_ns + 0.5))
                               .addInteger("residualStdDev_ns", static_cast<Nanos>(q.quality.residualStdDev_ns + 0.5))
                               .addInteger("rateUncertainty_ppt", static_cast<Nanos>(q.slopeStdErrorCorrected_ppb * 1000 + 0.5))
                               .addRaw("effectiveSampleCount", fixedPoint(static_cast<Nanos>(q.effectiveSampleCount * 10 + 0.5), 1, false))
                               .addRaw("offsetBound_ns", offsetBound)
                               .addRaw("rateBound_ppb", rateBound)
                               .addBool("rateIsMeaningful", result.rateIsMeaningful())
                               .text())
        .addRaw("at", timestampJson(result.at))
        .addString("atTimescaleUri", result.atIsRemote ? result.remoteUri : result.hostUri)
        .addRaw("correlated", timestampJson(result.correlated))
        .addString("correlatedTimescaleUri", result.atIsRemote ? result.hostUri : result.remoteUri)
        .text();
}

int runCorrelate(const CorrelateOptions& options, bool json) {
    catchInterrupt();
    const TimescaleHandle host = makeHostTimescale();
    std::optional<CorrelationResult> result;
    try {
        const TimescaleHandle remote = makeTimescaleProxy(options.uri, options.host, options.port);
        result = correlateHostWith(host.get(), remote.get(), options.settings, options.at, options.atIsRemote);
    } catch (LibraryError& error) {
        throw error.setContext(options.uri).setDaemon(hostPortText(options.host, options.port));
    }
    if (!result) {
        std::cerr << "ztsdctl: interrupted\n";
        return kExitFailure;
    }
    if (json) {
        std::cout << correlationJson(*result) << "\n";
    } else {
        printCorrelation(std::cout, *result);
    }
    return kExitOk;
}

}  // namespace ztsdctl
