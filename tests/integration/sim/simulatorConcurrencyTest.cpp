// The simulator under parallel load: many kept-alive probes at once, controls
// changed while requests run, and the growing worker pool behind the server.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "integration/sim/simTestSupport.h"
#include "ztsd-sim/chassisSimulator.h"
#include "ztsd-sim/workerPool.h"

using simtest::elapsed_ms;
using simtest::member;
using simtest::waitFor;
using ztsdsim::ChassisSimulator;
using ztsdsim::Fault;

TEST(SimulatorConcurrency, ManyKeptAliveProbesInParallelAreAnsweredTogether) {
    constexpr int kDevices = 32;
    constexpr int kProbers = 96;
    constexpr int kRounds = 4;
    constexpr int kLatency_ms = 100;
    ChassisSimulator sim;
    sim.start();
    std::vector<std::string> paths;
    for (int d = 0; d < kDevices; ++d) {
        sim.addDevice("dev" + std::to_string(d));
        paths.push_back(sim.deviceResourcePath("dev" + std::to_string(d)));
    }
    Fault slow;
    slow.latency_ms = kLatency_ms;
    sim.setFault("", slow);

    std::atomic<int> answered{0};
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> probers;
    for (int p = 0; p < kProbers; ++p) {
        probers.emplace_back([&, p] {
            httplib::Client client("127.0.0.1", sim.port());
            client.set_keep_alive(true);
            client.set_tcp_nodelay(true);
            client.set_read_timeout(10, 0);
            for (int round = 0; round < kRounds; ++round) {
                const httplib::Result result = client.Get(paths[p % kDevices].c_str());
                if (!result || result->status != 200) continue;
                const simtest::Json document = simtest::parse(result->body);
                if (cJSON_IsTrue(member(member(document.get(), "result"), "isCoherent"))) ++answered;
            }
        });
    }
    for (std::thread& prober : probers) prober.join();
    const std::int64_t took_ms = elapsed_ms(start);

    EXPECT_EQ(answered.load(), kProbers * kRounds);
    // One after another this would take kProbers * kRounds * 100 ms = 38 s.
    EXPECT_LT(took_ms, kRounds * kLatency_ms * 10);
    EXPECT_EQ(sim.requestCount(), static_cast<std::uint64_t>(kProbers * kRounds));
    std::uint64_t gets = 0;
    for (int d = 0; d < kDevices; ++d) gets += sim.getCountOf("dev" + std::to_string(d));
    EXPECT_EQ(gets, static_cast<std::uint64_t>(kProbers * kRounds));
}

TEST(SimulatorConcurrency, ControlsChangedWhileRequestsRunKeepEveryCount) {
    ChassisSimulator sim;
    sim.start();
    sim.addDevice("a");
    sim.addDevice("b");
    const std::string pathA = sim.deviceResourcePath("a");
    const std::string pathB = sim.deviceResourcePath("b");
    std::atomic<bool> running{true};
    std::atomic<int> unexpected{0};
    std::atomic<int> exchanges{0};

    std::vector<std::thread> threads;
    for (int c = 0; c < 4; ++c) {
        threads.emplace_back([&, c] {
            httplib::Client client("127.0.0.1", sim.port());
            client.set_keep_alive(true);
            client.set_tcp_nodelay(true);
            int i = 0;
            while (running) {
                const std::string& path = (c + i) % 2 == 0 ? pathA : pathB;
                const httplib::Result result =
                    i % 3 == 0 ? client.Put(path.c_str(), "{\"i\":" + std::to_string(i) + "}", ztsdsim::kMediaType)
                               : client.Get(path.c_str());
                if (!result || (result->status != 200 && result->status != 503)) ++unexpected;
                ++exchanges;
                ++i;
            }
        });
    }
    // The controls run for as long as the requests do, at least 100 times each.
    std::atomic<std::uint32_t> losses{0};
    threads.emplace_back([&] {
        for (int i = 0; running || i < 100; ++i) {
            sim.addCoherencyLoss("a");
            ++losses;
            sim.setCoherent("b", i % 2 == 0);
        }
    });
    threads.emplace_back([&] {
        for (int i = 0; running || i < 100; ++i) {
            Fault unavailable;
            unavailable.httpStatus = 503;
            sim.setFault(i % 2 == 0 ? pathA : pathB, unavailable);
            sim.addCoherencyLoss("a", 2);
            losses += 2;
            sim.lastRequest();
            sim.clearFaults();
        }
    });
    ASSERT_TRUE(waitFor([&] { return exchanges.load() >= 400; }, 8000));
    running = false;
    for (std::thread& thread : threads) thread.join();

    EXPECT_EQ(unexpected.load(), 0);
    EXPECT_EQ(sim.coherencyLossCount("a"), losses.load());
    EXPECT_EQ(sim.requestCount(), static_cast<std::uint64_t>(exchanges.load()));
    EXPECT_EQ(sim.getCountOf("a") + sim.getCountOf("b") + sim.putCountOf("a") + sim.putCountOf("b"),
              static_cast<std::uint64_t>(exchanges.load()));
}

namespace {

// Jobs that block until the gate opens, counting how many have started.
struct Gate {
    std::mutex mutex;
    std::condition_variable opened;
    bool open = false;
    std::atomic<int> started{0};
    std::atomic<int> finished{0};

    std::function<void()> job() {
        return [this] {
            ++started;
            std::unique_lock<std::mutex> lock(mutex);
            opened.wait(lock, [this] { return open; });
            ++finished;
        };
    }
    void release() {
        {
            std::lock_guard<std::mutex> lock(mutex);
            open = true;
        }
        opened.notify_all();
    }
};

}  // namespace

TEST(WorkerPoolConcurrency, GrowsSoEveryBlockedJobRunsAtOnceUpToItsMaximum) {
    Gate gate;
    ztsdsim::WorkerPool pool(6);
    EXPECT_EQ(pool.threadCount(), 0u);
    for (int i = 0; i < 6; ++i) pool.enqueue(gate.job());
    ASSERT_TRUE(waitFor([&] { return gate.started.load() == 6; }));
    EXPECT_EQ(pool.threadCount(), 6u);

    // At the maximum, a seventh job waits for a free thread.
    pool.enqueue(gate.job());
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(gate.started.load(), 6);
    EXPECT_EQ(pool.threadCount(), 6u);

    gate.release();
    ASSERT_TRUE(waitFor([&] { return gate.finished.load() == 7; }));
    pool.shutdown();
    pool.shutdown();  // idempotent
}

TEST(WorkerPoolConcurrency, ShutdownRunsTheJobsStillQueuedBeforeJoining) {
    Gate gate;
    std::atomic<int> later{0};
    ztsdsim::WorkerPool pool(1);
    pool.enqueue(gate.job());
    ASSERT_TRUE(waitFor([&] { return gate.started.load() == 1; }));
    for (int i = 0; i < 3; ++i) pool.enqueue([&] { ++later; });
    std::thread releaser([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        gate.release();
    });
    pool.shutdown();
    releaser.join();
    EXPECT_EQ(gate.finished.load(), 1);
    EXPECT_EQ(later.load(), 3);
}
