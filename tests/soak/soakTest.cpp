// The soak: the library under random network faults for a bounded time
// (60 s unless ZTSD_SOAK_SECONDS says otherwise), from several threads at
// once, against real simulators on 127.0.0.1.
//
// Threads:
//  - domain: a sync domain over every simulated chassis, on the library's own
//    pool, started, checked (isCoherent, isCoherentSinceLastChecked, toJson)
//    and now and then stopped and started again;
//  - devices: isCoherent and toJson on a second proxy of each chassis' device;
//  - two readers: the remote timescale's time through the exports;
//  - correlator: a linear correlator of the host clock and that remote
//    timescale, started, asked and stopped over and over;
//  - faults: a seeded random choice of the fault matrix's rows (faultMatrix.h)
//    put on one chassis or on the daemon, held, cleared, paused.
// Every call must give 0 or a code the matrix promises for a fault that was
// active on what the call talks to while it ran (from the start of the
// correlator's run for correlate and stop, since a fault that ended the
// sampling leaves its mark until the next start); every error report must
// pass the strict JSON validator.
//
// Flatness: after a warm-up phase (a fifth of the time, at most 10 s) and at
// the end, the worker threads are joined, the faults cleared, one call of
// each kind made (so every proxy holds its connection), and after a
// settling pause the process's open descriptors (/proc/self/fd), threads
// (/proc/self/task) and resident memory (/proc/self/statm) are measured. The
// end may exceed the warm-up by at most 4 descriptors, 2 threads and 8 MiB.
// The simulated web services' worker pools grow with demand and never
// shrink, so each is capped (kSimulatorWorkers) and filled to its cap before
// the warm-up; the daemon's threads end with their connections.
//
// The rows left out: those that stop a simulator (the restarts are the
// matrix test's business), those that need a daemon of version 1 at the
// proxy's creation, and the listing rows (nothing here loads a chassis).
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <thrift/TOutput.h>

#include "integration/reliability/faultMatrix.h"
#include "json/jsonz.h"
#include "unit/support/processProbe.h"
#include "unit/support/timing.h"
#include "ztsd-sim/chassisSimulator.h"
#include "ztsd-sim/timestampDaemonSimulator.h"
#include "ztsdlib/ztsdlib.h"

namespace {

using faultmatrix::FaultRow;
using faultmatrix::Op;
using Clock = std::chrono::steady_clock;

constexpr int kChassis = 3;
constexpr std::size_t kSimulatorWorkers = 16;
constexpr unsigned kRequestTimeout_ms = 400;
constexpr std::uint32_t kSocketTimeout_ms = 300;
constexpr const char* kGmId = "00-80-2F-00-00-00-00-00";
constexpr const char* kDomainUri = "/localhost/ztsd/syncDomains/soak";

// Allowed growth from the warm-up to the end.
constexpr long kFdSlack = 4;
constexpr long kThreadSlack = 2;
constexpr long kRssSlack_kib = 8 * 1024;

int soakSeconds() {
    const char* text = std::getenv("ZTSD_SOAK_SECONDS");
    const int seconds = text ? std::atoi(text) : 60;
    return seconds > 0 ? seconds : 60;
}

struct Footprint {
    long fds = 0;
    long threads = 0;
    long rss_kib = 0;
};

Footprint measure() {
    Footprint f;
    f.fds = ztsdtest::openDescriptors();
    f.threads = ztsdtest::countEntries("/proc/self/task");
    std::ifstream statm("/proc/self/statm");
    long size = 0, resident = 0;
    statm >> size >> resident;
    f.rss_kib = resident * (::sysconf(_SC_PAGESIZE) / 1024);
    return f;
}

// Which fault was active when: event k is the k-th change, holding the row
// put on (or none) and where (a chassis index, or -1 for the daemon).
class FaultHistory {
public:
    struct State {
        const FaultRow* row = nullptr;
        int chassis = -1;
        Clock::time_point at{};
    };
    FaultHistory() { states.push_back(State{}); }

