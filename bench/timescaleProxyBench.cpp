// A reading of a remote timescale through TimescaleProxy, against the bare
// generated client making the same call on an already open connection to
// the same simulated daemon, in the same run. The proxy's cost on top of
// the round trip (the lock, the URI check, the timestamp check) should stay
// within 1.2x of the bare call.
#include <benchmark/benchmark.h>

#include <chrono>
#include <memory>

#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>

#include "timestampservice/timescaleProxy.h"
#include "timestampservice/timestampService.h"
#include "ztsd-sim/timestampDaemonSimulator.h"

namespace {

namespace tss = ztsdlib::timestampservice;
constexpr const char* kGmId = "00-80-2F-AA-BB-CC-DD-EE";
constexpr const char* kUri = "/127.0.0.1:41234/ztsdwebs/resources/ztsd/timescales/00-80-2F-AA-BB-CC-DD-EE";

struct Daemon {
    ztsdsim::TimestampDaemonSimulator sim;
    explicit Daemon(std::int32_t version) {
        sim.addTimescale(kGmId);
        sim.setClock(2500000000, 50000);
        sim.setApiVersion(version);
        sim.start();
    }
};

void bareClient(benchmark::State& state) {
    const auto version = static_cast<std::int32_t>(state.range(0));
    Daemon daemon(version);
    auto socket = std::make_shared<apache::thrift::transport::TSocket>("127.0.0.1", daemon.sim.port());
    auto transport = std::make_shared<apache::thrift::transport::TBufferedTransport>(socket);
    tss::timestampServiceClient client(std::make_shared<apache::thrift::protocol::TBinaryProtocol>(transport));
    transport->open();
    socket->setRecvTimeout(5000);
    socket->setSendTimeout(5000);
    tss::TimeInfo info;
    tss::TimestampInfo stamp;
    for (auto _ : state) {
        if (version == 1) {
            client.getTime(stamp, 0);
            benchmark::DoNotOptimize(stamp.seconds);
        } else {
            client.getTimeAndCurrentTimescales(info);
            benchmark::DoNotOptimize(info.timestamp.seconds);
        }
    }
    transport->close();
}

void timescaleProxy(benchmark::State& state) {
    Daemon daemon(static_cast<std::int32_t>(state.range(0)));
    ztsdlib::TimescaleProxy proxy(kUri, "127.0.0.1", daemon.sim.port());
    ztsdlib_Timestamp t{};
    proxy.getTime(t, nullptr);  // opens the connection the readings reuse
    for (auto _ : state) {
        proxy.getTime(t, nullptr);
        benchmark::DoNotOptimize(t.seconds);
    }
}

// Both in turns, one of each per iteration, so that drifts of a busy host
// fall on both alike; the counter "proxyOverBare" is the ratio of their
// summed times.
void proxyOverBare(benchmark::State& state) {
    const auto version = static_cast<std::int32_t>(state.range(0));
    Daemon daemon(version);
    auto socket = std::make_shared<apache::thrift::transport::TSocket>("127.0.0.1", daemon.sim.port());
    auto transport = std::make_shared<apache::thrift::transport::TBufferedTransport>(socket);
    tss::timestampServiceClient client(std::make_shared<apache::thrift::protocol::TBinaryProtocol>(transport));
    transport->open();
    ztsdlib::TimescaleProxy proxy(kUri, "127.0.0.1", daemon.sim.port());
    ztsdlib_Timestamp t{};
    proxy.getTime(t, nullptr);
    tss::TimeInfo info;
    tss::TimestampInfo stamp;
    std::chrono::nanoseconds bare{0};
    std::chrono::nanoseconds viaProxy{0};
    for (auto _ : state) {
        const auto t0 = std::chrono::steady_clock::now();
        if (version == 1) {
            client.getTime(stamp, 0);
        } else {
            client.getTimeAndCurrentTimescales(info);
        }
        const auto t1 = std::chrono::steady_clock::now();
        proxy.getTime(t, nullptr);
        const auto t2 = std::chrono::steady_clock::now();
        bare += t1 - t0;
        viaProxy += t2 - t1;
        benchmark::DoNotOptimize(t.seconds);
    }
    state.counters["proxyOverBare"] = static_cast<double>(viaProxy.count()) / static_cast<double>(bare.count());
    transport->close();
}

}  // namespace

// Argument: the daemon's API version (1: getTime, 2: getTimeAndCurrentTimescales).
BENCHMARK(bareClient)->Arg(1)->Arg(2)->Unit(benchmark::kMicrosecond);
BENCHMARK(timescaleProxy)->Arg(1)->Arg(2)->Unit(benchmark::kMicrosecond);
BENCHMARK(proxyOverBare)->Arg(1)->Arg(2)->Unit(benchmark::kMicrosecond);
