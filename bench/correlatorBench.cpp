// Costs on the correlation path. Targets (median CPU time, single thread):
//   addSample on a full history of 1000 samples     <= 500 ns
//   addSample and the fit after it (what a sampling round costs the
//     sampling task; the quality figures are not made there)   <= 1 us
//   LinearCorrelator::correlate on a full history   <= 500 ns, both samplings
//   LinearCorrelator::quality on a full history, its record made already
//     (cached until the next sample)                <= 1 us
//   the first quality after an add (the record made: the figures' roots and
//     one visit of the 1000 samples; no target, for comparison)
//   CachingCorrelator::correlate answered from cache <= 100 ns
#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <vector>

#include <chrono>
#include <thread>

#include "time/cachingCorrelator.h"
#include "time/hostTimescale.h"
#include "time/linearCorrelator.h"
#include "time/linearRegression.h"
#include "time/timestampDecimal.h"

namespace {

// Readings of two clocks 1 ms apart, the second 20 ppm fast and 2.5 s ahead.
std::vector<ztsdlib_Timestamp> readings(std::uint64_t start_s, int count, long long step_ns) {
    std::vector<ztsdlib_Timestamp> out;
    for (int i = 0; i < count; ++i) {
        const unsigned long long ns = static_cast<unsigned long long>(i) * step_ns + (i * 7919ULL) % 1000ULL;
        ztsdlib_Timestamp t{};
        t.seconds = start_s + ns / 1000000000ULL;
        t.nanos = static_cast<std::uint32_t>(ns % 1000000000ULL);
        out.push_back(t);
    }
    return out;
}

// A regression with a full history of 1000 samples and 4096 more readings
// to add (cycled), the second clock 20 ppm fast and 2 s ahead.
struct FullHistory {
    std::vector<ztsdlib::TimestampDecimal> x, y;
    ztsdlib::LinearRegression regression{1000};
    std::size_t next = 1000;

