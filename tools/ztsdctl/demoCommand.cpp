// demo: the whole library on one machine. Three simulated chassis (each a web
// service and a timestamp daemon on 127.0.0.1) are started in this process;
// everything after that goes through the library's C interface, as the other
// commands do: the chassis are loaded, a domain is run from start to
// coherent, a coherency loss injected into the simulator is detected, and the
// host clock is correlated with a remote timescale whose true offset and rate
// the simulator knows, so the fitted values can be shown next to them.
//
// The demo checks what it shows: it exits 1 (and says what went wrong) when
// the domain does not become coherent, the loss goes unnoticed, or the fit is
// far from the truth.
#include <chrono>
#include <cmath>
#include <iostream>
#include <memory>
#include <sstream>
#include <thread>

#include "commands.h"
#include "interrupt.h"
#include "jsonText.h"
#include "progressLine.h"
#include "ztsd-sim/simulatedChassis.h"

namespace ztsdctl {

namespace {

constexpr unsigned kChassisCount = 3;
constexpr std::uint32_t kStartTimeout_s = 10;
constexpr std::int64_t kComesIntoSyncEvery_ms = 300;  // chassis c is coherent (c + 1) * this after the start
constexpr unsigned kLossChassis = 1;                  // where the coherency loss is injected
// Clock of chassis c's timestamp daemon against the host: offset and rate.
constexpr std::int64_t kOffset_ns[kChassisCount] = {2500000, -750000, 40000000};
constexpr std::int64_t kRate_ppb[kChassisCount] = {120000, -35000, 8000};
// How far the fit may land from the simulator's truth before the demo calls
// it wrong. What is left after the regression is the jitter of the loopback
// round trips (tens of microseconds on a quiet machine, far more on a busy
// one); these bounds leave room for a busy machine and still catch a fit
// that went wrong (a lost sign, a wrong direction, a wrong timescale).
constexpr Nanos kOffsetTolerance_ns = 5000000;     // 5 ms
constexpr Nanos kRateTolerance_ppt = 1000000000;   // 1000 ppm
// On a quiet machine the rate lands within a few ppm.
constexpr Nanos kSteadyRateError_ppt = 50000000;    // 50 ppm

// Every line of text, two spaces further in.
std::string indented(const std::string& text) {
    std::string out;
    std::size_t begin = 0;
    while (begin < text.size()) {
        const std::size_t end = text.find('\n', begin);
        const std::size_t stop = end == std::string::npos ? text.size() : end + 1;
        out += "  " + text.substr(begin, stop - begin);
        begin = stop;
    }
    return out;
}

std::string gmIdOf(unsigned chassis) { return "00-80-2F-00-00-00-0" + std::to_string(chassis) + "-00"; }

// Brings the simulated devices into sync one after the other while the
// domain's start waits; joined when it goes.
class SyncArrivals {
public:
    explicit SyncArrivals(std::vector<std::unique_ptr<ztsdsim::SimulatedChassis>>& chassis)
        : thread_([&chassis] {
              for (unsigned c = 0; c < chassis.size(); ++c) {
                  if (!sleepUnlessInterrupted(static_cast<double>(kComesIntoSyncEvery_ms))) return;
                  chassis[c]->webService().setCoherent("chassis" + std::to_string(c), true);
              }
          }) {}
    ~SyncArrivals() { thread_.join(); }
    SyncArrivals(const SyncArrivals&) = delete;
    SyncArrivals& operator=(const SyncArrivals&) = delete;

private:
    std::thread thread_;
};

class Demo {
public:
    explicit Demo(bool json) : json_(json) {}
    int run();

private:
    std::ostream& say() { return json_ ? quiet_ : std::cout; }
    void unexpected(const std::string& what) {
        problems_.push_back(what);
        std::cerr << "ztsdctl demo: unexpected: " << what << "\n";
    }
    bool stopped() {
        if (!interrupted()) return false;
        std::cerr << "ztsdctl demo: interrupted\n";
        return true;
    }
    void startSimulators();
    std::vector<LoadedChassis> loadAll();
    bool runDomain(DomainSession& session);
    void correlate();
    int summary();

