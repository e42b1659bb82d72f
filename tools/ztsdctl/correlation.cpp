#include "correlation.h"

#include <cmath>

#include "chassisAccess.h"
#include "interrupt.h"

namespace ztsdctl {

namespace {

constexpr const char* kCorrelatorUri = "/localhost/ztsdctl/correlators/linear";
constexpr Nanos kRateBaseline_ns = 1000 * kNanosPerSecond;

ztsdlib_Timestamp correlate(ztsdlib_TimestampCorrelator* correlator, const ztsdlib_Timestamp& t,
                            const std::string& sourceUri) {
    ztsdlib_Timestamp result{};
    call("ztsdlib_TimestampCorrelator_correlate", [&](zterr_Status* status) {
        ztsdlib_TimestampCorrelator_correlate(correlator, &t, sourceUri.c_str(), &result, status);
    });
    return result;
}

// Stops the correlator when the run ends, however it ends; a stop that
// reports what ended the sampling early is only worth a warning then.
class RunningCorrelator {
public:
    explicit RunningCorrelator(ztsdlib_TimestampCorrelator* correlator) : correlator_(correlator) {
        call("ztsdlib_TimestampCorrelator_start",
             [&](zterr_Status* status) { ztsdlib_TimestampCorrelator_start(correlator_, status); });
    }
    ~RunningCorrelator() {
        if (correlator_ == nullptr) return;
        Status status;
        ztsdlib_TimestampCorrelator_stop(correlator_, status.get());
    }
    // Stops now and reports a failure of the sampling task.
    void stop() {
        ztsdlib_TimestampCorrelator* correlator = correlator_;
        correlator_ = nullptr;
        call("ztsdlib_TimestampCorrelator_stop",
             [&](zterr_Status* status) { ztsdlib_TimestampCorrelator_stop(correlator, status); });
    }
    RunningCorrelator(const RunningCorrelator&) = delete;
    RunningCorrelator& operator=(const RunningCorrelator&) = delete;

private:
    ztsdlib_TimestampCorrelator* correlator_;
};

}  // namespace

ztsdlib_Timestamp readTime(ztsdlib_Timescale* timescale) {
    ztsdlib_Timestamp t{};
    call("ztsdlib_Timescale_getTime", [&](zterr_Status* status) { ztsdlib_Timescale_getTime(timescale, &t, status); });
    return t;
}

std::optional<CorrelationResult> correlateHostWith(ztsdlib_Timescale* host, ztsdlib_Timescale* remote,
                                                   const CorrelationSettings& settings,
                                                   std::optional<ztsdlib_Timestamp> at, bool atIsRemote) {
    CorrelationResult result;
    result.hostUri = uriOf(host);
    result.remoteUri = uriOf(remote);
    result.symmetric = settings.symmetric;
    const char* createName =
        settings.symmetric ? "ztsdlib_LinearCorrelator_createSymmetric" : "ztsdlib_LinearCorrelator_create";
    const auto create = settings.symmetric ? ztsdlib_LinearCorrelator_createSymmetric : ztsdlib_LinearCorrelator_create;
    const CorrelatorHandle correlator = owned<CorrelatorHandle>(
        call(createName,
             [&](zterr_Status* status) {
                 return create(kCorrelatorUri, host, remote, settings.samplingIntervalMs, settings.maxSampleSize,
                               settings.maxWaitForFirstCorrelateMs, status);
             }),
        createName);

    RunningCorrelator running(correlator.get());
    if (!sleepUnlessInterrupted(settings.settleMs)) return std::nullopt;

    result.reference = readTime(host);
    // The first correlate waits for the history to fill.
    const ztsdlib_Timestamp remoteAtReference = correlate(correlator.get(), result.reference, result.hostUri);
    const ztsdlib_Timestamp later = fromNanos(toNanos(result.reference) + kRateBaseline_ns);
    const ztsdlib_Timestamp remoteLater = correlate(correlator.get(), later, result.hostUri);
    result.offset_ns = toNanos(remoteAtReference) - toNanos(result.reference);
    result.rate_ppt = toNanos(remoteLater) - toNanos(remoteAtReference) - kRateBaseline_ns;

    result.atIsRemote = at.has_value() && atIsRemote;
    result.at = at.value_or(result.reference);
    result.correlated = correlate(correlator.get(), result.at, result.atIsRemote ? result.remoteUri : result.hostUri);
    result.quality.size = sizeof result.quality;
    call("ztsdlib_TimestampCorrelator_getQualityV2", [&](zterr_Status* status) {
        ztsdlib_TimestampCorrelator_getQualityV2(correlator.get(), &result.quality, status);
    });
    result.correlatorJson = takeText(call("ztsdlib_TimestampCorrelator_toJson", [&](zterr_Status* status) {
        return ztsdlib_TimestampCorrelator_toJson(correlator.get(), status);
    }));
    running.stop();
    return result;
}

double CorrelationResult::offsetBoundAtReference_ns() const {
    const double age_ns = std::fabs(static_cast<double>(toNanos(reference) - toNanos(quality.newestTimescale1)));
    return quality.offsetBound_ns + quality.rateBound_ppb * 1e-9 * age_ns;
}

}  // namespace ztsdctl
