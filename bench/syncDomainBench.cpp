// Wall time of one isCoherentSinceLastChecked on domains of 1 to 1,024 members
// whose chassis each answer after an injected 20 ms, on a pool as large as the
// domain. The time beyond those 20 ms is what the fan-out costs (submitting,
// waking, HTTP on loopback) together with the serving of the chassis, which
// shares the machine's cores. Two kinds of chassis:
//  - BM_IsCoherentSinceLastChecked: the simulator (16 chassis at most, the
//    members spread over them). It serves every connection on a thread of its
//    own that, while idle, wakes every ~11 ms to poll its socket; with 256
//    connections on 2 cores that load competes with the library for the CPU.
//  - BM_IsCoherentSinceLastCheckedOnLeanChassis: stand-in chassis that cost
//    as little CPU as an HTTP server can (one event loop thread per chassis,
//    Boost.Beast, a timer for the latency, a fixed coherent device answer),
//    so that what remains is the library's fan-out and HTTP client.
//  - BM_BareCurlGetsOnLeanChassis: the baseline for the one above, in the
//    same run: the same N GETs sent at the same moment by N threads, each with
//    its own bare libcurl easy handle and kept-alive connection. The ratio of
//    the two medians is what the domain adds to N plain parallel GETs.
#include <benchmark/benchmark.h>

#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "remote/curlLibrary.h"
#include "syncdomain/libraryThreadPool.h"
#include "syncdomain/syncDomain.h"
#include "syncdomain/syncableDeviceProxy.h"
#include "time/hostTimescale.h"
#include "ztsd-sim/chassisSimulator.h"

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;

constexpr int kLatency_ms = 20;
constexpr int kMaxChassis = 16;

// One stand-in chassis: answers every request on a kept-alive connection
// after kLatency_ms with a coherent device whose "uri" is the request path.
class LeanChassis {
public:
    LeanChassis() : acceptor(io) {
        const tcp::endpoint endpoint(asio::ip::make_address("127.0.0.1"), 0);
        acceptor.open(endpoint.protocol());
        acceptor.bind(endpoint);
        acceptor.listen(asio::socket_base::max_listen_connections);
        port = acceptor.local_endpoint().port();
        accept();
        loop = std::thread([this] { io.run(); });
    }
    ~LeanChassis() {
        io.stop();
        loop.join();
    }
    std::string deviceUri(const std::string& name) const {
        return "/127.0.0.1:" + std::to_string(port) + "/ztsdwebs/resources/ztsd/syncableDevices/" + name;
    }

private:
    class Connection : public std::enable_shared_from_this<Connection> {
    public:
        explicit Connection(tcp::socket s) : socket(std::move(s)), delay(socket.get_executor()) {}
        void readRequest() {
            parser.emplace();
            http::async_read_header(socket, buffer, *parser,
                                    [self = shared_from_this()](beast::error_code ec, std::size_t) {
                                        if (!ec) self->continueIfAsked();
                                    });
        }

    private:
        // libcurl asks for "100 Continue" before it sends a PUT's body.
        void continueIfAsked() {
            if (!beast::iequals(parser->get()[http::field::expect], "100-continue")) return readBody();
            interim = {http::status::continue_, parser->get().version()};
            http::async_write(socket, interim, [self = shared_from_this()](beast::error_code ec, std::size_t) {
                if (!ec) self->readBody();
            });
        }
        void readBody() {
            http::async_read(socket, buffer, *parser, [self = shared_from_this()](beast::error_code ec, std::size_t) {
                if (!ec) self->answerLater();
            });
        }
        void answerLater() {
            delay.expires_after(std::chrono::milliseconds(kLatency_ms));
            delay.async_wait([self = shared_from_this()](beast::error_code ec) {
                if (!ec) self->answer();
            });
        }
        void answer() {
            const auto& request = parser->get();
            const std::string path(request.target());
            response = {http::status::ok, request.version()};
            response.set(http::field::content_type, ztsdsim::kMediaType);
            response.keep_alive(request.keep_alive());
            response.body() =
                "{\"error\":{\"success\":true,\"errorCode\":0,\"errorText\":\"\",\"errorInfo\":{}},"
                "\"result\":{\"version\":1,\"uri\":\"" + path +
                "\",\"isCoherent\":true,\"coherencyLossCount\":0,\"coherencyRequirements\":null}}";
            response.prepare_payload();
            http::async_write(socket, response, [self = shared_from_this()](beast::error_code ec, std::size_t) {
                if (!ec && self->response.keep_alive()) self->readRequest();
            });
        }

        tcp::socket socket;
        asio::steady_timer delay;
        beast::flat_buffer buffer;
        std::optional<http::request_parser<http::string_body>> parser;
        http::response<http::empty_body> interim;
        http::response<http::string_body> response;
    };

    void accept() {
        acceptor.async_accept([this](beast::error_code ec, tcp::socket socket) {
            if (!ec) {
                socket.set_option(tcp::no_delay(true));
                std::make_shared<Connection>(std::move(socket))->readRequest();
            }
            accept();
        });
    }

    asio::io_context io;
    tcp::acceptor acceptor;
    std::thread loop;

public:
    std::uint16_t port = 0;
};

std::size_t discardBody(char*, std::size_t size, std::size_t count, void*) { return size * count; }

