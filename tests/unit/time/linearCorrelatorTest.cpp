// The linear correlator over test timescales that read in exact steps, so
// that every pair of readings lies on one known line.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <chrono>
#include <cstdlib>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "time/linearCorrelator.h"
#include "time/linearRegression.h"
#include "time/timestampDecimal.h"
#include "time/roundTripBracket.h"
#include "time/timestamp.h"
#include "unit/support/raisedError.h"
#include "unit/support/testTimescales.h"
#include "unit/support/timing.h"

using ztsdlib::LinearCorrelator;
using ztsdtest::captureRaise;
using ztsdtest::eventually;
using ztsdtest::msSince;
using ztsdtest::Raised;
using ztsdtest::SteppingTimescale;
using ztsdtest::timestampOfNanos;
using Clock = std::chrono::steady_clock;

namespace {

const std::string kFirstUri = "/chassis-a/ztsdwebs/resources/p/timescales/1";
const std::string kSecondUri = "/localhost/ztsds/timescales/system";

// A: 1 ms per reading from 10^7 s; B: 1.00005 ms per reading from 2 * 10^7 s
// (50 ppm fast). Pairs read in turn lie on B = 2e7 s + (A - 1e7 s) * 1.00005.
constexpr std::uint64_t kStartA_ns = 10000000ULL * 1000000000ULL;
constexpr std::uint64_t kStartB_ns = 20000000ULL * 1000000000ULL;

std::uint64_t lineB_ns(std::uint64_t a_ns) {
    const long long offset_ns = static_cast<long long>(a_ns) - static_cast<long long>(kStartA_ns);
    return static_cast<std::uint64_t>(static_cast<long long>(kStartB_ns) + offset_ns / 20000 * 20001);
}

struct Pair {
    SteppingTimescale a{kFirstUri, kStartA_ns, 1000000ULL};
    SteppingTimescale b{kSecondUri, kStartB_ns, 1000050ULL};
};

}  // namespace

TEST(LinearCorrelator, CorrelatesBothWaysAlongTheLineOfItsTimescales) {
    Pair clocks;
    LinearCorrelator correlator("/corr", clocks.a, clocks.b, 1, 20, 5000);
    correlator.start();
    EXPECT_TRUE(correlator.isRunning());
    // Readings that are whole multiples of 20 us map to whole nanoseconds.
    for (std::uint64_t a_ns : std::initializer_list<std::uint64_t>{kStartA_ns, kStartA_ns + 40000ULL, kStartA_ns + 7200000000000ULL,
                               kStartA_ns - 3600000000000ULL}) {
        const ztsdlib_Timestamp b = correlator.correlate(kFirstUri, timestampOfNanos(a_ns));
        EXPECT_TRUE(ztsdlib::sameTimestamp(b, timestampOfNanos(lineB_ns(a_ns)))) << a_ns;
        const ztsdlib_Timestamp a = correlator.correlate(kSecondUri, timestampOfNanos(lineB_ns(a_ns)));
        EXPECT_TRUE(ztsdlib::sameTimestamp(a, timestampOfNanos(a_ns))) << a_ns;
    }
    // The first correlate waited for the full history.
    EXPECT_GE(correlator.historySize(), 20u);
    // Results are truncated, never rounded, to the nanosecond: 1 ns of B is
    // 0.99995 ns of A.
    const ztsdlib_Timestamp a = correlator.correlate(kSecondUri, timestampOfNanos(lineB_ns(kStartA_ns) + 1));
    EXPECT_TRUE(ztsdlib::sameTimestamp(a, timestampOfNanos(kStartA_ns)));
    correlator.stop();
    EXPECT_FALSE(correlator.isRunning());
}

