#include "time/linearCorrelator.h"

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

#include "errors/exception.h"
#include "errors/status.h"
#include "platform/clock.h"
#include "time/linearRegression.h"
#include "time/linearRegressionFilterWrapper.h"
#include "time/roundTripBracket.h"
#include "time/timestamp.h"

namespace ztsdlib {
namespace {

constexpr std::uint64_t kMinHistorySize = 2;
constexpr auto kFillPause = std::chrono::milliseconds(1);
constexpr auto kWaitPoll = std::chrono::milliseconds(5);

// Reads a timescale; an error it reports in the status becomes an exception
// like one it throws.
ztsdlib_Timestamp readTime(TimescaleReader& timescale) {
    ztsdlib_Timestamp reading{};
    zterr_Status status = zterr::makeOwnedStatus();
    try {
        timescale.getTime(reading, &status);
    } catch (...) {
        zterr::releaseStatus(&status);
        throw;
    }
    if (status.code < 0) throw zterr::Exception(std::move(status));
    zterr::releaseStatus(&status);
    return reading;
}

}  // namespace

LinearCorrelator::LinearCorrelator(std::string correlatorUri, TimescaleInterface& first, TimescaleInterface& second,
                                   std::uint32_t samplingInterval, std::uint32_t maxSamples,
                                   std::uint32_t maxWaitForFirstCorrelate, Sampling samplingKind)
    : TimescalePairCorrelator(std::move(correlatorUri), first, second),
      samplingIntervalMs(samplingInterval),
      maxSampleSize(maxSamples),
      maxWaitForFirstCorrelateMs(maxWaitForFirstCorrelate),
      sampling(samplingKind) {}

LinearCorrelator::~LinearCorrelator() {
    try {
        stop();
    } catch (...) {
        // The reason sampling ended has nowhere to go from a destructor.
    }
}

void LinearCorrelator::start() {
    if (running.load()) {
        zterr::raise(ZTERR_SITE(kLinearCorrelatorFile, zterr::name::ztapalerr_threadAlreadyStarted),
                     zterr::code::ztapalerr_threadAlreadyStarted, "ztsyncdomain_debug",
                     {{"message", "LinearCorrelator thread already started."}});
    }
    // The sampling task reads through readers of its own, which stop() can
    // interrupt; made first, so that a failure leaves the correlator stopped.
    std::unique_ptr<TimescaleReader> first = timescale1.makeReader();
    std::unique_ptr<TimescaleReader> second = timescale2.makeReader();
    auto holder = std::make_shared<LinearRegressionFilterWrapper>(std::make_shared<LinearRegression>(maxSampleSize));
    // The run (and its first-correlate timer) is made before running is set,
    // so that a concurrent first correlate never waits on a previous run.
    {
        std::lock_guard<std::mutex> lock(filterMutex);
        filter = holder;
        run = std::make_shared<Run>(maxWaitForFirstCorrelateMs);
    }
    droppedRounds.store(0);
    reader1 = std::move(first);
    reader2 = std::move(second);
    running.exchange(true);
    try {
        samplingTask = std::async(std::launch::async, &LinearCorrelator::sample, this, holder);
    } catch (...) {
        running.exchange(false);
        reader1.reset();
        reader2.reset();
        throw;
    }
}

void LinearCorrelator::sample(std::shared_ptr<LinearRegressionFilterWrapper> holder) {
    try {
        if (sampling == Sampling::Symmetric) {
            sampleSymmetricUntilStopped(std::move(holder));
        } else {
            sampleUntilStopped(std::move(holder));
        }
    } catch (...) {
        // A reading that fails once stop() has begun is the one it
        // interrupted: nothing to report.
        if (running.load()) throw;
    }
}

void LinearCorrelator::stop() {
    {
        std::lock_guard<std::mutex> lock(wakeMutex);
        if (!running.exchange(false)) return;
    }
    wake.notify_all();
    currentRun().second->ended.store(true);  // ends the first-correlate waits of this run
    // A reading held by a peer ends now, not at its deadline.
    reader1->interrupt();
    reader2->interrupt();
    struct ReleaseReaders {
        LinearCorrelator& owner;
        ~ReleaseReaders() {
            owner.reader1.reset();
            owner.reader2.reset();
        }
    } release{*this};
    if (samplingTask.valid()) samplingTask.get();  // passes on what ended the task, if anything
}

void LinearCorrelator::sampleUntilStopped(std::shared_ptr<LinearRegressionFilterWrapper> holder) {
    ztsdlib_Timestamp previous1{};
    ztsdlib_Timestamp previous2{};
    // The steady counter's tick: an elapsed time read from it may be short
    // by up to that much.
    const std::int64_t frequency = platform::steadyFrequency();
    const std::int64_t tick_ns = frequency > 0 ? (1000000000 + frequency - 1) / frequency : 1;
    while (running.load()) {
        // The round trip is timed on the host's steady clock, from before
        // the first reading to after the second: the second reading was
        // taken within it after the first (no extra reading of either).
        const std::int64_t began_ns = ztsdtools::steadyNow_ns();
        const ztsdlib_Timestamp reading1 = readTime(*reader1);
        const ztsdlib_Timestamp reading2 = readTime(*reader2);
        const std::int64_t roundTrip_ns = std::max<std::int64_t>(ztsdtools::steadyNow_ns() - began_ns, 0) + tick_ns;
        if (!sameTimestamp(reading1, previous1) && !sameTimestamp(reading2, previous2)) {
            const TimestampDecimal first_s = toDecimal(reading1);
            const TimestampDecimal second_s = toDecimal(reading2);
            holder->addBracketedSample(first_s, second_s, pairingHalfWidth_s(roundTrip_ns),
                                       sequentialPairingShift_s(roundTrip_ns));
            // The fit is made here, in the sampling task, so correlate finds it ready.
            holder->prepareCalculations();
        }
        previous1 = reading1;
        previous2 = reading2;
        pauseAfterRound(*holder);
    }
}

void LinearCorrelator::sampleSymmetricUntilStopped(std::shared_ptr<LinearRegressionFilterWrapper> holder) {
    TimestampDecimal previousMidpoint_s = 0;
    ztsdlib_Timestamp previous2{};
    BracketFilter brackets;
    while (running.load()) {
        // The first exchange after a pause finds the peer (and the path to
        // it) idle: its outward leg is slow while the reply comes back fast,
        // which puts its midpoint tens of microseconds early on loopback.
        // The exchanges right after it find both sides awake; the round
        // keeps the one with the narrowest bracket.
        ztsdlib_Timestamp before{}, reading2{}, after{};
        std::int64_t bracket_ns = -1;
        for (std::uint32_t exchange = 0; exchange < kExchangesPerRound; ++exchange) {
            const ztsdlib_Timestamp b = readTime(*reader1);
            const ztsdlib_Timestamp r = readTime(*reader2);
            const ztsdlib_Timestamp a = readTime(*reader1);
            const std::int64_t width_ns = differenceNanos(b, a);
            if (width_ns >= 0 && (bracket_ns < 0 || width_ns < bracket_ns)) {
                before = b;
                reading2 = r;
                after = a;
                bracket_ns = width_ns;
            }
        }
        if (bracket_ns < 0) {
            // timescale1 went back within the round: no midpoint to trust.
        } else if (!brackets.accept(bracket_ns)) {
            droppedRounds.fetch_add(1);
        } else {
            const TimestampDecimal midpoint_s = midpoint(before, after);
            if (midpoint_s != previousMidpoint_s && !sameTimestamp(reading2, previous2)) {
                holder->addBracketedSample(midpoint_s, toDecimal(reading2), pairingHalfWidth_s(bracket_ns), 0);
                holder->prepareCalculations();
            }
            previousMidpoint_s = midpoint_s;
            previous2 = reading2;
        }
        pauseAfterRound(*holder);
    }
}

void LinearCorrelator::pauseAfterRound(const LinearRegressionFilterWrapper& holder) {
    const auto pause = holder.getHistorySize() < maxSampleSize ? std::chrono::milliseconds(kFillPause)
                                                                : std::chrono::milliseconds(samplingIntervalMs);
    std::unique_lock<std::mutex> lock(wakeMutex);
    wake.wait_for(lock, pause, [this] { return !running.load(); });
}

std::shared_ptr<LinearRegressionFilterWrapper> LinearCorrelator::currentFilter() const {
    std::lock_guard<std::mutex> lock(filterMutex);
    return filter;
}

std::uint64_t LinearCorrelator::historySize() const {
    const auto holder = currentFilter();
    return holder ? holder->getHistorySize() : 0;
}

std::pair<std::shared_ptr<LinearRegressionFilterWrapper>, std::shared_ptr<LinearCorrelator::Run>>
LinearCorrelator::currentRun() const {
    std::lock_guard<std::mutex> lock(filterMutex);
    return {filter, run};
}

void LinearCorrelator::raiseNotRunning(int line) const {
    zterr::raise(ZTERR_SITE_AT(kLinearCorrelatorFile, line, zterr::name::ztapalerr_invalidStateTransition),
                 zterr::code::ztapalerr_invalidStateTransition, "ztsyncdomain_debug",
                 {{"message", "Correlator must be started before calling correlate."}});
}

std::uint64_t LinearCorrelator::waitForHistory(const LinearRegressionFilterWrapper& holder, Run& current) {
    for (;;) {
        if (current.ended.load()) raiseNotRunning(__LINE__);
        const std::uint64_t size = holder.getHistorySize();
        if (size >= maxSampleSize) return size;
        {
            // Latches: once expired, later callers of this run stop waiting at once.
            std::lock_guard<std::mutex> lock(current.timerMutex);
            if (current.firstCorrelateTimer.hasExpired()) return size;
        }
        std::this_thread::sleep_for(kWaitPoll);
    }
}

ztsdlib_Timestamp LinearCorrelator::correlate(std::string_view sourceTimescaleUri,
                                              const ztsdlib_Timestamp& timestampInSourceTimescale) {
    const bool firstToSecond = sourceIsFirst(sourceTimescaleUri, kLinearCorrelatorFile);
    if (!running.load()) raiseNotRunning(__LINE__);
    const auto [holder, current] = currentRun();
    const std::uint64_t size = waitForHistory(*holder, *current);
    if (size < kMinHistorySize) raiseTooFewSamples(__LINE__, size);
    return firstToSecond ? holder->calculateSecond(timestampInSourceTimescale)
                         : holder->calculateFirst(timestampInSourceTimescale);
}

void LinearCorrelator::raiseTooFewSamples(int line, std::uint64_t size) const {
    zterr::raise(ZTERR_SITE_AT(kLinearCorrelatorFile, line, zterr::name::ztapalerr_resourceNotInitialized),
                 zterr::code::ztapalerr_resourceNotInitialized, "ztsyncdomain_debug",
                 {{"message",
                   "Correlator does not have enough data points even after waiting for the appropriates "
                   "sampling intervals."},
                  {"samplingInterval_ms", samplingIntervalMs},
                  {"historySizeAfterCheck", size},
                  {"minHistorySize", kMinHistorySize}});
}

ztsdlib_CorrelationQualityV2 LinearCorrelator::makeQuality(const LinearRegressionFilterWrapper& holder,
                                                           std::uint64_t* samplesAdded) const {
    LinearRegression::Quality figures;
    {
        std::lock_guard<std::mutex> lock(holder.mutex());
        // start() makes every holder over a LinearRegression.
        const auto& regression = static_cast<const LinearRegression&>(holder.filter());
        const std::uint64_t size = regression.getHistorySize();
        if (size < kMinHistorySize) raiseTooFewSamples(__LINE__, size);
        figures = regression.quality();
        *samplesAdded = holder.samplesAddedLocked();
    }
    ztsdlib_CorrelationQualityV2 record{};
    record.size = sizeof record;
    ztsdlib_CorrelationQuality& result = record.quality;
    result.sampleCount = figures.sampleCount;
    result.span_ns = static_cast<double>(figures.span_s * 1000000000);
    result.slope = static_cast<double>(figures.slope);
    result.rate_ppb = static_cast<double>((figures.slope - 1) * 1000000000);
    result.offsetAtNewest = toTimestamp(figures.offsetAtNewest_s);
    result.residualStdDev_ns = static_cast<double>(figures.residualStdDev_s * 1000000000);
    result.slopeStdError_ppb = static_cast<double>(figures.slopeStdError * 1000000000);
    result.offsetStdError_ns = static_cast<double>(figures.offsetStdError_s * 1000000000);
    record.newestTimescale1 = toTimestamp(figures.newestFirst_s);
    record.residualLag1Correlation = figures.residualLag1Correlation;
    record.effectiveSampleCount = figures.effectiveSampleCount;
    record.slopeStdErrorCorrected_ppb = figures.slopeStdErrorCorrected * 1e9;
    record.offsetStdErrorCorrected_ns = figures.offsetStdErrorCorrected_s * 1e9;
    record.narrowestHalfRoundTrip_ns = figures.narrowestHalfWidth_s * 1e9;
    record.rateBound_ppb = figures.slopeBound * 1e9;
    // offsetAtNewest is truncated to the nanosecond: one more for that.
    record.offsetBound_ns = figures.offsetBound_s * 1e9 + 1;
    return record;
}

ztsdlib_CorrelationQualityV2 LinearCorrelator::qualityV2() const {
    const auto holder = currentFilter();
    if (!holder) raiseTooFewSamples(__LINE__, 0);
    std::uint64_t added;
    {
        std::lock_guard<std::mutex> lock(holder->mutex());
        added = holder->samplesAddedLocked();
    }
    {
        std::lock_guard<std::mutex> lock(qualityMutex);
        if (cachedHolder.lock() == holder && cachedAfter == added) return cached;
    }
    // Made outside qualityMutex: callers racing here each make it (with the
    // same result for the same history) and the last one keeps it.
    const ztsdlib_CorrelationQualityV2 record = makeQuality(*holder, &added);
    std::lock_guard<std::mutex> lock(qualityMutex);
    cachedHolder = holder;
    cached = record;
    cachedAfter = added;
    return record;
}

ztsdlib_CorrelationQuality LinearCorrelator::quality() const { return qualityV2().quality; }

std::string LinearCorrelator::toJson() const {
    std::string json = toJsonOpening("linear");
    json += "\"samplingIntervalMs\" : ";
    json += std::to_string(samplingIntervalMs);
    json += ", ";
    json += "\"maxSampleSize\" : ";
    json += std::to_string(maxSampleSize);
    json += ", ";
    json += "\"maxWaitForFirstCorrelateMs\" : ";
    json += std::to_string(maxWaitForFirstCorrelateMs);
    json += ", ";
    if (sampling == Sampling::Symmetric) json += "\"sampling\" : \"symmetric\", ";
    json += "\"isThreadRunning\" : ";
    json += isRunning() ? "true" : "false";
    json += " }";
    return json;
}

}  // namespace ztsdlib
