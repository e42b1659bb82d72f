// A GET of a device resource through CurlResourceManagerProxy against the
// simulated chassis on loopback, compared with a bare libcurl easy-handle GET
// of the same URL with connection reuse. Target: the proxy takes at most 1.3
// times as long as the bare GET. BM_ProxyToBareRatio alternates the two in
// the same run and reports the ratio; it fails the run when the target is
// missed.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "remote/curlLibrary.h"
#include "remote/curlResourceManagerProxy.h"
#include "ztsd-sim/chassisSimulator.h"

namespace {

constexpr double kTargetRatio = 1.3;

struct Chassis {
    ztsdsim::ChassisSimulator sim;
    std::string host;
    std::string path;
    std::string url;
    Chassis() {
        sim.start();
        sim.addDevice("chassis0");
        host = sim.remoteHost();
        path = sim.deviceResourcePath("chassis0");
        url = "http://" + host + path;
    }
};

Chassis& chassis() {
    static Chassis instance;
    return instance;
}

double median(std::vector<double> values) {
    if (values.empty()) return 0.0;
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

std::size_t appendBody(char* data, std::size_t size, std::size_t count, void* userdata) {
    static_cast<std::string*>(userdata)->append(data, size * count);
    return size * count;
}

// A bare libcurl GET of one URL on one kept easy handle.
class BareGet {
public:
    explicit BareGet(const std::string& url) : api_(zt::vela::shared::CurlApi::system()), handle_(api_->easy_init()) {
        if (!handle_) throw std::runtime_error("curl_easy_init failed");
        api_->easy_setopt(handle_, CURLOPT_URL, url.c_str());
        api_->easy_setopt(handle_, CURLOPT_WRITEFUNCTION, &appendBody);
        api_->easy_setopt(handle_, CURLOPT_WRITEDATA, static_cast<void*>(&body_));
        api_->easy_setopt(handle_, CURLOPT_NOSIGNAL, 1L);
    }
    ~BareGet() { api_->easy_cleanup(handle_); }
    const std::string& get() {
        body_.clear();
        if (api_->easy_perform(handle_) != CURLE_OK) throw std::runtime_error("curl_easy_perform failed");
        return body_;
    }

private:
    std::shared_ptr<const zt::vela::shared::CurlApi> api_;
    CURL* handle_;
    std::string body_;
};

void BM_BareCurlGet(benchmark::State& state) {
    BareGet bare(chassis().url);
    for (auto _ : state) benchmark::DoNotOptimize(bare.get().size());
}
BENCHMARK(BM_BareCurlGet)->Unit(benchmark::kMicrosecond);

void BM_ProxyGetDevice(benchmark::State& state) {
    zt::syncdomain::CurlResourceManagerProxy proxy(chassis().host);
    for (auto _ : state) benchmark::DoNotOptimize(proxy.getResource(chassis().path).size());
}
BENCHMARK(BM_ProxyGetDevice)->Unit(benchmark::kMicrosecond);

// Each iteration opens a fresh connection for each side (untimed), then
// times kPairs bare GETs and kPairs proxy GETs one by one, interleaved, the
// order flipping from pair to pair; the ratio is that of the medians over the
// whole run. The simulator serves each connection on a thread of its own, and
// on a loaded machine one such thread can be slow for as long as it lives:
// new connections every iteration spread that over both sides, interleaving
// spreads bursts of load, and the medians ignore spikes.
void BM_ProxyToBareRatio(benchmark::State& state) {
    constexpr int kPairs = 20;
    using Clock = std::chrono::steady_clock;
    auto timed = [](auto&& get) {
        const auto t0 = Clock::now();
        benchmark::DoNotOptimize(get().size());
        return std::chrono::duration<double, std::micro>(Clock::now() - t0).count();
    };
    std::vector<double> bare_us, proxy_us;
    std::optional<BareGet> bare;
    std::optional<zt::syncdomain::CurlResourceManagerProxy> proxy;
    for (auto _ : state) {
        state.PauseTiming();
        bare.reset();
        proxy.reset();
        bare.emplace(chassis().url);
        proxy.emplace(chassis().host);
        bare->get();
        proxy->getResource(chassis().path);
        state.ResumeTiming();
        auto bareGet = [&]() -> const std::string& { return bare->get(); };
        auto proxyGet = [&] { return proxy->getResource(chassis().path); };
        for (int i = 0; i < kPairs; ++i) {
            if (i % 2 == 0) {
                bare_us.push_back(timed(bareGet));
                proxy_us.push_back(timed(proxyGet));
            } else {
                proxy_us.push_back(timed(proxyGet));
                bare_us.push_back(timed(bareGet));
            }
        }
    }
    const double bareMedian = median(bare_us);
    const double proxyMedian = median(proxy_us);
    const double ratio = proxyMedian / bareMedian;
    state.counters["bare_median_us"] = bareMedian;
    state.counters["proxy_median_us"] = proxyMedian;
    state.counters["ratio"] = ratio;
    if (ratio > kTargetRatio) {
        std::fprintf(stderr, "proxy GET %.1f us, bare GET %.1f us: ratio %.3f above %.1f\n", proxyMedian, bareMedian,
                     ratio, kTargetRatio);
        state.SkipWithError("proxy GET slower than 1.3 x bare libcurl GET");
    }
}
BENCHMARK(BM_ProxyToBareRatio)->Unit(benchmark::kMillisecond)->MinTime(2.0);

}  // namespace