    std::size_t now() const {
        std::lock_guard<std::mutex> lock(mutex);
        return states.size() - 1;
    }
    void change(State state) {
        std::lock_guard<std::mutex> lock(mutex);
        state.at = Clock::now();
        states.push_back(state);
    }
    // The last few changes before event `index`, for a failure's message.
    std::string describeBefore(std::size_t index) const {
        std::lock_guard<std::mutex> lock(mutex);
        std::string text;
        const auto now = Clock::now();
        for (std::size_t i = index > 4 ? index - 4 : 1; i <= index && i < states.size(); ++i) {
            const auto ago = std::chrono::duration_cast<std::chrono::milliseconds>(now - states[i].at).count();
            text += (states[i].row ? states[i].row->id : std::string("cleared")) + " " + std::to_string(ago) +
                    " ms ago; ";
        }
        return text;
    }
    std::vector<State> between(std::size_t first, std::size_t last) const {
        std::lock_guard<std::mutex> lock(mutex);
        return std::vector<State>(states.begin() + static_cast<std::ptrdiff_t>(first),
                                  states.begin() + static_cast<std::ptrdiff_t>(last) + 1);
    }

private:
    mutable std::mutex mutex;
    std::vector<State> states;
};

class Soak {
public:
    explicit Soak(unsigned seed) : seed(seed) {
        for (int i = 0; i < kChassis; ++i) {
            ztsdsim::SimulatorOptions options;
            options.maxWorkers = kSimulatorWorkers;
            sims.push_back(std::make_unique<ztsdsim::ChassisSimulator>("ztsd", options));
            sims.back()->start();
            names.push_back("chassis" + std::to_string(i));
            sims.back()->addDevice(names.back());
        }
        daemon.addTimescale(kGmId);
        daemon.start();
        for (const FaultRow& row : faultmatrix::rows()) {
            const bool restarts = row.injection == "webStopped" || row.injection == "daemonStopped";
            const bool listing = row.injection.rfind("listing", 0) == 0;
            if (!restarts && !listing && row.daemonVersionAtCreation() == 2) eligible.push_back(&row);
        }
        makeObjects();
    }

    ~Soak() {
        objects.reset();
        for (auto& s : sims) s->stop();
        daemon.stop();
    }

