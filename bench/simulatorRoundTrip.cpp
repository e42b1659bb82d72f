// What one answer of the chassis simulator costs, alone and with many
// kept-alive probes at once, so that benchmarks of sync domains against it
// can tell the simulator's share from the library's.
#include <benchmark/benchmark.h>
#include <httplib.h>

#include <memory>
#include <string>
#include <vector>

#include "ztsd-sim/chassisSimulator.h"

namespace {

constexpr int kDevices = 8;

// One simulator for the whole program, started on first use.
ztsdsim::ChassisSimulator& simulator() {
    static const std::unique_ptr<ztsdsim::ChassisSimulator> sim = [] {
        auto started = std::make_unique<ztsdsim::ChassisSimulator>();
        started->start();
        for (int d = 0; d < kDevices; ++d) started->addDevice("dev" + std::to_string(d));
        return started;
    }();
    return *sim;
}

// One GET of a device resource per iteration over a kept-alive connection;
// with Threads(n), n probes run at once, each on its own connection.
void BM_DeviceGet(benchmark::State& state) {
    ztsdsim::ChassisSimulator& sim = simulator();
    const std::string path = sim.deviceResourcePath("dev" + std::to_string(state.thread_index() % kDevices));
    httplib::Client client("127.0.0.1", sim.port());
    client.set_keep_alive(true);
    client.set_tcp_nodelay(true);
    for (auto _ : state) {
        const httplib::Result result = client.Get(path.c_str());
        if (!result || result->status != 200) {
            state.SkipWithError("the simulator did not answer 200");
            break;
        }
        benchmark::DoNotOptimize(result->body.data());
    }
}
BENCHMARK(BM_DeviceGet)->UseRealTime()->Threads(1)->Threads(16)->Threads(64)->Threads(256);

// A PUT of a requirements document and its answer.
void BM_DevicePut(benchmark::State& state) {
    ztsdsim::ChassisSimulator& sim = simulator();
    const std::string path = sim.deviceResourcePath("dev0");
    const std::string document =
        "{\"version\":1,\"syncDomainUri\":\"/domain\",\"coherencyRequirements\":{\"requiredTimescaleUri\":"
        "\"/h/ztsdwebs/resources/ztsd/timescales/00-80-2F-AA\",\"maxOffset_ns\":1000,\"minSyncDuration_ms\":50},"
        "\"data\":{}}";
    httplib::Client client("127.0.0.1", sim.port());
    client.set_keep_alive(true);
    client.set_tcp_nodelay(true);
    for (auto _ : state) {
        const httplib::Result result = client.Put(path.c_str(), document, ztsdsim::kMediaType);
        if (!result || result->status != 200) {
            state.SkipWithError("the simulator did not answer 200");
            break;
        }
    }
}
BENCHMARK(BM_DevicePut)->UseRealTime();

}  // namespace
