// domain: load chassis, build a sync domain over their devices, start it
// waiting for coherency, then optionally watch it.
#include <chrono>
#include <iostream>
#include <memory>

#include "commands.h"
#include "errorSummary.h"
#include "metrics.h"
#include "interrupt.h"
#include "jsonText.h"
#include "progressLine.h"

namespace ztsdctl {

std::string progressText(std::int64_t elapsed_ms, std::uint32_t timeout_s) {
    const std::int64_t left_ms = std::max<std::int64_t>(0, static_cast<std::int64_t>(timeout_s) * 1000 - elapsed_ms);
    return "waiting for coherency: " + fixedPoint(elapsed_ms / 100, 1, false) + " s elapsed, " +
           fixedPoint(left_ms / 100, 1, false) + " s left" + (interrupted() ? " (cancelling the start)" : "");
}

namespace {

std::string stoppedJson(bool held, unsigned checks, bool wasInterrupted) {
    return JsonObject()
        .addString("event", "stopped")
        .addString("time", utcNow())
        .addBool("coherencyHeld", held)
        .addInteger("checks", checks)
        .addBool("interrupted", wasInterrupted)
        .text();
}

}  // namespace

int runDomain(const DomainOptions& options, bool json) {
    catchInterrupt();
    // With CSV, stdout holds the CSV only; the human lines go to stderr.
    std::ostream& info = options.csv ? std::cerr : std::cout;
    std::vector<LoadedChassis> chassis;
    for (const ChassisAddress& address : options.chassis) {
        chassis.push_back(loadChassis(address));
        if (!json)
            info << "loaded " << address.remoteHost << ": " << uriOf(chassis.back().device.get()) << "\n";
        if (interrupted()) return kExitNotCoherent;
    }
    // A chassis' other devices join by URI (--device, or every one the
    // chassis lists with --all-devices); proxies only, no timescales.
    std::vector<std::string> extraDevices = options.extraDevices;
    if (options.allDevices) {
        for (std::size_t c = 0, loaded = chassis.size(); c < loaded; ++c) {
            const std::string first = uriOf(chassis[c].device.get());
            for (const std::string& uri : listDeviceUris(options.chassis[c]))
                if (uri != first) extraDevices.push_back(uri);
        }
    }
    for (const std::string& uri : extraDevices) {
        LoadedChassis member;
        member.remoteHost = uri.substr(1, uri.find('/', 1) - 1);
        member.device = makeDeviceProxy(uri);
        if (!json) info << "added " << uri << "\n";
        chassis.push_back(std::move(member));
    }
    DomainSession session(std::move(chassis), options.settings);

    StartResult started;
    {
        ProgressLine progress;
        started = session.start(options.timeout_s, [&](std::int64_t elapsed_ms) {
            if (!json) progress.show(progressText(elapsed_ms, options.timeout_s));
        });
    }
    if (started.cancelled) {
        if (json) {
            std::cout << JsonObject()
                             .addString("event", "stopped")
                             .addString("time", utcNow())
                             .addInteger("elapsed_ms", started.elapsed_ms)
                             .addBool("coherencyHeld", false)
                             .addInteger("checks", 0)
                             .addBool("interrupted", true)
                             .text()
                      << "\n";
        } else {
            info << "interrupted; start cancelled after " << fixedPoint(started.elapsed_ms, 3, false)
                 << " s, before coherency\n";
        }
        return kExitNotCoherent;
    }
    if (!started.coherent) {
        const LibraryError& reason = *started.notReached;
        // Which members kept the start waiting: each one's own answer now (an
        // unreachable member counts as not coherent).
        std::vector<std::string> notCoherent;
        try {
            for (const MemberRow& row : session.askMembers()) {
                if (!row.coherent) notCoherent.push_back(row.uri);
            }
        } catch (const LibraryError& error) {
            notCoherent.push_back("(a member did not answer: " + summarize(error).message + ")");
        }
        std::string list;
        for (const std::string& uri : notCoherent) list += (list.empty() ? "" : ", ") + uri;
        if (json) {
            std::string array = "[";
            for (const std::string& uri : notCoherent) array += (array.size() > 1 ? "," : "") + jsonString(uri);
            std::cout << JsonObject()
                             .addString("event", "notCoherent")
                             .addString("time", utcNow())
                             .addInteger("elapsed_ms", started.elapsed_ms)
                             .addInteger("code", reason.code())
                             .addRaw("notCoherentMembers", array + "]")
                             .addRaw("report", reason.report())
                             .text()
                      << "\n";
        } else {
            info << "coherency NOT reached within " << options.timeout_s << " s\n";
            std::cerr << "ztsdctl: coherency not reached within " << options.timeout_s
                      << " s; not coherent: " << (list.empty() ? "(none now)" : list) << " [" << reason.constantName()
                      << " " << reason.code() << "]\n";
            if (options.verbose) std::cerr << reason.report() << "\n";
        }
        return kExitNotCoherent;
    }

    if (json) {
        std::cout << JsonObject()
                         .addString("event", "started")
                         .addString("time", utcNow())
                         .addInteger("elapsed_ms", started.elapsed_ms)
                         .addRaw("domain", session.toJson())
                         .text()
                  << std::endl;
    } else {
        info << "domain " << options.settings.uri << " coherent after "
                  << fixedPoint(started.elapsed_ms, 3, false) << " s (" << session.chassis().size() << " members)"
                  << std::endl;
    }

    bool held = true;
    unsigned checks = 0;
    std::unique_ptr<MetricsServer> metrics;
    if (options.watch_s && !options.metricsListen.empty()) {
        metrics = std::make_unique<MetricsServer>(options.settings.uri);
        std::string url;
        try {
            url = metrics->start(options.metricsListen);
        } catch (const std::exception& error) {
            session.stop();
            std::cerr << "ztsdctl: " << error.what() << "\n";
            return kExitFailure;
        }
        std::cerr << "metrics at " << url << std::endl;
    }
    if (options.watch_s) {
        while (!interrupted() && (options.checks == 0 || checks < options.checks)) {
            if (!sleepUnlessInterrupted(*options.watch_s * 1000.0)) break;
            const auto checkStarted = std::chrono::steady_clock::now();
            const CheckResult result = session.check();
            if (metrics) {
                metrics->update(result, std::chrono::duration<double>(std::chrono::steady_clock::now() - checkStarted)
                                            .count());
            }
            ++checks;
            // Held only while every check found the domain coherent (a check
            // whose verdicts failed on an unreachable member did not).
            held = held && result.coherentSinceStart && result.domainError.empty();
            if (json) {
                std::cout << checkJson(result) << std::endl;
            } else if (options.csv) {
                if (checks == 1) std::cout << kCheckCsvHeader << "\n";
                std::cout << checkCsv(result) << std::flush;
            } else {
                std::cout << checkTable(result) << std::flush;
            }
        }
    }
    session.stop();
    if (json) {
        std::cout << stoppedJson(held, checks, interrupted()) << "\n";
    } else {
        if (interrupted()) info << "interrupted; domain stopped\n";
        info << (held ? "coherency held" : "coherency LOST") << " (" << checks
                  << (checks == 1 ? " check" : " checks") << ")\n";
    }
    return held ? kExitOk : kExitNotCoherent;
}

}  // namespace ztsdctl