    // Grows each web service's worker pool to its cap: that many silent
    // connections at once each take a worker.
    void fillSimulatorPools() {
        std::vector<int> sockets;
        for (auto& sim : sims) {
            for (std::size_t i = 0; i < kSimulatorWorkers; ++i) {
                const int fd = remotetest::connectLoopback(sim->port());
                if (fd >= 0) sockets.push_back(fd);
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        for (int fd : sockets) ::close(fd);
    }

    // Runs every worker for `seconds`, then joins them and clears the faults.
    void phase(double seconds) {
        stopping = false;
        const auto end = Clock::now() + std::chrono::milliseconds(static_cast<long>(seconds * 1000));
        void (Soak::*const loops[])() = {&Soak::domainLoop, &Soak::deviceLoop,     &Soak::readerLoop,
                                         &Soak::readerLoop, &Soak::correlatorLoop, &Soak::faultLoop};
        ztsdtest::FanOut workers(6, [this, &loops](int i) { (this->*loops[i])(); });
        while (Clock::now() < end && failureList().size() < 20) std::this_thread::sleep_for(std::chrono::milliseconds(20));
        stopping = true;
        workers.join();
    }

    // Brings every client to the same state before a measurement: the faults
    // are cleared (the fault thread ends with a clear), one call of each kind
    // succeeds (so every proxy holds its one connection), and released
    // requests and closed connections get time to end on the servers' side.
    void settle() {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        zterr_Status status = freshStatus();
        ztsdlib_SyncDomain_stop(domain, &status);
        ztsdlib_SyncDomain_start(domain, 5, &status);
        ztsdlib_SyncDomain_stop(domain, &status);
        for (ztsdlib_SyncableDevice* device : queryDevices) {
            std::uint32_t losses = 0;
            ztsdlib_SyncableDevice_isCoherent(device, &losses, &status);
        }
        ztsdlib_Timestamp t{};
        ztsdlib_Timescale_getTime(remote, &t, &status);
        if (status.code != 0) fail(std::string("calls after clearing the faults: ") + (status.json ? status.json : ""));
        if (status.reallocate) status.reallocate(&status, 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
    }

    std::vector<std::string> failureList() const {
        std::lock_guard<std::mutex> lock(failureMutex);
        return failureTexts;
    }

    const unsigned seed;
    // Faults put on, calls made, and calls that failed with a promised code.
    std::atomic<std::uint64_t> injected{0}, calls{0}, faulted{0};

private:
    // The domain's members, then a second proxy of each device for the device thread.
    void makeObjects() {
        zterr_Status status = freshStatus();
        const std::string remoteUri = "/" + sims[0]->remoteHost() + "/ztsdwebs/resources/ztsd/timescales/" + kGmId;
        objects->makeCorrelator("/localhost/ztsd/correlators/soak", remoteUri, daemon.host(), daemon.port(),
                                kSocketTimeout_ms, 8, 1000, &status);
        std::vector<std::string> uris;
        for (auto& sim : sims) uris.push_back(sim->deviceUris().front());
        objects->makeDomain(kDomainUri, kChassis, uris, kRequestTimeout_ms, &status);
        for (const std::string& uri : uris) queryDevices.push_back(objects->device(uri, kRequestTimeout_ms));
        if (status.code != 0) throw std::runtime_error(std::string("soak set-up: ") + (status.json ? status.json : ""));
        if (status.reallocate) status.reallocate(&status, 0);
    }

    // ---- checking one call ----

    // Whether a fault at `state` reaches a call of `op` aimed at `chassis`
    // (-1: every chassis, as a domain asks them all).
    static bool reaches(const FaultHistory::State& state, Op op, int chassis) {
        if (!state.row) return false;
        const bool timeOp =
            op == Op::TimescaleGetTime || op == Op::CorrelatorCorrelate || op == Op::CorrelatorStop;
        if (timeOp) return state.chassis < 0;
        return state.chassis >= 0 && (chassis < 0 || chassis == state.chassis);
    }

    void check(Op op, int chassis, std::size_t since, zterr_Status& status, const char* what) {
        ++calls;
        const std::int32_t code = status.code;
        const std::string report = status.json ? status.json : "";
        if (status.reallocate) status.reallocate(&status, 0);
        status.code = 0;
        if (code == 0) return;
        ++faulted;
        bool promised = false;
        for (const FaultHistory::State& state : history.between(since, history.now()))
            if (reaches(state, op, chassis) && state.row->cell(op).applies && state.row->cell(op).code == code)
                promised = true;
        if (!promised)
            fail(std::string(what) + " gave " + std::to_string(code) + " with no fault promising it (faults before: " +
                 history.describeBefore(since) + "): " + report);
        else if (ztsdlib::jsonz::validate(report.c_str()).error != ztsdlib::jsonz::errorNone)
            fail(std::string(what) + " wrote a report that is not JSON: " + report);
    }

    void fail(const std::string& text) {
        std::lock_guard<std::mutex> lock(failureMutex);
        if (failureTexts.size() < 20) failureTexts.push_back(text);
    }

    static zterr_Status freshStatus() { return zterr_Status{0, 0, ztsdlib_Status_defaultReallocate, nullptr}; }

    // ---- the workers ----

    void domainLoop() {
        zterr_Status status = freshStatus();
        unsigned round = 0;
        while (!stopping) {
            const std::size_t since = history.now();
            zterr_Status probe = freshStatus();
            if (!ztsdlib_SyncDomain_isRunning(domain, &probe)) {
                const bool started = ztsdlib_SyncDomain_start(domain, 2, &status);
                if (status.code == 0 && !started) fail("domain start returned false without an error");
                check(Op::DomainStart, -1, since, status, "domain start");
                // A caller retries a failed start after a moment, not at once.
                if (!started) std::this_thread::sleep_for(std::chrono::milliseconds(5));
                continue;
            }
            switch (round++ % 8) {
                case 0: case 1: case 2: {
                    const bool coherent = ztsdlib_SyncDomain_isCoherent(domain, &status);
                    if (status.code == 0 && !coherent) fail("domain isCoherent false with every member coherent");
                    check(Op::DomainIsCoherent, -1, since, status, "domain isCoherent");
                    break;
                }
                case 3: case 4: case 5: {
                    const bool coherent = ztsdlib_SyncDomain_isCoherentSinceLastChecked(domain, &status);
                    if (status.code == 0 && !coherent) fail("domain sinceLastChecked false with every member coherent");
                    check(Op::DomainSinceLastChecked, -1, since, status, "domain sinceLastChecked");
                    break;
                }
                case 6: {
                    char* json = ztsdlib_SyncDomain_toJson(domain, &status);
                    if (status.code == 0 && ztsdlib::jsonz::validate(json).error != ztsdlib::jsonz::errorNone)
                        fail(std::string("domain toJson not JSON: ") + (json ? json : "(null)"));
                    std::free(json);
                    check(Op::DomainToJson, -1, since, status, "domain toJson");
                    break;
                }
                default: ztsdlib_SyncDomain_stop(domain, &status); check(Op::DomainStart, -1, since, status, "domain stop");
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        zterr_Status done = freshStatus();
        ztsdlib_SyncDomain_stop(domain, &done);
    }

    void deviceLoop() {
        zterr_Status status = freshStatus();
        unsigned round = 0;
        while (!stopping) {
            const int i = static_cast<int>(round % kChassis);
            const std::size_t since = history.now();
            if ((round++ / kChassis) % 2 == 0) {
                std::uint32_t losses = 99;
                const bool coherent = ztsdlib_SyncableDevice_isCoherent(queryDevices[i], &losses, &status);
                if (status.code == 0 && (!coherent || losses != 0)) fail("device isCoherent wrong answer");
                check(Op::DeviceIsCoherent, i, since, status, "device isCoherent");
            } else {
                char* json = ztsdlib_SyncableDevice_toJson(queryDevices[i], &status);
                if (status.code == 0 && ztsdlib::jsonz::validate(json).error != ztsdlib::jsonz::errorNone)
                    fail(std::string("device toJson not JSON: ") + (json ? json : "(null)"));
                std::free(json);
                check(Op::DeviceToJson, i, since, status, "device toJson");
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }

    void readerLoop() {
        zterr_Status status = freshStatus();
        while (!stopping) {
            const std::size_t since = history.now();
            ztsdlib_Timestamp t{};
            ztsdlib_Timescale_getTime(remote, &t, &status);
            if (status.code == 0 && t.seconds == 0) fail("remote reading of zero");
            check(Op::TimescaleGetTime, -1, since, status, "getTime");
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }

    void correlatorLoop() {
        zterr_Status status = freshStatus();
        while (!stopping) {
            const std::size_t since = history.now();
            ztsdlib_TimestampCorrelator_start(correlator, &status);
            check(Op::CorrelatorCorrelate, -1, since, status, "correlator start");
            for (int i = 0; i < 20 && !stopping; ++i) {
                zterr_Status clock = freshStatus();
                ztsdlib_Timestamp hostTime{}, remoteTime{};
                ztsdlib_Timescale_getTime(host, &hostTime, &clock);
                ztsdlib_TimestampCorrelator_correlate(correlator, &hostTime, ZTSDLIB_HOST_TIMESCALE_URI, &remoteTime,
                                                      &status);
                check(Op::CorrelatorCorrelate, -1, since, status, "correlate");
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
            ztsdlib_TimestampCorrelator_stop(correlator, &status);
            check(Op::CorrelatorStop, -1, since, status, "correlator stop");
        }
    }

    void faultLoop() {
        std::mt19937 rng(seed + static_cast<unsigned>(injected.load()));
        auto pick = [&](int low, int high) { return std::uniform_int_distribution<int>(low, high)(rng); };
        auto sleepUnlessStopping = [&](int ms) {
            const auto end = Clock::now() + std::chrono::milliseconds(ms);
            while (!stopping && Clock::now() < end) std::this_thread::sleep_for(std::chrono::milliseconds(5));
        };
        while (!stopping) {
            const FaultRow& row = *eligible[static_cast<std::size_t>(pick(0, static_cast<int>(eligible.size()) - 1))];
            const int chassis = row.isWebFault() ? pick(0, kChassis - 1) : -1;
            // Recorded before it is put on and cleared after it is taken
            // off, so the window always covers the fault.
            history.change({&row, chassis});
            if (chassis >= 0) faultmatrix::injectWeb(row, *sims[chassis], names[chassis]);
            else faultmatrix::injectDaemon(row, daemon, kGmId);
            ++injected;
            sleepUnlessStopping(pick(30, 500));
            if (chassis >= 0) faultmatrix::clearWeb(row, *sims[chassis], names[chassis]);
            else faultmatrix::clearDaemon(row, daemon, kGmId);
            history.change({});
            sleepUnlessStopping(pick(20, 150));
        }
    }

    std::vector<std::unique_ptr<ztsdsim::ChassisSimulator>> sims;
    std::vector<std::string> names;
    ztsdsim::TimestampDaemonSimulator daemon;
    std::vector<const FaultRow*> eligible;

    std::unique_ptr<faultmatrix::CallerObjects> objects = std::make_unique<faultmatrix::CallerObjects>();
    ztsdlib_Timescale*& host = objects->host;
    ztsdlib_Timescale*& remote = objects->remote;
    ztsdlib_TimestampCorrelator*& correlator = objects->correlator;
    ztsdlib_SyncDomain*& domain = objects->domain;
    std::vector<ztsdlib_SyncableDevice*> queryDevices;  // held by objects

    std::atomic<bool> stopping{false};
    FaultHistory history;
    mutable std::mutex failureMutex;
    std::vector<std::string> failureTexts;
};

TEST(Soak, EveryCallGivesSuccessOrAPromisedCodeAndTheProcessStaysFlat) {
    const int seconds = soakSeconds();
    const char* seedText = std::getenv("ZTSD_SOAK_SEED");
    const unsigned seed = seedText ? static_cast<unsigned>(std::strtoul(seedText, nullptr, 10))
                                   : static_cast<unsigned>(std::random_device{}());
    std::printf("soak: seed %u (ZTSD_SOAK_SEED=%u repeats the fault sequence), %d s\n", seed, seed, seconds);
    std::fflush(stdout);

    // Thrift prints every refused or dropped connection to stderr; this
    // program, like any application, may turn that off for itself.
    apache::thrift::GlobalOutput.setOutputFunction([](const char*) {});

    const auto began = Clock::now();
    Soak soak(seed);
    soak.fillSimulatorPools();
    const double warmUp = std::min(10.0, seconds / 5.0);
    soak.phase(warmUp);
    soak.settle();
    const Footprint start = measure();
    soak.phase(seconds - warmUp);
    soak.settle();
    const Footprint end = measure();
    const double took =
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - began).count() / 1000.0;

    std::printf("soak: seed %u, %.1f s: fds %ld -> %ld, threads %ld -> %ld, rss %ld -> %ld KiB\n", seed, took,
                start.fds, end.fds, start.threads, end.threads, start.rss_kib, end.rss_kib);

    for (const std::string& failure : soak.failureList()) ADD_FAILURE() << failure;
    // A fault loop that puts nothing on, or faults no call reaches, would pass the checks above unseen.
    EXPECT_GT(soak.injected.load(), 0u);
    EXPECT_GT(soak.faulted.load(), 0u) << "of " << soak.calls.load() << " calls, none failed";
    EXPECT_LE(end.fds, start.fds + kFdSlack);
    EXPECT_LE(end.threads, start.threads + kThreadSlack);
    EXPECT_LE(end.rss_kib, start.rss_kib + kRssSlack_kib);
}

}  // namespace
