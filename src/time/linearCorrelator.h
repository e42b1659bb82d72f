// Correlates two timescales by a running linear regression of their
// readings.
//
// Once started, a background sampling task reads timescale1 and then
// timescale2 over and over and adds each pair as one sample (first
// coordinate timescale1) to a regression of maxSampleSize samples. A round in
// which either clock did not move (its reading equals its previous one, all
// fields compared) adds nothing. The previous readings start as all-zero
// records, so the first round of a run counts as movement unless a clock
// reads zero: two clocks that never move give that one sample and no more.
// The task pauses 1 ms between rounds while the history is below
// maxSampleSize and samplingIntervalMs once it is full.
// A timescale that throws, or reports an error in the status it is given,
// ends the task; running stays set until stop().
//
// correlate(source, t): the source's URI picks the direction (timescale1's
// URI: first to second; timescale2's: second to first; otherwise -52005);
// a stopped correlator refuses with -52017. The first correlate after a
// start may wait, polling every 5 ms, for the history to fill, at most
// maxWaitForFirstCorrelateMs in all; the timer's expiry latches, so later
// calls do not wait again. Two samples are then enough; with fewer the call
// fails with -52010 and the details "samplingInterval_ms",
// "historySizeAfterCheck" and "minHistorySize" (2). Regression and
// conversion failures pass through unchanged.
// A call belongs to the run (start to stop) it found: it waits on that run's
// timer, which later starts do not restart (the run's timer started before
// the call, so no wait outlasts maxWaitForFirstCorrelateMs from the call),
// and a stop of its run, during the wait or before the answer, ends it with
// -52017 instead of an answer from a history that no longer runs.
//
// start() refuses a running correlator (-52016) and otherwise starts with a
// fresh, empty history (a maxSampleSize below 2 is refused by the
// regression, -52005, and leaves the correlator stopped). stop() clears
// running, wakes the sampling task at once (it sleeps on a condition
// variable, so even a long samplingIntervalMs does not delay stop),
// interrupts its readings and waits for it to finish; if the task ended with
// an exception before the stop, stop() then throws that exception, so the
// reason sampling ended is not lost; the correlator is stopped either way.
// The task reads each timescale through a reader the timescale makes at
// start (TimescaleInterface::makeReader): a remote timescale's reader has a
// connection of its own that stop() interrupts, so a stop never waits for a
// daemon that holds its replies, and once stop() returns the task no longer
// touches the caller's timescales. A correlator that is not running is left as it is.
// The destructor stops a running correlator and discards such an exception.
//
// Threads: the sampling task, any number of threads calling correlate and
// the other const operations, and one controlling thread calling
// start/stop (start and stop must not run at the same time). The
// regression holder has its own mutex (every use of the regression is under
// it); filterMutex guards only which holder and run are current, a run's
// timerMutex its first-correlate timer, wakeMutex the sampling task's sleep.
// running and a run's ended flag are atomic. The run is made just before
// running is set (rather than after the task is launched), so that a
// correlate racing a start never waits on the previous run. Reports carry the
// file label "source\ztsdlib\linearCorrelator".
//
// Symmetric sampling (Sampling::Symmetric): a round reads timescale1, then
// timescale2, then timescale1 again and pairs the timescale2 reading with
// the exact midpoint of the two timescale1 readings, so a remote reading is
// paired with the middle of its round trip. A round makes
// kExchangesPerRound such exchanges back to back and keeps the one with the
// narrowest bracket (timescale1 going back counts as no bracket): the first
// exchange after the pause meets an idle peer, whose slow outward leg would
// bias the midpoint (about +40 us on loopback against the simulated
// daemon); the exchanges right after it do not. Rounds whose bracket (the time
// between the two timescale1 readings) BracketFilter refuses are dropped as
// delayed replies and counted (delayedRoundsDropped); so are rounds where
// timescale1 went back. The movement rule is the same as above, applied to
// the midpoint and the timescale2 reading. toJson then carries
// "sampling" : "symmetric", just before "isThreadRunning"; the default
// sampling's text is unchanged.
//
// quality() reports the fit of the current history (LinearRegression's
// figures) and qualityV2() the same with the corrected standard errors and
// the bounds. A symmetric sample's pairing half-width is pairingHalfWidth_s
// of its bracket. A sequential round is timed on the host's steady clock,
// from before its timescale1 reading to after its timescale2 reading (plus
// one tick of that clock): its timescale2 reading came within that round
// trip after the timescale1 reading, so the true line lies up to the round
// trip below the sample (sequentialPairingShift_s), and its fit, late by the
// outward delay, gets a bound of about the whole narrowest round trip. They
// do not wait, and fail with -52010 and
// correlate's message while fewer than two samples exist. The record is
// made by the first caller that asks for it after a sample was added, not by
// the sampling task, and kept (cached by the holder and its count of added
// samples) for the callers after it, which then pay a copy.
//
// The timescales are the caller's objects: the correlator refers to them
// and the caller keeps them alive as long as the correlator.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "time/monotonicTimer.h"
#include "time/timestampCorrelatorInterface.h"

