// ztsdctl: a command-line tool over ztsdlib's C interface for people who run
// networked measurement chassis. See commands.h for the exit statuses and
// the README for a tour.
#include <CLI/CLI.hpp>

#include <cstdint>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "commands.h"
#include "jsonText.h"

using namespace ztsdctl;

namespace {

const CLI::Validator kChassisAddress(
    [](std::string& text) -> std::string {
        try {
            parseChassisAddress(text);
            return "";
        } catch (const std::invalid_argument& error) {
            return error.what();
        }
    },
    "HOST[:PORT][@DAEMONPORT]", "chassis address");

const CLI::Validator kTimeText(
    [](std::string& text) -> std::string {
        return parseTime(text) ? "" : "'" + text + "' is neither decimal seconds nor YYYY-MM-DDTHH:MM:SS[.fff]Z";
    },
    "TIME", "time");

void printLibraryError(const LibraryError& error, bool json) {
    if (json) {
        std::cerr << JsonObject()
                         .addRaw("error", JsonObject()
                                              .addInteger("code", error.code())
                                              .addString("constant", error.constantName())
                                              .addRaw("report", error.report())
                                              .text())
                         .text()
                  << "\n";
    } else {
        std::cerr << "ztsdctl: library error " << error.code();
        if (!error.constantName().empty()) std::cerr << " (" << error.constantName() << ")";
        std::cerr << "\n" << (error.report().empty() ? "(no report)" : error.report()) << "\n";
    }
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"ztsdctl: inspect chassis, read remote clocks, correlate timescales and run sync domains "
                 "through ztsdlib"};
    app.require_subcommand(1);
    app.fallthrough();
    bool json = false;
    app.add_flag("--json", json, "Print one JSON object per line (errors as JSON on stderr)");

    ListOptions list;
    std::string listAddress;
    std::uint32_t daemonPort = 0;
    CLI::App* listCommand = app.add_subcommand("list", "What a chassis offers: its syncable device and timescales");
    listCommand->add_option("HOST", listAddress, "The chassis web service, host[:port][@daemonPort]")
        ->required()
        ->check(kChassisAddress);
    CLI::Option* listDaemonPort =
        listCommand->add_option("--daemon-port", daemonPort, "TCP port of the chassis' timestamp daemon")
            ->check(CLI::Range(1u, 65535u));

    DeviceOptions device;
    CLI::App* deviceCommand = app.add_subcommand("device", "A syncable device's coherency, loss count and JSON");
    deviceCommand
        ->add_option("URI", device.uri, "/<remoteHost>/ztsdwebs/resources/<plugin>/syncableDevices/<name>")
        ->required();

    TimeOptions time;
    CLI::App* timeCommand = app.add_subcommand("time", "A remote timescale's time next to the host's");
    timeCommand->add_option("URI", time.uri, "/<remoteHost>/ztsdwebs/resources/<plugin>/timescales/<gmId>")
        ->required();
    timeCommand->add_option("HOST", time.host, "Host of the timestamp daemon")->required();
    timeCommand->add_option("PORT", time.port, "TCP port of the timestamp daemon")
        ->required()
        ->check(CLI::Range(1u, 65535u));