TEST(LinearCorrelator, RefusesAForeignSourceACorrelateWhileStoppedABadHistoryBoundAndASecondStart) {
    Pair clocks;
    LinearCorrelator correlator("/corr", clocks.a, clocks.b, 1, 5, 1000);

    // A foreign source is reported before the stopped state.
    auto foreign = captureRaise([&] { correlator.correlate("/other", timestampOfNanos(1)); });
    ztsdtest::expectReport(foreign, -52005, R"({"message":"Source timescale does not match either timescale in the correlator."})");
    // A prefix of a URI is not the URI.
    EXPECT_EQ(captureRaise([&] { correlator.correlate(kFirstUri.substr(0, 10), timestampOfNanos(1)); }).code, -52005);

    for (const std::string& source : {kFirstUri, kSecondUri}) {
        auto stopped = captureRaise([&] { correlator.correlate(source, timestampOfNanos(1)); });
        ztsdtest::expectReport(stopped, -52017, R"({"message":"Correlator must be started before calling correlate."})");
    }

    LinearCorrelator tooShort("/short", clocks.a, clocks.b, 1, 1, 10);
    EXPECT_EQ(captureRaise([&] { tooShort.start(); }).message(), "Max history size needs to be >= 2.");
    EXPECT_FALSE(tooShort.isRunning());
    EXPECT_EQ(clocks.a.reads.load(), 0u);  // nothing was read so far

    correlator.start();
    auto twice = captureRaise([&] { correlator.start(); });
    ztsdtest::expectReport(twice, -52016, R"({"message":"LinearCorrelator thread already started."})");
    EXPECT_TRUE(correlator.isRunning());
    correlator.stop();
    correlator.stop();  // stopping a stopped correlator changes nothing
    EXPECT_FALSE(correlator.isRunning());
}

TEST(LinearCorrelatorConcurrency, ClocksThatDoNotMoveAddNothingAndOnlyTheFirstCorrelatesWaitTogether) {
    // One clock stands still (after its first reading, which differs from
    // the all-zero reading the task starts from and so gives one sample), or
    // both read zero throughout (no sample at all). Six first correlates
    // from their own threads wait on the one timer and all give up with it.
    for (int still = 0; still < 3; ++still) {
        Pair clocks;
        const std::uint64_t expectedHistory = still == 2 ? 0 : 1;
        if (still == 0) clocks.a.frozenAfter = 0;
        if (still == 1) clocks.b.frozenAfter = 0;
        SteppingTimescale zeroA(kFirstUri, 0, 0), zeroB(kSecondUri, 0, 0);
        LinearCorrelator correlator("/corr", still == 2 ? zeroA : clocks.a, still == 2 ? zeroB : clocks.b, 7, 10, 150);
        const auto begin = Clock::now();  // the wait counts from start
        correlator.start();
        std::vector<Raised> first(6);
        ztsdtest::FanOut(6, [&](int i) {
            first[i] = captureRaise([&] { correlator.correlate(kFirstUri, timestampOfNanos(kStartA_ns)); });
        }).join();
        const auto waited = msSince(begin);
        EXPECT_GE(waited, 150);
        EXPECT_LT(waited, 3000);
        for (const Raised& r : first) {
            EXPECT_EQ(r.code, -52010);
            EXPECT_EQ(r.number("historySizeAfterCheck"), static_cast<double>(expectedHistory));
        }
        EXPECT_EQ(first[0].message(),
                  "Correlator does not have enough data points even after waiting for the appropriates sampling "
                  "intervals.");
        EXPECT_EQ(first[0].number("samplingInterval_ms"), 7.0);
        // Sampling went on all the while, at the fill rate.
        EXPECT_GT((still == 2 ? zeroB : clocks.b).reads.load(), 10u);

        // The timer latched: the next call fails at once.
        const auto again = Clock::now();
        EXPECT_EQ(captureRaise([&] { correlator.correlate(kSecondUri, timestampOfNanos(kStartB_ns)); }).code, -52010);
        EXPECT_LT(msSince(again), 100);
        EXPECT_EQ(correlator.historySize(), expectedHistory);
        correlator.stop();
    }
}

