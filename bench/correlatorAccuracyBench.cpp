// How close a correlated time comes to the truth, for both samplings in the
// same run. Two linear correlators (the default sampling: host, then remote;
// the symmetric one: host, remote, host, paired with the midpoint) read the
// host clock and one simulated timestamp daemon whose clock runs 2.5 ms
// ahead and 120 ppm fast, through two timescale proxies, at the same time.
// After 300 samples 20 ms apart (about 6 s of span) each is asked for the
// remote time of the host's present time, and the answer is held against
// the simulator's own mapping. Counters (ns, ppb) per sampling:
//   *_error_ns       correlated - true remote time
//   *_rate_err_ppb   fitted rate (from the quality export) - 120000 ppb
//   *_rate_se_ppb    standard error of the rate (quality export)
//   *_residual_ns    residual standard deviation (quality export)
// Aims on loopback: |symmetric error| <= 2 us, |rate error| <= 500 ppb.
// The second case holds every reply back 100 us (+ up to 20 us of jitter)
// after the daemon read its clock: a slow return path, which the symmetric
// sampling sees as an early error (half the hold, and on loopback about as
// much again: the client that waited wakes slowly) and the default one not
// at all.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <thread>

#include "time/hostTimescale.h"
#include "time/linearCorrelator.h"
#include "timestampservice/timescaleProxy.h"
#include "ztsd-sim/timestampDaemonSimulator.h"

namespace {

constexpr const char* kGmId = "00-80-2F-AA-BB-CC-DD-EE";
constexpr const char* kUri = "/127.0.0.1:41234/ztsdwebs/resources/ztsd/timescales/00-80-2F-AA-BB-CC-DD-EE";
constexpr std::int64_t kOffset_ns = 2500000;
constexpr std::int64_t kRate_ppb = 120000;
constexpr std::uint32_t kSamples = 300;
constexpr std::uint32_t kIntervalMs = 20;


// b - a in ns, exactly enough for differences of seconds.
double differenceNs(const ztsdlib_Timestamp& a, const ztsdlib_Timestamp& b) {
    const long long seconds = static_cast<long long>(b.seconds) - static_cast<long long>(a.seconds);
    return static_cast<double>(seconds) * 1e9 + (static_cast<double>(b.nanos) - a.nanos);
}

void BM_CorrelatedTimeAgainstTheTruth(benchmark::State& state) {
    const auto delay_us = static_cast<std::uint32_t>(state.range(0));
    const auto jitter_us = static_cast<std::uint32_t>(state.range(1));
    ztsdsim::TimestampDaemonSimulator daemon;
    daemon.addTimescale(kGmId);
    daemon.setClock(kOffset_ns, kRate_ppb);
    daemon.setReplyDelay(delay_us, jitter_us);
    daemon.start();
    ztsdlib::HostTimescale host{ztsdlib::kHostTimescaleUri};
    ztsdlib::TimescaleProxy remoteA(kUri, "127.0.0.1", daemon.port());
    ztsdlib::TimescaleProxy remoteB(kUri, "127.0.0.1", daemon.port());
    using Sampling = ztsdlib::LinearCorrelator::Sampling;
    ztsdlib::LinearCorrelator sequential("/bench/sequential", host, remoteA, kIntervalMs, kSamples, 10000,
                                         Sampling::Sequential);
    ztsdlib::LinearCorrelator symmetric("/bench/symmetric", host, remoteB, kIntervalMs, kSamples, 10000,
                                        Sampling::Symmetric);
    double seqError = 0, symError = 0;
    ztsdlib_CorrelationQuality seqQ{}, symQ{};
    for (auto _ : state) {
        sequential.start();
        symmetric.start();
        // Fill (about 1 ms a sample), then one whole history at the interval.
        std::this_thread::sleep_for(std::chrono::milliseconds(kSamples * (1 + kIntervalMs) + 200));
        ztsdlib_Timestamp now{};
        host.getTime(now, nullptr);
        const ztsdlib_Timestamp truth = daemon.timeAt(now);
        seqError = differenceNs(truth, sequential.correlate(ztsdlib::kHostTimescaleUri, now));
        symError = differenceNs(truth, symmetric.correlate(ztsdlib::kHostTimescaleUri, now));
        seqQ = sequential.quality();
        symQ = symmetric.quality();
        sequential.stop();
        symmetric.stop();
    }
    state.counters["seq_error_ns"] = seqError;
    state.counters["sym_error_ns"] = symError;
    state.counters["seq_rate_err_ppb"] = seqQ.rate_ppb - kRate_ppb;
    state.counters["sym_rate_err_ppb"] = symQ.rate_ppb - kRate_ppb;
    state.counters["seq_rate_se_ppb"] = seqQ.slopeStdError_ppb;
    state.counters["sym_rate_se_ppb"] = symQ.slopeStdError_ppb;
    state.counters["seq_residual_ns"] = seqQ.residualStdDev_ns;
    state.counters["sym_residual_ns"] = symQ.residualStdDev_ns;
    state.counters["sym_dropped"] = static_cast<double>(symmetric.delayedRoundsDropped());
}
BENCHMARK(BM_CorrelatedTimeAgainstTheTruth)
    ->Args({0, 0})
    ->Args({100, 20})
    ->Iterations(1)
    ->Repetitions(3)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