    CorrelateOptions correlate;
    std::string atText, from = "host";
    CLI::App* correlateCommand = app.add_subcommand(
        "correlate", "Fit the host clock against a remote timescale: offset, rate and one correlated time");
    correlateCommand->add_option("URI", correlate.uri, "The remote timescale's URI")->required();
    correlateCommand->add_option("HOST", correlate.host, "Host of the timestamp daemon")->required();
    correlateCommand->add_option("PORT", correlate.port, "TCP port of the timestamp daemon")
        ->required()
        ->check(CLI::Range(1u, 65535u));
    correlateCommand
        ->add_option("--at", atText, "Time to correlate: decimal seconds since 1601 or a UTC date-time (default: now)")
        ->check(kTimeText);
    correlateCommand->add_option("--from", from, "Timescale --at is read on")
        ->check(CLI::IsMember({"host", "remote"}))
        ->capture_default_str();
    correlateCommand->add_option("--samples", correlate.settings.maxSampleSize, "Samples in the fitted history")
        ->check(CLI::Range(2u, 1000000u))
        ->capture_default_str();
    correlateCommand
        ->add_option("--interval-ms", correlate.settings.samplingIntervalMs,
                     "Pause between samples once the history is full")
        ->check(CLI::Range(1u, 3600000u))
        ->capture_default_str();
    correlateCommand
        ->add_option("--wait-ms", correlate.settings.maxWaitForFirstCorrelateMs,
                     "How long the first correlation waits for the history to fill")
        ->capture_default_str();
    correlateCommand
        ->add_option("--settle-ms", correlate.settings.settleMs,
                     "Keep sampling this long before reading the line (a longer baseline for the rate)")
        ->capture_default_str();
    bool sequential = false;
    correlateCommand->add_flag("--sequential", sequential,
                               "Pair each host reading with the remote reading after it (default: pair the remote "
                               "reading with the middle of host, remote, host)");

    DomainOptions domain;
    std::vector<std::string> domainAddresses;
    double watch_s = 0;
    CLI::App* domainCommand = app.add_subcommand(
        "domain", "Run a sync domain over chassis: start it waiting for coherency, optionally watch it");
    domainCommand->add_option("HOST", domainAddresses, "Chassis web services, host[:port][@daemonPort]")
        ->required()
        ->check(kChassisAddress);
    domainCommand->add_option("--max-offset-ns", domain.settings.maxOffset_ns, "Maximum clock offset")->required();
    domainCommand->add_option("--min-sync-ms", domain.settings.minSyncDuration_ms, "Minimum time in sync")
        ->required();
    domainCommand->add_option("--timescale", domain.settings.timescaleUri, "URI of the required timescale")
        ->required();
    domainCommand->add_option("--timeout-s", domain.timeout_s, "How long the start waits for coherency")
        ->check(CLI::Range(1u, 4294967u))
        ->capture_default_str();
    CLI::Option* watchOption =
        domainCommand->add_option("--watch", watch_s, "Check the domain every SECONDS after it started")
            ->check(CLI::Range(0.01, 86400.0));
    domainCommand->add_option("--checks", domain.checks, "With --watch: stop after N checks (0: until Ctrl-C)")
        ->capture_default_str();
    domainCommand->add_option("--uri", domain.settings.uri, "The domain's URI")->capture_default_str();
    CLI::Option* domainDaemonPort =
        domainCommand->add_option("--daemon-port", daemonPort, "Timestamp daemon port for hosts without @DAEMONPORT")
            ->check(CLI::Range(1u, 65535u));

    app.add_subcommand("demo", "Three simulated chassis in this process, from start to coherent, a loss, a correlation");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        const int code = app.exit(error);
        return code == 0 ? kExitOk : kExitUsage;
    }

    try {
        if (listCommand->parsed()) {
            list.chassis = parseChassisAddress(listAddress);
            if (listDaemonPort->count() > 0 && !list.chassis.daemonPort) list.chassis.daemonPort = daemonPort;
            return runList(list, json);
        }
        if (deviceCommand->parsed()) return runDevice(device, json);
        if (timeCommand->parsed()) return runTime(time, json);
        if (correlateCommand->parsed()) {
            if (!atText.empty()) correlate.at = parseTime(atText);
            correlate.atIsRemote = from == "remote";
            correlate.settings.symmetric = !sequential;
            return runCorrelate(correlate, json);
        }
        if (domainCommand->parsed()) {
            for (const std::string& text : domainAddresses) {
                domain.chassis.push_back(parseChassisAddress(text));
                if (domainDaemonPort->count() > 0 && !domain.chassis.back().daemonPort)
                    domain.chassis.back().daemonPort = daemonPort;
            }
            if (watchOption->count() > 0) domain.watch_s = watch_s;
            return runDomain(domain, json);
        }
        return runDemo(json);
    } catch (const LibraryError& error) {
        printLibraryError(error, json);
        return kExitFailure;
    } catch (const std::exception& error) {
        std::cerr << "ztsdctl: " << error.what() << "\n";
        return kExitFailure;
    }
}
