// Cost of reporting an error: setError and three appends (a string, a
// signed 32-bit number, a bool) on a fresh status record that allocates with
// the library's default callback. Each iteration starts from an empty record
// and releases its buffer at the end, so the figure includes the one 512-byte
// allocation that a first error costs. Target: at most 1 us (median).
#include <benchmark/benchmark.h>

#include "errors/errorCodes.h"
#include "errors/jsonWriter.h"
#include "errors/status.h"

namespace {

void BM_SetErrorAndThreeAppends(benchmark::State& state) {
    const zterr_ErrorSite site = ZTERR_SITE("source\\ztsdlib\\linearCorrelator", zterr::name::ztapalerr_osFault);
    for (auto _ : state) {
        zterr_Status status = zterr::makeOwnedStatus();
        zterr::setError(&status, zterr::code::ztapalerr_osFault, site);
        zterr_JsonCursor cursor = zterr::beginAppend(&status);
        char* p = zterr::appendString(cursor.position, "message", "Invalid denominator in correlator calculation",
                                      &cursor);
        p = zterr::appendInt32(p, "historySizeAfterCheck", 1000, &cursor);
        p = zterr::appendBool(p, "isThreadRunning", true, &cursor);
        benchmark::DoNotOptimize(p);
        benchmark::DoNotOptimize(status.json);
        zterr::releaseStatus(&status);
    }
}
BENCHMARK(BM_SetErrorAndThreeAppends)->Repetitions(9)->ReportAggregatesOnly(true);

}  // namespace
