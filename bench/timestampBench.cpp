// Round trip of a timestamp through the exact decimal and back, as every
// sample and every correlation does it: the library's conversions, and the
// literal text-based conversions they must equal, for comparison.
// Target: the library's round trip at most 250 ns (median).
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "time/timestampDecimal.h"
#include "../tests/unit/support/literalTimestampConversion.h"

namespace {

// Host-clock-like readings (1601 epoch, 100 ns steps) and a few negatives.
std::vector<ztsdlib_Timestamp> sampleRecords() {
    std::vector<ztsdlib_Timestamp> records;
    std::uint64_t state = 0x9E3779B97F4A7C15ULL;
    for (int i = 0; i < 256; ++i) {
        state = state * 6364136223846793005ULL + 1442695040888963407ULL;
        ztsdlib_Timestamp t{};
        t.seconds = 13400000000ULL + (state >> 40);
        t.nanos = static_cast<std::uint32_t>((state >> 8) % 10000000u) * 100u;
        t.isNegative = (i % 16) == 0;
        records.push_back(t);
    }
    return records;
}

void BM_TimestampRoundTrip(benchmark::State& state) {
    const auto records = sampleRecords();
    std::size_t i = 0;
    for (auto _ : state) {
        const ztsdlib_Timestamp back = ztsdlib::toTimestamp(ztsdlib::toDecimal(records[i++ & 255u]));
        benchmark::DoNotOptimize(back);
    }
}
BENCHMARK(BM_TimestampRoundTrip)->Repetitions(9)->ReportAggregatesOnly(true);

void BM_TimestampRoundTripLiteral(benchmark::State& state) {
    const auto records = sampleRecords();
    std::size_t i = 0;
    for (auto _ : state) {
        const ztsdlib_Timestamp back =
            ztsdtest::literalToTimestamp(ztsdtest::literalToDecimal(records[i++ & 255u]));
        benchmark::DoNotOptimize(back);
    }
}
BENCHMARK(BM_TimestampRoundTripLiteral)->Repetitions(9)->ReportAggregatesOnly(true);

// A correlation result: a quotient with digits down to the last limb.
void BM_TimestampFromQuotient(benchmark::State& state) {
    const auto records = sampleRecords();
    std::vector<ztsdlib::TimestampDecimal> values;
    for (const auto& r : records) values.push_back(ztsdlib::toDecimal(r) / ztsdlib::TimestampDecimal(7));
    std::size_t i = 0;
    for (auto _ : state) {
        const ztsdlib_Timestamp t = ztsdlib::toTimestamp(values[i++ & 255u]);
        benchmark::DoNotOptimize(t);
    }
}
BENCHMARK(BM_TimestampFromQuotient)->Repetitions(9)->ReportAggregatesOnly(true);

}  // namespace