namespace ztsdlib {

class LinearRegressionFilterWrapper;

constexpr const char* kLinearCorrelatorFile = "source\\ztsdlib\\linearCorrelator";

class LinearCorrelator : public TimescalePairCorrelator {
public:
    enum class Sampling {
        Sequential,  // timescale1, then timescale2
        Symmetric,   // timescale1, timescale2, timescale1; paired with the midpoint
    };
    // Exchanges per symmetric round; the narrowest bracket is kept.
    static constexpr std::uint32_t kExchangesPerRound = 3;

    LinearCorrelator(std::string correlatorUri, TimescaleInterface& timescale1, TimescaleInterface& timescale2,
                     std::uint32_t samplingIntervalMs, std::uint32_t maxSampleSize,
                     std::uint32_t maxWaitForFirstCorrelateMs, Sampling sampling = Sampling::Sequential);
    ~LinearCorrelator() override;

    LinearCorrelator(const LinearCorrelator&) = delete;
    LinearCorrelator& operator=(const LinearCorrelator&) = delete;

    ztsdlib_Timestamp correlate(std::string_view sourceTimescaleUri,
                                const ztsdlib_Timestamp& timestampInSourceTimescale) override;
    void start() override;
    void stop() override;
    bool isRunning() const override { return running.load(); }
    // { "type" : "linear", "uri" : "...", "timescaleUri1" : "...", "timescaleUri2" : "...",
    //   "samplingIntervalMs" : n, "maxSampleSize" : n, "maxWaitForFirstCorrelateMs" : n,
    //   "isThreadRunning" : true|false } on one line, URIs not escaped.
    std::string toJson() const override;

    // Samples in the current history (0 before the first start).
    std::uint64_t historySize() const;
    // The fit of the current history (see above).
    ztsdlib_CorrelationQuality quality() const;
    // The same with the figures of ztsdlib_CorrelationQualityV2; size is set
    // to that struct's size.
    ztsdlib_CorrelationQualityV2 qualityV2() const;
    // Symmetric rounds dropped for a delayed reply since the last start.
    std::uint64_t delayedRoundsDropped() const { return droppedRounds.load(); }

private:
    // The sampling task: one of the two loops below.
    void sample(std::shared_ptr<LinearRegressionFilterWrapper> holder);
    void sampleUntilStopped(std::shared_ptr<LinearRegressionFilterWrapper> holder);
    void sampleSymmetricUntilStopped(std::shared_ptr<LinearRegressionFilterWrapper> holder);
    // The pause after a round: short while the history fills.
    void pauseAfterRound(const LinearRegressionFilterWrapper& holder);
    [[noreturn]] void raiseTooFewSamples(int line, std::uint64_t size) const;
    // The quality record of the holder's present fit, made afresh, and how
    // many samples had been added when it was made.
    ztsdlib_CorrelationQualityV2 makeQuality(const LinearRegressionFilterWrapper& holder,
                                             std::uint64_t* samplesAdded) const;
    std::shared_ptr<LinearRegressionFilterWrapper> currentFilter() const;
    // One run, from a start to the stop that ends it.
    struct Run {
        explicit Run(std::uint32_t maxWait_ms) : firstCorrelateTimer(maxWait_ms) {}
        std::mutex timerMutex;
        ztsdtools::MonotonicTimer firstCorrelateTimer;  // started with the run; guarded by timerMutex
        std::atomic<bool> ended{false};                 // set by the stop that ends the run
    };
    std::pair<std::shared_ptr<LinearRegressionFilterWrapper>, std::shared_ptr<Run>> currentRun() const;
    // The history size to go on with, after the first-correlate wait on the
    // run's timer; -52017 once the run has ended.
    std::uint64_t waitForHistory(const LinearRegressionFilterWrapper& holder, Run& current);
    [[noreturn]] void raiseNotRunning(int line) const;

    const std::uint32_t samplingIntervalMs;
    const std::uint32_t maxSampleSize;
    const std::uint32_t maxWaitForFirstCorrelateMs;
    const Sampling sampling;
    std::atomic<std::uint64_t> droppedRounds{0};

    mutable std::mutex filterMutex;
    std::shared_ptr<LinearRegressionFilterWrapper> filter;
    std::shared_ptr<Run> run;  // the current (or last) run; guarded by filterMutex

    std::atomic<bool> running{false};
    std::future<void> samplingTask;
    // The sampling task's readers of timescale1 and timescale2: made by
    // start(), interrupted and released by stop() (the controlling thread).
    std::unique_ptr<TimescaleReader> reader1;
    std::unique_ptr<TimescaleReader> reader2;

    // The last record made, for the holder it was made from (weak: it never
    // keeps a history alive, and a later holder never passes for it) after
    // cachedAfter samples had been added to it.
    mutable std::mutex qualityMutex;
    mutable std::weak_ptr<LinearRegressionFilterWrapper> cachedHolder;
    mutable ztsdlib_CorrelationQualityV2 cached{};
    mutable std::uint64_t cachedAfter = 0;

    std::mutex wakeMutex;
    std::condition_variable wake;
};

}  // namespace ztsdlib
