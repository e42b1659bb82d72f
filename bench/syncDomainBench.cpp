// Wall time of one isCoherentSinceLastChecked on domains of 1 to 256 members
// whose chassis each answer after an injected 20 ms, on a pool as large as the
// domain. The time beyond those 20 ms is what the fan-out costs (submitting,
// waking, HTTP on loopback) together with the simulator's own serving, which
// shares the machine's cores; syncDomainLeanChassisBench measures the same
// against stand-in chassis that cost next to nothing to serve.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "syncdomain/libraryThreadPool.h"
#include "syncdomain/syncDomain.h"
#include "syncdomain/syncableDeviceProxy.h"
#include "time/hostTimescale.h"
#include "ztsd-sim/chassisSimulator.h"

namespace {

constexpr int kLatency_ms = 20;

void BM_IsCoherentSinceLastChecked(benchmark::State& state) {
    const int members = static_cast<int>(state.range(0));
    const int servers = members < 16 ? members : 16;
    std::vector<std::unique_ptr<ztsdsim::ChassisSimulator>> sims;
    for (int s = 0; s < servers; ++s) {
        sims.push_back(std::make_unique<ztsdsim::ChassisSimulator>());
        sims.back()->start();
        ztsdsim::Fault slow;
        slow.latency_ms = kLatency_ms;
        sims.back()->setFault("", slow);
    }
    std::vector<std::unique_ptr<ztsdlib::SyncableDeviceProxy>> devices;
    for (int m = 0; m < members; ++m) {
        const std::string uri = sims[m % servers]->addDevice("chassis" + std::to_string(m));
        devices.push_back(std::make_unique<ztsdlib::SyncableDeviceProxy>(uri));
    }
    ztsdlib::HostTimescale timescale("/localhost/ztsds/timescales/system");
    ztsdlib::LibraryThreadPool pool(static_cast<std::uint32_t>(members));
    ztsdlib::SyncDomain domain("/domains/bench", timescale, 1000, 100, &pool);
    for (auto& d : devices) domain.addSyncableDevice(d.get());
    domain.start(30);

    for (auto _ : state) {
        benchmark::DoNotOptimize(domain.isCoherentSinceLastChecked());
    }
    state.counters["members"] = members;
}

}  // namespace

BENCHMARK(BM_IsCoherentSinceLastChecked)
    ->Arg(1)->Arg(16)->Arg(64)->Arg(256)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Repetitions(5)
    ->ReportAggregatesOnly(true)
    ->MinTime(0.5);