    FullHistory() {
        const auto first = readings(13400000000ULL, 4096, 1000000);
        const auto second = readings(13400000002ULL, 4096, 1000020);
        for (std::size_t i = 0; i < first.size(); ++i) {
            x.push_back(ztsdlib::toDecimal(first[i]));
            y.push_back(ztsdlib::toDecimal(second[i]));
        }
        for (int i = 0; i < 1000; ++i) regression.addSample(x[i], y[i]);
    }
    void addNext() {
        regression.addSample(x[next & 4095u], y[next & 4095u]);
        ++next;
    }
};

void BM_RegressionAddSampleOnFullHistory(benchmark::State& state) {
    FullHistory history;
    for (auto _ : state) history.addNext();
    benchmark::DoNotOptimize(history.regression.getHistorySize());
}
BENCHMARK(BM_RegressionAddSampleOnFullHistory)->Repetitions(9)->ReportAggregatesOnly(true);

// What one sampling round of the correlator costs on its own thread: the add
// and the fit it makes right after it (no target; for comparison).
void BM_RegressionAddSampleAndFitOnFullHistory(benchmark::State& state) {
    FullHistory history;
    for (auto _ : state) {
        history.addNext();
        history.regression.prepareCalculations();
    }
    benchmark::DoNotOptimize(history.regression.getHistorySize());
}
BENCHMARK(BM_RegressionAddSampleAndFitOnFullHistory)->Repetitions(9)->ReportAggregatesOnly(true);

void BM_RegressionAddSampleAndQualityOnFullHistory(benchmark::State& state) {
    FullHistory history;
    for (auto _ : state) {
        history.addNext();
        benchmark::DoNotOptimize(history.regression.quality().offsetBound_s);
    }
}
BENCHMARK(BM_RegressionAddSampleAndQualityOnFullHistory)->Repetitions(9)->ReportAggregatesOnly(true);

// A linear correlator between two host timescales with a full history of
// 1000 samples; the sampling task then sleeps for a minute, so the figures
// are those of correlate alone.
struct FullCorrelator {
    ztsdlib::HostTimescale first{ztsdlib::kHostTimescaleUri};
    ztsdlib::HostTimescale second{"/localhost/ztsds/timescales/second"};
    ztsdlib::LinearCorrelator linear;
    explicit FullCorrelator(ztsdlib::LinearCorrelator::Sampling sampling = ztsdlib::LinearCorrelator::Sampling::Sequential)
        : linear("/bench/linear", first, second, 60000, 1000, 10000, sampling) {
        linear.start();
        while (linear.historySize() < 1000) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
};

void BM_LinearCorrelatorCorrelateFirstToSecond(benchmark::State& state) {
    FullCorrelator c;
    ztsdlib_Timestamp now{};
    c.first.getTime(now, nullptr);
    for (auto _ : state) {
        const ztsdlib_Timestamp t = c.linear.correlate(ztsdlib::kHostTimescaleUri, now);
        benchmark::DoNotOptimize(t);
        now.nanos = (now.nanos + 100u) % 1000000000u;
    }
}
BENCHMARK(BM_LinearCorrelatorCorrelateFirstToSecond)->Repetitions(9)->ReportAggregatesOnly(true);

void BM_LinearCorrelatorCorrelateSecondToFirst(benchmark::State& state) {
    FullCorrelator c;
    ztsdlib_Timestamp now{};
    c.second.getTime(now, nullptr);
    for (auto _ : state) {
        const ztsdlib_Timestamp t = c.linear.correlate("/localhost/ztsds/timescales/second", now);
        benchmark::DoNotOptimize(t);
        now.nanos = (now.nanos + 100u) % 1000000000u;
    }
}
BENCHMARK(BM_LinearCorrelatorCorrelateSecondToFirst)->Repetitions(9)->ReportAggregatesOnly(true);

void BM_SymmetricCorrelatorCorrelateFirstToSecond(benchmark::State& state) {
    FullCorrelator c(ztsdlib::LinearCorrelator::Sampling::Symmetric);
    ztsdlib_Timestamp now{};
    c.first.getTime(now, nullptr);
    for (auto _ : state) {
        const ztsdlib_Timestamp t = c.linear.correlate(ztsdlib::kHostTimescaleUri, now);
        benchmark::DoNotOptimize(t);
        now.nanos = (now.nanos + 100u) % 1000000000u;
    }
}
BENCHMARK(BM_SymmetricCorrelatorCorrelateFirstToSecond)->Repetitions(9)->ReportAggregatesOnly(true);

void BM_LinearCorrelatorQuality(benchmark::State& state) {
    FullCorrelator c(ztsdlib::LinearCorrelator::Sampling::Symmetric);
    for (auto _ : state) {
        const ztsdlib_CorrelationQuality q = c.linear.quality();
        benchmark::DoNotOptimize(q);
    }
}
BENCHMARK(BM_LinearCorrelatorQuality)->Repetitions(9)->ReportAggregatesOnly(true);

void BM_LinearCorrelatorQualityV2(benchmark::State& state) {
    FullCorrelator c(ztsdlib::LinearCorrelator::Sampling::Symmetric);
    for (auto _ : state) {
        const ztsdlib_CorrelationQualityV2 q = c.linear.qualityV2();
        benchmark::DoNotOptimize(q);
    }
}
BENCHMARK(BM_LinearCorrelatorQualityV2)->Repetitions(9)->ReportAggregatesOnly(true);

void BM_CachingCorrelatorHit(benchmark::State& state) {
    FullCorrelator c;
    ztsdlib::CachingCorrelator caching("/bench/caching", c.linear);
    ztsdlib_Timestamp now{};
    c.first.getTime(now, nullptr);
    caching.correlate(ztsdlib::kHostTimescaleUri, now);
    for (auto _ : state) {
        const ztsdlib_Timestamp t = caching.correlate(ztsdlib::kHostTimescaleUri, now);
        benchmark::DoNotOptimize(t);
    }
}
BENCHMARK(BM_CachingCorrelatorHit)->Repetitions(9)->ReportAggregatesOnly(true);

}  // namespace