// maxSampleSize 2: the first correlate returns once two samples exist, long
// before its wait would end.
TEST(LinearCorrelator, FirstCorrelateGoesOnAsSoonAsTheHistoryIsFull) {
    Pair clocks;
    LinearCorrelator correlator("/corr", clocks.a, clocks.b, 60000, 2, 60000);
    correlator.start();
    const auto begin = Clock::now();
    const ztsdlib_Timestamp b = correlator.correlate(kFirstUri, timestampOfNanos(kStartA_ns + 20000));
    EXPECT_LT(msSince(begin), 2000);
    EXPECT_TRUE(ztsdlib::sameTimestamp(b, timestampOfNanos(lineB_ns(kStartA_ns + 20000))));
    EXPECT_EQ(correlator.historySize(), 2u);
    correlator.stop();
}

TEST(LinearCorrelator, ARestartBeginsWithAFreshHistoryAndAFreshFirstCorrelateWait) {
    Pair clocks;
    LinearCorrelator correlator("/corr", clocks.a, clocks.b, 1, 30, 200);
    correlator.start();
    ASSERT_TRUE(eventually([&] { return correlator.historySize() >= 30; }));
    correlator.stop();
    EXPECT_EQ(correlator.historySize(), 30u);  // kept until the next start

    // Both clocks stand still from now on: the new run gets one sample (its
    // first round) and nothing of the old history.
    clocks.a.frozenAfter = static_cast<long long>(clocks.a.reads.load());
    clocks.b.frozenAfter = static_cast<long long>(clocks.b.reads.load());
    const auto begin = Clock::now();
    correlator.start();
    ASSERT_TRUE(eventually([&] { return correlator.historySize() >= 1; }));
    auto report = captureRaise([&] { correlator.correlate(kFirstUri, timestampOfNanos(kStartA_ns)); });
    EXPECT_GE(msSince(begin), 200);  // the wait (counted from start) starts over with each start
    EXPECT_EQ(report.code, -52010);
    EXPECT_EQ(report.number("historySizeAfterCheck"), 1.0);
    correlator.stop();
}