    bool json_;
    std::ostringstream quiet_;
    std::vector<std::string> problems_;
    std::vector<std::unique_ptr<ztsdsim::SimulatedChassis>> chassis_;
    std::chrono::steady_clock::time_point began_ = std::chrono::steady_clock::now();
    // What the summary reports.
    std::int64_t coherentAfter_ms_ = -1;
    std::string lossMemberUri_;
    unsigned lossDetectedAtCheck_ = 0;
    bool recoveredNextCheck_ = false;
    std::optional<CorrelationResult> correlation_;
    Nanos trueOffset_ns_ = 0;
    Nanos trueRate_ppt_ = 0;
    Nanos correlatedError_ns_ = 0;
    bool offsetWithinBound_ = false;  // the fitted offset's error within its stated bound
};

void Demo::startSimulators() {
    say() << "[1/5] starting " << kChassisCount << " simulated chassis on 127.0.0.1\n";
    for (unsigned c = 0; c < kChassisCount; ++c) {
        auto chassis = std::make_unique<ztsdsim::SimulatedChassis>();
        chassis->start();
        const std::string name = "chassis" + std::to_string(c);
        chassis->webService().addDevice(name);
        chassis->webService().setCoherent(name, false);  // not yet in sync
        chassis->addTimescale(gmIdOf(c));
        chassis->timestampDaemon().setClock(kOffset_ns[c], kRate_ppb[c]);
        say() << "  " << name << "  web service " << chassis->webService().remoteHost() << ", timestamp daemon "
              << chassis->daemonHost() << ":" << chassis->daemonPort() << ", clock "
              << durationText(kOffset_ns[c]) << " and " << fixedPoint(kRate_ppb[c], 3, true) << " ppm off the host\n";
        chassis_.push_back(std::move(chassis));
    }
}

std::vector<LoadedChassis> Demo::loadAll() {
    say() << "[2/5] loading each chassis' resources through the library\n";
    std::vector<LoadedChassis> loaded;
    for (const auto& chassis : chassis_) {
        ChassisAddress address{chassis->webService().remoteHost(), chassis->daemonPort()};
        loaded.push_back(loadChassis(address));
        say() << "  " << networkDeviceParamsJson(address) << "\n"
              << "    device     " << uriOf(loaded.back().device.get()) << "\n";
        for (const TimescaleHandle& timescale : loaded.back().timescales)
            say() << "    timescale  " << uriOf(timescale.get()) << "\n";
    }
    return loaded;
}

bool Demo::runDomain(DomainSession& session) {
    StartResult started;
    {
        SyncArrivals arrivals(chassis_);
        ProgressLine progress;
        started = session.start(kStartTimeout_s, [&](std::int64_t elapsed_ms) {
            if (!json_) progress.show("  " + progressText(elapsed_ms, kStartTimeout_s));
        });
    }
    if (!started.coherent) {
        unexpected("the domain did not become coherent: " + started.notReached->report());
        return false;
    }
    coherentAfter_ms_ = started.elapsed_ms;
    say() << "  domain coherent after " << fixedPoint(started.elapsed_ms, 3, false) << " s\n";

    const CheckResult first = session.check();
    say() << indented(checkTable(first));
    if (!first.coherentSinceLastCheck || !first.coherentSinceStart) unexpected("the first check found the domain not coherent");
    if (stopped()) return false;

    const std::string lossName = "chassis" + std::to_string(kLossChassis);
    say() << "[4/5] injecting one coherency loss on " << lossName << " (the simulator bumps its loss count)\n";
    chassis_[kLossChassis]->webService().addCoherencyLoss(lossName);
    const CheckResult second = session.check();
    say() << indented(checkTable(second));
    const MemberRow& row = second.members[kLossChassis];
    if (!second.coherentSinceLastCheck && !second.coherentSinceStart && row.lossChange == 1) {
        lossMemberUri_ = row.uri;
        lossDetectedAtCheck_ = second.number;
        say() << "  detected: " << row.uri << " lost coherency once since the last check; the domain no longer "
                 "counts as coherent since its start\n";
    } else {
        unexpected("the injected coherency loss was not detected");
    }

    const CheckResult third = session.check();
    say() << indented(checkTable(third));
    recoveredNextCheck_ = third.coherentSinceLastCheck && !third.coherentSinceStart;
    if (recoveredNextCheck_) {
        say() << "  no new loss since the last check, but the loss since the start stays on record\n";
    } else {
        unexpected("the check after the loss did not settle as expected");
    }
    session.stop();
    return true;
}

void Demo::correlate() {
    ztsdsim::SimulatedChassis& target = *chassis_[0];
    const TimescaleHandle host = makeHostTimescale();
    const std::string remoteUri = target.webService().timescaleUri(gmIdOf(0));
    const TimescaleHandle remote = makeTimescaleProxy(remoteUri, target.daemonHost(), target.daemonPort());
    const CorrelationSettings settings;  // the correlate command's defaults
    say() << "[5/5] correlating the host clock with " << remoteUri << "\n"
          << "  sampling for " << fixedPoint(settings.settleMs, 3, false) << " s: the fit keeps the last "
          << settings.maxSampleSize << " samples, one every " << settings.samplingIntervalMs
          << " ms once the history is full, "
          << (settings.symmetric ? "each remote reading paired with the middle of its round trip\n" : "\n");
    correlation_ = correlateHostWith(host.get(), remote.get(), settings, std::nullopt, false);
    if (!correlation_) return;

    // The simulator's own mapping is the truth to hold the fit against.
    const ztsdlib_Timestamp truthAtReference = target.timestampDaemon().timeAt(correlation_->reference);
    trueOffset_ns_ = toNanos(truthAtReference) - toNanos(correlation_->reference);
    trueRate_ppt_ = static_cast<Nanos>(kRate_ppb[0]) * 1000;
    correlatedError_ns_ = toNanos(correlation_->correlated) - toNanos(target.timestampDaemon().timeAt(correlation_->at));

    std::ostringstream shown;
    printCorrelation(shown, *correlation_);
    say() << indented(shown.str());
    say() << "  simulator's truth: offset " << durationText(trueOffset_ns_) << ", rate "
          << fixedPoint(trueRate_ppt_, 6, true) << " ppm; the correlated time is off by "
          << durationText(correlatedError_ns_) << "\n";
    const Nanos offsetError = correlation_->offset_ns - trueOffset_ns_;
    const Nanos rateError = correlation_->rate_ppt - trueRate_ppt_;
    // The accuracy bound holds whatever the path; the truth outside it is a
    // fault of the library, not of the machine.
    const double bound_ns = correlation_->offsetBoundAtReference_ns();
    offsetWithinBound_ = std::fabs(static_cast<double>(offsetError)) <= bound_ns;
    say() << "  the fitted offset is " << durationText(offsetError) << " off the truth, "
          << (offsetWithinBound_ ? "within" : "OUTSIDE") << " its stated accuracy bound\n";
    if (!offsetWithinBound_) unexpected("the fitted offset lies outside its stated accuracy bound");
    if (rateError > kSteadyRateError_ppt || -rateError > kSteadyRateError_ppt)
        say() << "  note: the rate is " << fixedPoint(rateError, 6, true)
              << " ppm off; the loopback round trips were unsteady (a busy machine?)\n";
    if (offsetError > kOffsetTolerance_ns || -offsetError > kOffsetTolerance_ns)
        unexpected("the fitted offset is " + durationText(offsetError) + " off the truth");
    if (rateError > kRateTolerance_ppt || -rateError > kRateTolerance_ppt)
        unexpected("the fitted rate is " + fixedPoint(rateError, 6, true) + " ppm off the truth");
}

int Demo::summary() {
    const std::int64_t total_ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - began_).count();
    if (json_) {
        std::cout << JsonObject()
                         .addInteger("chassis", kChassisCount)
                         .addInteger("coherentAfter_ms", coherentAfter_ms_)
                         .addString("lossInjectedOn", lossMemberUri_)
                         .addInteger("lossDetectedAtCheck", lossDetectedAtCheck_)
                         .addBool("recoveredNextCheck", recoveredNextCheck_)
                         .addRaw("correlation", correlation_ ? correlationJson(*correlation_) : "")
                         .addInteger("trueOffset_ns", trueOffset_ns_)
                         .addRaw("trueRate_ppb", fixedPoint(trueRate_ppt_, 3, false))
                         .addInteger("correlatedError_ns", correlatedError_ns_)
                         .addBool("offsetWithinBound", offsetWithinBound_)
                         .addInteger("problems", problems_.size())
                         .addInteger("elapsed_ms", total_ms)
                         .text()
                  << "\n";
    } else {
        std::cout << "summary\n"
                  << "  domain       " << kChassisCount << " chassis, coherent "
                  << fixedPoint(coherentAfter_ms_, 3, false) << " s after the start\n"
                  << "  loss         injected on chassis" << kLossChassis << ", detected at check "
                  << lossDetectedAtCheck_ << "\n";
        if (correlation_)
            std::cout << "  correlation  offset " << durationText(correlation_->offset_ns) << " (truth "
                      << durationText(trueOffset_ns_) << "), rate " << fixedPoint(correlation_->rate_ppt, 6, true)
                      << " ppm (truth " << fixedPoint(trueRate_ppt_, 6, true) << " ppm)\n";
        std::cout << "  " << (problems_.empty() ? "all as expected" : std::to_string(problems_.size()) + " problem(s)")
                  << ", " << fixedPoint(total_ms, 3, false) << " s in all\n";
    }
    return problems_.empty() ? kExitOk : kExitNotCoherent;
}

int Demo::run() {
    catchInterrupt();
    startSimulators();
    if (stopped()) return kExitNotCoherent;
    std::vector<LoadedChassis> loaded = loadAll();
    if (stopped()) return kExitNotCoherent;

    DomainSettings settings;
    settings.uri = "/localhost/ztsdctl/syncDomains/demo";
    settings.timescaleUri = uriOf(loaded.front().timescales.front().get());
    settings.maxOffset_ns = 1000;
    settings.minSyncDuration_ms = 100;
    say() << "[3/5] sync domain " << settings.uri << ": every member within " << settings.maxOffset_ns
          << " ns of " << settings.timescaleUri << " for " << settings.minSyncDuration_ms
          << " ms; the devices come into sync one by one\n";
    {
        DomainSession session(std::move(loaded), settings);
        if (!runDomain(session) || stopped()) return summary();
    }
    correlate();
    if (stopped()) return kExitNotCoherent;
    return summary();
}

}  // namespace

int runDemo(bool json) { return Demo(json).run(); }

}  // namespace ztsdctl
