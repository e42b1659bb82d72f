// correlate: fit the host clock against a remote timescale and read the line.
#include <iostream>

#include "commands.h"
#include "interrupt.h"
#include "jsonText.h"

namespace ztsdctl {

void printCorrelation(std::ostream& out, const CorrelationResult& result) {
    const std::string& atUri = result.atIsRemote ? result.remoteUri : result.hostUri;
    const std::string& otherUri = result.atIsRemote ? result.hostUri : result.remoteUri;
    out << "correlator   " << result.correlatorJson << "\n"
              << "offset       remote - host = " << durationText(result.offset_ns) << " at host time "
              << utcText(result.reference) << "\n"
              << "rate         remote runs " << fixedPoint(result.rate_ppt, 6, true) << " ppm ("
              << fixedPoint(result.rate_ppt, 3, true) << " ppb) against the host\n"
              << "time         " << decimalSeconds(result.at) << "  " << utcText(result.at) << "  on " << atUri << "\n"
              << "correlated   " << decimalSeconds(result.correlated) << "  " << utcText(result.correlated) << "  on "
              << otherUri << "\n";
}

std::string correlationJson(const CorrelationResult& result) {
    return JsonObject()
        .addRaw("correlator", result.correlatorJson)
        .addString("hostUri", result.hostUri)
        .addString("remoteUri", result.remoteUri)
        .addRaw("reference", timestampJson(result.reference))
        .addInteger("offset_ns", result.offset_ns)
        .addRaw("rate_ppb", fixedPoint(result.rate_ppt, 3, false))
        .addRaw("at", timestampJson(result.at))
        .addString("atTimescaleUri", result.atIsRemote ? result.remoteUri : result.hostUri)
        .addRaw("correlated", timestampJson(result.correlated))
        .addString("correlatedTimescaleUri", result.atIsRemote ? result.hostUri : result.remoteUri)
        .text();
}

int runCorrelate(const CorrelateOptions& options, bool json) {
    catchInterrupt();
    const TimescaleHandle host = makeHostTimescale();
    const TimescaleHandle remote = makeTimescaleProxy(options.uri, options.host, options.port);
    const std::optional<CorrelationResult> result =
        correlateHostWith(host.get(), remote.get(), options.settings, options.at, options.atIsRemote);
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