TEST(LinearCorrelator, StopWakesTheSamplingTaskInsteadOfWaitingOutTheInterval) {
    Pair clocks;
    LinearCorrelator correlator("/corr", clocks.a, clocks.b, 600000, 3, 5000);
    correlator.start();
    ASSERT_TRUE(eventually([&] { return correlator.historySize() >= 3; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // now in the 10-minute pause
    const std::uint64_t reads = clocks.a.reads.load();
    const auto begin = Clock::now();
    correlator.stop();
    EXPECT_LT(msSince(begin), 1000);
    EXPECT_EQ(clocks.a.reads.load(), reads);

    // The destructor stops a running correlator the same way.
    auto another = std::make_unique<LinearCorrelator>("/corr2", clocks.a, clocks.b, 600000, 2, 5000);
    another->start();
    ASSERT_TRUE(eventually([&] { return another->historySize() >= 2; }));
    const auto destroyed = Clock::now();
    another.reset();
    EXPECT_LT(msSince(destroyed), 1000);
    const std::uint64_t afterDestruction = clocks.a.reads.load();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(clocks.a.reads.load(), afterDestruction);
}

TEST(LinearCorrelator, AFailingTimescaleEndsSamplingAndStopReportsWhy) {
    using Failure = SteppingTimescale::Failure;
    const struct {
        Failure failure;
        std::int32_t code;
        const char* message;
    } cases[] = {{Failure::Throw, -52024, "the test timescale failed"},
                 {Failure::Status, -52020, "the test timescale reported an error"},
                 {Failure::BadNanos, -52005, "Nano seconds field greater than 1e+9"}};
    for (const auto& c : cases) {
        Pair clocks;
        clocks.b.failure = c.failure;
        clocks.b.failFrom = 4;
        LinearCorrelator correlator("/corr", clocks.a, clocks.b, 1, 100, 100);
        correlator.start();
        ASSERT_TRUE(eventually([&] { return clocks.b.reads.load() >= 5; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_EQ(clocks.b.reads.load(), 5u);  // sampling ended at the failure
        EXPECT_EQ(correlator.historySize(), 4u);
        EXPECT_TRUE(correlator.isRunning());   // until stop()
        // What was sampled is still used once the wait has run out.
        const ztsdlib_Timestamp b = correlator.correlate(kFirstUri, timestampOfNanos(kStartA_ns + 20000));
        EXPECT_TRUE(ztsdlib::sameTimestamp(b, timestampOfNanos(lineB_ns(kStartA_ns + 20000))));

        auto why = captureRaise([&] { correlator.stop(); });
        ztsdtest::expectReport(why, c.code, std::string(R"({"message":")") + c.message + "\"}");
        EXPECT_FALSE(correlator.isRunning());
        EXPECT_NO_THROW(correlator.stop());  // reported once
        clocks.b.failFrom = -1;
        correlator.start();  // and it can run again
        EXPECT_TRUE(correlator.isRunning());
        correlator.stop();
    }
}

TEST(LinearCorrelator, DescribesItselfOnOneLineWithTheUrisAsTheyStand) {
    SteppingTimescale a("/a\"b", 1, 1), b("/c\\d", 1, 1);
    LinearCorrelator correlator("/corr/1", a, b, 1000, 2, 4294967295u);
    EXPECT_EQ(correlator.toJson(),
              "{ \"type\" : \"linear\", \"uri\" : \"/corr/1\", \"timescaleUri1\" : \"/a\"b\", "
              "\"timescaleUri2\" : \"/c\\d\", \"samplingIntervalMs\" : 1000, \"maxSampleSize\" : 2, "
              "\"maxWaitForFirstCorrelateMs\" : 4294967295, \"isThreadRunning\" : false }");
    correlator.start();
    EXPECT_NE(correlator.toJson().find("\"isThreadRunning\" : true }"), std::string::npos);
    correlator.stop();
}

// Real threads on one correlator, for both samplings: its sampling task
// (which publishes a quality record after every sample), three callers and a
// controlling thread that stops and starts it. Every quality record a caller
// gets is whole: the fit of one history of 2 to 16 samples on the clocks'
// line (rate and slope agree, no residual). With sequential sampling every
// other call is a correlate, which must lie exactly on that line. Between a
// stop and a start (-52017), or before two samples (-52010), calls refuse
// instead. Run under ThreadSanitizer as well.
TEST(LinearCorrelatorConcurrency, CallersGetWholeRecordsAndExactAnswersWhileSamplingAndThroughStartStopCycles) {
    using Sampling = LinearCorrelator::Sampling;
    // The symmetric sampling reads A twice per B reading, so its line has
    // half the slope.
    const std::pair<Sampling, double> cases[] = {{Sampling::Sequential, 50000.0}, {Sampling::Symmetric, -499975000.0}};
    for (const auto& [sampling, rate_ppb] : cases) {
        const bool sequential = sampling == Sampling::Sequential;
        SCOPED_TRACE(sequential ? "sequential" : "symmetric");
        Pair clocks;
        LinearCorrelator correlator("/corr", clocks.a, clocks.b, 1, 16, 300, sampling);
        correlator.start();
        std::atomic<bool> done{false};
        std::atomic<int> records{0}, answered{0}, wrong{0};
        ztsdtest::FanOut callers(3, [&, rate = rate_ppb](int c) {
            for (std::uint64_t k = static_cast<std::uint64_t>(c); !done.load(); ++k) {
                const std::uint64_t a_ns = kStartA_ns + (k % 5000) * 20000ULL;
                try {
                    if (sequential && k % 2 == 0) {
                        const bool forward = k % 4 == 0;
                        const ztsdlib_Timestamp got = forward ? correlator.correlate(kFirstUri, timestampOfNanos(a_ns))
                                                              : correlator.correlate(kSecondUri, timestampOfNanos(lineB_ns(a_ns)));
                        if (!ztsdlib::sameTimestamp(got, timestampOfNanos(forward ? lineB_ns(a_ns) : a_ns))) wrong.fetch_add(1);
                        answered.fetch_add(1);
                        continue;
                    }
                    const ztsdlib_CorrelationQuality q = correlator.quality();
                    const bool whole = q.sampleCount >= 2 && q.sampleCount <= 16 &&
                                       std::abs(q.rate_ppb - rate) < 1e-3 &&
                                       std::abs((q.slope - 1) * 1e9 - q.rate_ppb) < 1e-3 && q.residualStdDev_ns < 1;
                    if (!whole) wrong.fetch_add(1);
                    records.fetch_add(1);
                } catch (const zterr::Exception& e) {
                    if (e.code() != -52017 && e.code() != -52010) wrong.fetch_add(1);
                }
            }
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(60));
        for (int cycle = 0; cycle < 8; ++cycle) {
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
        callers.join();
        correlator.stop();
        EXPECT_EQ(wrong.load(), 0);
        EXPECT_GT(records.load(), 10);
        if (sequential) {
            EXPECT_GT(answered.load(), 100);
            // Both timescales were read in step: every sample lay on the line.
            EXPECT_EQ(clocks.a.reads.load(), clocks.b.reads.load());
        }
    }
}

namespace {

// Two clocks joined by a scripted link: one virtual time T (ns) moves only
// when the link is used. The host reads T; a remote reading first spends
// out_ns (plus coldOut_ns when it opens a round: an idle peer) on the way
// there, reads remote(T) = offset + T + (T - T0) / 20000 (50 ppm fast), then
// spends back_ns (plus slowBack_ns in every slowEvery-th round, a delayed
// reply) on the way back. A round is readsPerRound remote readings.
struct ScriptedLink {
    static constexpr std::uint64_t kT0 = 13000000000ULL * 1000000000ULL;
    static constexpr std::uint64_t kOffset_ns = 2500000;  // 2.5 ms ahead
    std::uint64_t out_ns, back_ns, slowBack_ns, slowEvery, coldOut_ns, readsPerRound;
    std::mutex mutex;
    std::uint64_t t = kT0;
    std::uint64_t remoteReads = 0;

    static std::uint64_t remoteAt(std::uint64_t host_ns) { return kOffset_ns + host_ns + (host_ns - kT0) / 20000; }

    struct Clock : ztsdlib::TimescaleInterface {
        Clock(ScriptedLink& l, std::string u, bool r) : link(l), uri(std::move(u)), remote(r) {}
        const std::string& getUri() const override { return uri; }
        std::string toJson() const override { return "{}"; }
        void getTime(ztsdlib_Timestamp& timestamp, zterr_Status*) override {
            std::lock_guard<std::mutex> lock(link.mutex);
            if (!remote) {
                timestamp = timestampOfNanos(link.t);
                return;
            }
            const std::uint64_t round = link.remoteReads / link.readsPerRound;
            const std::uint64_t started = link.t;
            link.t += link.out_ns + (link.remoteReads % link.readsPerRound == 0 ? link.coldOut_ns : 0);
            timestamp = timestampOfNanos(remoteAt(link.t));
            ++link.remoteReads;
            link.t += link.back_ns + (link.slowEvery && round % link.slowEvery == link.slowEvery - 1 ? link.slowBack_ns : 0);
            // The scripted round trip takes at least as long on the host's
            // steady clock, which times the sequential sampling's rounds
            // (waited out, since a sleep shorter than a millisecond may not
            // sleep at all on Windows).
            const auto until = std::chrono::steady_clock::now() + std::chrono::nanoseconds(link.t - started);
            while (std::chrono::steady_clock::now() < until) std::this_thread::yield();
        }
        ScriptedLink& link;
        std::string uri;
        bool remote;
    };
    Clock host{*this, kSecondUri, false};
    Clock chassis{*this, kFirstUri, true};
};

}  // namespace

// The pairing against known answers. Delays are multiples of 20 us so that
// every remote reading lies exactly on its line. The default sampling pairs
// a host reading with a remote one taken out_ns later, so its answers run
// out_ns (of host time) late; the symmetric one pairs the remote reading
// with the middle of the round trip, out_ns + back_ns long, so its answers
// are off by (out_ns - back_ns) / 2: nothing on a symmetric link. A slow
// first outward leg of each round (an idle peer) is left out by the
// symmetric round's narrowest exchange; the default sampling has it in every
// pair.
TEST(LinearCorrelator, SymmetricSamplingPairsTheRemoteReadingWithTheMiddleOfTheRoundTrip) {
    using Sampling = LinearCorrelator::Sampling;
    struct Case {
        Sampling sampling;
        std::uint64_t out_ns, back_ns, slowBack_ns, slowEvery, coldOut_ns;
        long long error_ns;  // host time by which the answer is late
        bool drops;          // delayed replies were dropped
    };
    const Case cases[] = {
        {Sampling::Symmetric, 40000, 40000, 0, 0, 0, 0, false},
        {Sampling::Symmetric, 80000, 20000, 0, 0, 0, 30000, false},
        {Sampling::Symmetric, 0, 100000, 0, 0, 0, -50000, false},
        // Every 6th round's replies are held 2 ms: dropped, or they would bend the line.
        {Sampling::Symmetric, 40000, 40000, 2000000, 6, 0, 0, true},
        {Sampling::Symmetric, 40000, 40000, 0, 0, 60000, 0, false},
        {Sampling::Sequential, 40000, 40000, 0, 0, 0, 40000, false},
        {Sampling::Sequential, 80000, 20000, 0, 0, 0, 80000, false},
        {Sampling::Sequential, 40000, 40000, 0, 0, 60000, 100000, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE("out " + std::to_string(c.out_ns) + " back " + std::to_string(c.back_ns) + " slow " +
                     std::to_string(c.slowBack_ns) + " cold " + std::to_string(c.coldOut_ns) +
                     (c.sampling == Sampling::Symmetric ? " symmetric" : " sequential"));
        const std::uint64_t readsPerRound = c.sampling == Sampling::Symmetric ? LinearCorrelator::kExchangesPerRound : 1;
        ScriptedLink link{c.out_ns, c.back_ns, c.slowBack_ns, c.slowEvery, c.coldOut_ns, readsPerRound};
        LinearCorrelator correlator("/corr", link.host, link.chassis, 1, 24, 5000, c.sampling);
        correlator.start();
        for (std::uint64_t h : std::initializer_list<std::uint64_t>{ScriptedLink::kT0 + 1000000000ULL, ScriptedLink::kT0 + 3600000000000ULL}) {
            const ztsdlib_Timestamp got = correlator.correlate(kSecondUri, timestampOfNanos(h));
            const std::uint64_t expected = ScriptedLink::remoteAt(h + c.error_ns);
            const long long miss_ns = static_cast<long long>(ztsdtest::nanosOf(got) - expected);
            EXPECT_LE(std::llabs(miss_ns), 1) << h << ": off by " << miss_ns << " ns";
        }
        const ztsdlib_CorrelationQuality q = correlator.quality();
        EXPECT_NEAR(q.rate_ppb, 50000.0, 1e-3);
        EXPECT_LT(q.residualStdDev_ns, 1.0);
        // The symmetric sampling bounds its offset by half its narrowest
        // kept round trip (out + back; a slow or cold leg only widens it),
        // which covers the error of the asymmetry. The sequential one times
        // its round trips on the steady clock (at least the scripted out +
        // cold + back) and bounds its offset, late by the outward delay, by
        // about the whole narrowest one.
        const ztsdlib_CorrelationQualityV2 v2 = correlator.qualityV2();
        EXPECT_GE(v2.offsetBound_ns, std::fabs(c.error_ns * 1.00005));
        if (c.sampling == Sampling::Symmetric) {
            const double halfTrip_ns = (c.out_ns + c.back_ns) / 2.0;
            EXPECT_LE(v2.offsetBound_ns, halfTrip_ns * 1.001 + 110);
            EXPECT_NEAR(v2.narrowestHalfRoundTrip_ns, halfTrip_ns * 1.001 + 101.1, 1);
        } else {
            const double halfTrip_ns = (c.out_ns + c.coldOut_ns + c.back_ns) / 2.0;
            EXPECT_GE(v2.narrowestHalfRoundTrip_ns, halfTrip_ns * 1.001 + 101);
            EXPECT_GE(v2.offsetBound_ns, 2 * v2.narrowestHalfRoundTrip_ns - 205);
        }
        EXPECT_LE(std::fabs(v2.rateBound_ppb), 1e9);
        correlator.stop();
        EXPECT_EQ(correlator.delayedRoundsDropped() > 0, c.drops) << correlator.delayedRoundsDropped();
    }
}

// The caller's quality record is the regression's figures in the record's
// units, field by field. B reads 1.00005 ms per step with +-1 us of
// alternating noise, so every window of 16 samples has the same scatter,
// uncertainties and span whichever reading it starts at; a regression fed 16
// of the same pairs gives the figures to expect.
TEST(LinearCorrelator, QualityRecordIsTheRegressionsFiguresInTheRecordsUnits) {
    struct Noisy : ztsdlib::TimescaleInterface {
        explicit Noisy(std::string u) : uri(std::move(u)) {}
        const std::string& getUri() const override { return uri; }
        std::string toJson() const override { return "{}"; }
        void getTime(ztsdlib_Timestamp& timestamp, zterr_Status*) override { timestamp = timestampOfNanos(at(reads++)); }
        static std::uint64_t at(std::uint64_t k) { return kStartB_ns + k * 1000050ULL + (k % 2 ? 1000 : 0); }
        std::string uri;
        std::atomic<std::uint64_t> reads{0};
    };
    SteppingTimescale a{kFirstUri, kStartA_ns, 1000000ULL};
    Noisy b{kSecondUri};
    ztsdlib::LinearRegression expected(16);
    for (std::uint64_t k = 0; k < 16; ++k)
        expected.addSample(ztsdlib::toDecimal(timestampOfNanos(kStartA_ns + k * 1000000ULL)),
                           ztsdlib::toDecimal(timestampOfNanos(Noisy::at(k))));
    expected.prepareCalculations();
    const ztsdlib::LinearRegression::Quality& want = expected.quality();

    LinearCorrelator correlator("/corr", a, b, 1, 16, 5000);
    correlator.start();
    (void)correlator.correlate(kFirstUri, timestampOfNanos(kStartA_ns));  // waits for the full history
    // Stopped first, so both records below describe one and the same history.
    correlator.stop();
    const ztsdlib_CorrelationQuality got = correlator.quality();
    EXPECT_EQ(got.sampleCount, 16u);
    EXPECT_DOUBLE_EQ(got.span_ns, static_cast<double>(want.span_s * 1000000000));
    EXPECT_DOUBLE_EQ(got.residualStdDev_ns, static_cast<double>(want.residualStdDev_s * 1000000000));
    EXPECT_DOUBLE_EQ(got.slopeStdError_ppb, static_cast<double>(want.slopeStdError * 1000000000));
    EXPECT_DOUBLE_EQ(got.offsetStdError_ns, static_cast<double>(want.offsetStdError_s * 1000000000));
    EXPECT_GT(got.residualStdDev_ns, 400.0);  // the noise is there to be measured
    EXPECT_GT(got.offsetStdError_ns, 100.0);
    // The second record: made once for this history and kept, equal to the
    // one a fresh regression gives.
    const ztsdlib_CorrelationQualityV2 v2 = correlator.qualityV2();
    EXPECT_EQ(v2.size, sizeof v2);
    EXPECT_EQ(std::memcmp(&v2.quality, &got, sizeof got), 0);
    EXPECT_DOUBLE_EQ(v2.residualLag1Correlation, want.residualLag1Correlation);
    EXPECT_LT(v2.residualLag1Correlation, -0.9);  // the alternating noise
    EXPECT_DOUBLE_EQ(v2.effectiveSampleCount, want.effectiveSampleCount);
    // The sequential sampling states bounds (from round trips timed on the
    // steady clock, unknown here), which the corrected errors then include.
    EXPECT_TRUE(std::isfinite(v2.offsetBound_ns) && std::isfinite(v2.rateBound_ppb));
    EXPECT_GE(v2.offsetStdErrorCorrected_ns, (v2.offsetBound_ns - 1) / std::sqrt(3.0));
    // The newest sample's A reading: one of A's steps, past the first window.
    const std::uint64_t newest_ns = ztsdtest::nanosOf(v2.newestTimescale1);
    EXPECT_EQ((newest_ns - kStartA_ns) % 1000000ULL, 0u);
    EXPECT_GE(newest_ns, kStartA_ns + 15000000ULL);
}

// The rule for delayed replies: a bracket over 3 times the median of the
// last 15 and over 20 us above it is refused; nothing is refused before 5
// brackets were seen; refused brackets still enter the window.
TEST(LinearCorrelator, BracketFilterDropsOnlyRoundsFarWiderThanTheRecentMedian) {
    struct Case {
        const char* name;
        std::vector<std::int64_t> brackets;
        std::vector<bool> kept;
    };
    const Case cases[] = {
        {"too early to judge", {50000, 50000, 1000000, 50000}, {true, true, true, true}},
        {"a delayed reply", {50000, 52000, 49000, 51000, 50000, 150001, 1000000, 150000}, {true, true, true, true, true, false, false, true}},
        {"wide but within the margin", {2000, 2000, 2000, 2000, 2000, 21999, 22001}, {true, true, true, true, true, true, false}},
        {"a lasting slow-down is learnt",
         {10000, 10000, 10000, 10000, 10000, 90000, 90000, 90000, 90000, 90000, 90000, 90000, 90000},
         {true, true, true, true, true, false, false, false, false, false, false, true, true}},
    };
    for (const Case& c : cases) {
        ztsdlib::BracketFilter filter;
        std::vector<bool> kept;
        for (std::int64_t b : c.brackets) kept.push_back(filter.accept(b));
        EXPECT_EQ(kept, c.kept) << c.name;
    }
}

// A first correlate belongs to the run it found. A stop ends its wait at
// once with -52017. And while another thread stops and starts the correlator
// every 20 ms (maxWaitForFirstCorrelateMs 100, a history that never fills
// within a run), callers on four threads each end within their own wait: an
// exact answer, -52010, or -52017 when their run was stopped.
TEST(LinearCorrelatorConcurrency, AFirstCorrelateWaitsOnItsOwnRunsClockAndEndsWithItsRun) {
    const long long slack_ms = ztsdtest::kSanitizedBuild ? 700 : 250;
    {
        Pair clocks;
        clocks.a.frozenAfter = 0;  // one sample, never two: the wait would run its full 5 s
        LinearCorrelator correlator("/corr", clocks.a, clocks.b, 1, 100, 5000);
        correlator.start();
        const auto begin = Clock::now();
        std::thread stopper([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            correlator.stop();
        });
        const Raised ended = captureRaise([&] { correlator.correlate(kFirstUri, timestampOfNanos(kStartA_ns)); });
        stopper.join();
        EXPECT_EQ(ended.code, -52017) << ended.json;
        EXPECT_LT(msSince(begin), 50 + slack_ms);
    }
    Pair clocks;
    LinearCorrelator correlator("/corr", clocks.a, clocks.b, 1, 1000, 100);
    correlator.start();
    std::atomic<bool> done{false};
    std::atomic<long long> longest_ms{0};
    std::atomic<int> waited{0}, wrong{0};
    ztsdtest::FanOut callers(4, [&](int) {
        while (!done.load()) {
            const auto begin = Clock::now();
            try {
                const auto got = correlator.correlate(kFirstUri, timestampOfNanos(kStartA_ns + 20000));
                if (!ztsdlib::sameTimestamp(got, timestampOfNanos(lineB_ns(kStartA_ns + 20000)))) ++wrong;
            } catch (const zterr::Exception& e) {
                if (e.code() != -52017 && e.code() != -52010) ++wrong;
            }
            const long long took_ms = msSince(begin);
            if (took_ms >= 5) ++waited;
            long long seen = longest_ms.load();
            while (took_ms > seen && !longest_ms.compare_exchange_weak(seen, took_ms)) {
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    for (int cycle = 0; cycle < 75; ++cycle) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        correlator.stop();
        correlator.start();
    }
    done = true;
    callers.join();
    correlator.stop();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_GT(waited.load(), 10);  // calls did wait within runs
    EXPECT_LT(longest_ms.load(), 100 + slack_ms);
}
