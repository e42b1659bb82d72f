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

// The generated client on an open connection, making the call the proxy
// makes for the daemon's version.
class BareClient {
public:
    BareClient(std::uint16_t port, std::int32_t daemonVersion)
        : socket(std::make_shared<apache::thrift::transport::TSocket>("127.0.0.1", port)),
          transport(std::make_shared<apache::thrift::transport::TBufferedTransport>(socket)),
          client(std::make_shared<apache::thrift::protocol::TBinaryProtocol>(transport)),
          version(daemonVersion) {
        transport->open();
        socket->setRecvTimeout(5000);
        socket->setSendTimeout(5000);
    }
    ~BareClient() { transport->close(); }

    std::int64_t read() {
        if (version == 1) {
            client.getTime(stamp, 0);
            return stamp.seconds;
        }
        client.getTimeAndCurrentTimescales(info);
        return info.timestamp.seconds;
    }

private:
    std::shared_ptr<apache::thrift::transport::TSocket> socket;
    std::shared_ptr<apache::thrift::transport::TBufferedTransport> transport;
    tss::timestampServiceClient client;
    std::int32_t version;
    tss::TimeInfo info;
    tss::TimestampInfo stamp;
};

void bareClient(benchmark::State& state) {
    const auto version = static_cast<std::int32_t>(state.range(0));
    Daemon daemon(version);
    BareClient client(daemon.sim.port(), version);
    for (auto _ : state) benchmark::DoNotOptimize(client.read());
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
    BareClient client(daemon.sim.port(), version);
    ztsdlib::TimescaleProxy proxy(kUri, "127.0.0.1", daemon.sim.port());
    ztsdlib_Timestamp t{};
    proxy.getTime(t, nullptr);
    std::chrono::nanoseconds bare{0};
    std::chrono::nanoseconds viaProxy{0};
    for (auto _ : state) {
        const auto t0 = std::chrono::steady_clock::now();
        benchmark::DoNotOptimize(client.read());
        const auto t1 = std::chrono::steady_clock::now();
        proxy.getTime(t, nullptr);
        const auto t2 = std::chrono::steady_clock::now();
        bare += t1 - t0;
        viaProxy += t2 - t1;
        benchmark::DoNotOptimize(t.seconds);
    }
    state.counters["proxyOverBare"] = static_cast<double>(viaProxy.count()) / static_cast<double>(bare.count());
}

}  // namespace

// Argument: the daemon's API version (1: getTime, 2: getTimeAndCurrentTimescales).
BENCHMARK(bareClient)->Arg(1)->Arg(2)->Unit(benchmark::kMicrosecond);
BENCHMARK(timescaleProxy)->Arg(1)->Arg(2)->Unit(benchmark::kMicrosecond);
BENCHMARK(proxyOverBare)->Arg(1)->Arg(2)->Unit(benchmark::kMicrosecond);