// N threads, each with a bare libcurl handle for one URL, that each send one
// GET whenever round() is called; round() returns when all have answered.
class ParallelBareGets {
public:
    explicit ParallelBareGets(const std::vector<std::string>& urls) : api(zt::vela::shared::CurlApi::system()) {
        for (const std::string& url : urls) {
            CURL* handle = api->easy_init();
            if (!handle) throw std::runtime_error("curl_easy_init failed");
            api->easy_setopt(handle, CURLOPT_URL, url.c_str());
            api->easy_setopt(handle, CURLOPT_WRITEFUNCTION, &discardBody);
            api->easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
            handles.push_back(handle);
        }
        for (CURL* handle : handles) workers.emplace_back([this, handle] { serve(handle); });
    }
    ~ParallelBareGets() {
        {
            std::lock_guard<std::mutex> lock(mutex);
            stopping = true;
        }
        go.notify_all();
        for (auto& w : workers) w.join();
        for (CURL* handle : handles) api->easy_cleanup(handle);
    }
    void round() {
        std::unique_lock<std::mutex> lock(mutex);
        answered = 0;
        ++generation;
        go.notify_all();
        done.wait(lock, [this] { return answered == handles.size(); });
        if (failed) throw std::runtime_error("curl_easy_perform failed");
    }

private:
    void serve(CURL* handle) {
        std::uint64_t seen = 0;
        for (;;) {
            {
                std::unique_lock<std::mutex> lock(mutex);
                go.wait(lock, [&] { return stopping || generation != seen; });
                if (stopping) return;
                seen = generation;
            }
            const bool ok = api->easy_perform(handle) == CURLE_OK;
            std::lock_guard<std::mutex> lock(mutex);
            if (!ok) failed = true;
            if (++answered == handles.size()) done.notify_one();
        }
    }

    std::shared_ptr<const zt::vela::shared::CurlApi> api;
    std::vector<CURL*> handles;
    std::vector<std::thread> workers;
    std::mutex mutex;
    std::condition_variable go, done;
    std::uint64_t generation = 0;
    std::size_t answered = 0;
    bool failed = false;
    bool stopping = false;
};

// Times isCoherentSinceLastChecked on a started domain of one device per
// URI that deviceUri(m) gives for m = 0 .. members - 1.
void timeDomainChecks(benchmark::State& state, const std::function<std::string(int)>& deviceUri) {
    const int members = static_cast<int>(state.range(0));
    std::vector<std::unique_ptr<ztsdlib::SyncableDeviceProxy>> devices;
    for (int m = 0; m < members; ++m) devices.push_back(std::make_unique<ztsdlib::SyncableDeviceProxy>(deviceUri(m)));
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

int chassisFor(const benchmark::State& state) {
    return state.range(0) < kMaxChassis ? static_cast<int>(state.range(0)) : kMaxChassis;
}

void BM_IsCoherentSinceLastChecked(benchmark::State& state) {
    std::vector<std::unique_ptr<ztsdsim::ChassisSimulator>> sims;
    for (int s = 0; s < chassisFor(state); ++s) {
        sims.push_back(std::make_unique<ztsdsim::ChassisSimulator>());
        sims.back()->start();
        ztsdsim::Fault slow;
        slow.latency_ms = kLatency_ms;
        sims.back()->setFault("", slow);
    }
    timeDomainChecks(state, [&](int m) { return sims[m % sims.size()]->addDevice("chassis" + std::to_string(m)); });
}

void BM_IsCoherentSinceLastCheckedOnLeanChassis(benchmark::State& state) {
    std::vector<std::unique_ptr<LeanChassis>> chassis;
    for (int c = 0; c < chassisFor(state); ++c) chassis.push_back(std::make_unique<LeanChassis>());
    timeDomainChecks(state, [&](int m) { return chassis[m % chassis.size()]->deviceUri("chassis" + std::to_string(m)); });
}

void BM_BareCurlGetsOnLeanChassis(benchmark::State& state) {
    std::vector<std::unique_ptr<LeanChassis>> chassis;
    for (int c = 0; c < chassisFor(state); ++c) chassis.push_back(std::make_unique<LeanChassis>());
    std::vector<std::string> urls;
    for (int m = 0; m < state.range(0); ++m)
        urls.push_back("http://127.0.0.1:" + std::to_string(chassis[m % chassis.size()]->port) +
                       "/ztsdwebs/resources/ztsd/syncableDevices/chassis" + std::to_string(m));
    ParallelBareGets gets(urls);
    gets.round();  // connect outside the timing, as the domain's start does
    for (auto _ : state) gets.round();
    state.counters["members"] = static_cast<double>(state.range(0));
}

// Domains of 1, 16, 64, 256 and 1,024 members (a lab of a thousand
// chassis), wall time, median of 5 runs.
void domainSizes(benchmark::internal::Benchmark* b) {
    b->Arg(1)->Arg(16)->Arg(64)->Arg(256)->Arg(1024);
    b->Unit(benchmark::kMillisecond)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true)->MinTime(0.5);
}

}  // namespace

BENCHMARK(BM_IsCoherentSinceLastChecked)->Apply(domainSizes);
BENCHMARK(BM_IsCoherentSinceLastCheckedOnLeanChassis)->Apply(domainSizes);
BENCHMARK(BM_BareCurlGetsOnLeanChassis)->Apply(domainSizes);
