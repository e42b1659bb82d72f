// Real threads on one LinearCorrelator: its sampling task, several callers
// of correlate and a controlling thread that starts and stops it. Run under
// ThreadSanitizer as well.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "time/linearCorrelator.h"
#include "time/timestamp.h"
#include "unit/support/testTimescales.h"

using ztsdlib::LinearCorrelator;
using ztsdtest::SteppingTimescale;
using ztsdtest::timestampOfNanos;

namespace {

constexpr std::uint64_t kStartA_ns = 5000000ULL * 1000000000ULL;
constexpr std::uint64_t kStartB_ns = 7000000ULL * 1000000000ULL;

// B runs 50 ppm slow: B = B0 + (A - A0) * 0.99995.
std::uint64_t lineB_ns(std::uint64_t a_ns) { return kStartB_ns + (a_ns - kStartA_ns) / 20000ULL * 19999ULL; }

}  // namespace

TEST(LinearCorrelatorConcurrency, CorrelatesFromManyThreadsWhileSamplingAndThroughStartStopCycles) {
    SteppingTimescale a("/a", kStartA_ns, 1000000ULL), b("/b", kStartB_ns, 999950ULL);
    LinearCorrelator correlator("/corr", a, b, 2, 16, 300);
    correlator.start();

    constexpr int kCallers = 4;
    std::atomic<bool> done{false};
    std::atomic<int> answered{0}, refusedWhileStopped{0}, tooFewSamples{0};
    std::vector<std::string> wrong[kCallers];
    std::vector<std::thread> callers;
    for (int c = 0; c < kCallers; ++c) {
        callers.emplace_back([&, c] {
            std::uint64_t k = static_cast<std::uint64_t>(c);
            while (!done.load()) {
                const std::uint64_t a_ns = kStartA_ns + (k++ % 5000) * 20000ULL;
                const bool forward = k % 2 == 0;
                try {
                    const ztsdlib_Timestamp got = forward ? correlator.correlate("/a", timestampOfNanos(a_ns))
                                                          : correlator.correlate("/b", timestampOfNanos(lineB_ns(a_ns)));
                    const std::uint64_t expected = forward ? lineB_ns(a_ns) : a_ns;
                    if (!ztsdlib::sameTimestamp(got, timestampOfNanos(expected)) && wrong[c].size() < 5)
                        wrong[c].push_back(std::to_string(a_ns) + (forward ? " forward" : " backward"));
                    answered.fetch_add(1);
                } catch (const zterr::Exception& e) {
                    // Between a stop and the next start, or at a start with
                    // fewer than two samples yet: refusals, never wrong answers.
                    if (e.code() == -52017)
                        refusedWhileStopped.fetch_add(1);
                    else if (e.code() == -52010)
                        tooFewSamples.fetch_add(1);
                    else if (wrong[c].size() < 5)
                        wrong[c].push_back(std::string("unexpected error ") + e.what());
                }
            }
        });
    }

    // The controlling thread: let them run, then cycle stop/start.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    for (int cycle = 0; cycle < 10; ++cycle) {
        correlator.stop();
        EXPECT_FALSE(correlator.isRunning());
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        correlator.start();
        EXPECT_TRUE(correlator.isRunning());
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        (void)correlator.toJson();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    done = true;
    for (auto& t : callers) t.join();
    correlator.stop();

    for (int c = 0; c < kCallers; ++c) {
        for (const auto& w : wrong[c]) ADD_FAILURE() << "caller " << c << ": " << w;
    }
    EXPECT_GT(answered.load(), 100);
    // Both timescales were read in step: every sample lay on the line.
    EXPECT_EQ(a.reads.load(), b.reads.load());
}

TEST(LinearCorrelatorConcurrency, ManyFirstCorrelatesWaitTogetherAndAllGiveUpAtTheTimeOut) {
    SteppingTimescale a("/a", kStartA_ns, 1000000ULL), b("/b", kStartB_ns, 999950ULL);
    b.frozenAfter = 0;  // B never moves: one sample only
    LinearCorrelator correlator("/corr", a, b, 1, 8, 150);
    // The first-correlate timer starts inside start(), so the wait is
    // measured from before it.
    const auto begin = std::chrono::steady_clock::now();
    correlator.start();
    std::atomic<int> refused{0};
    std::vector<std::thread> callers;
    for (int c = 0; c < 6; ++c) {
        callers.emplace_back([&] {
            try {
                correlator.correlate("/a", timestampOfNanos(kStartA_ns));
            } catch (const zterr::Exception& e) {
                if (e.code() == -52010) refused.fetch_add(1);
            }
        });
    }
    for (auto& t : callers) t.join();
    const auto waited =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin).count();
    EXPECT_EQ(refused.load(), 6);
    EXPECT_GE(waited, 150);
    EXPECT_LT(waited, 5000);
    correlator.stop();
}
