// ztsdctl: a command-line tool over ztsdlib's C interface for people who run
// networked measurement chassis. See commands.h for the exit statuses and
// the README for a tour.
#include <CLI/CLI.hpp>

#include <cstdint>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "commands.h"
#include "errorSummary.h"
#include "jsonText.h"
#include "metrics.h"

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

// The daemon's host for time and correlate: a host name or an IPv6 address,
// with or without brackets (taken off: the daemon is reached by the bare
// address).
const CLI::Validator kDaemonHost(
    [](std::string& text) -> std::string {
        if (text.size() > 2 && text.front() == '[' && text.back() == ']') {
            const std::string inner = text.substr(1, text.size() - 2);
            if (!isIpv6Address(inner)) return "'" + text + "' is not an IPv6 address in brackets";
            text = inner;
            return "";
        }
        return isHostName(text) || isIpv6Address(text) ? "" : "'" + text + "' is not a host name or address";
    },
    "HOST", "daemon host");

const CLI::Validator kTimeText(
    [](std::string& text) -> std::string {
        return parseTime(text) ? "" : "'" + text + "' is neither decimal seconds nor YYYY-MM-DDTHH:MM:SS[.fff]Z";
    },
    "TIME", "time");

const CLI::Validator kTimescaleUri(
    [](std::string& text) -> std::string {
        const std::size_t at = text.find("/timescales/");
        if (text.empty() || text[0] != '/' || at == std::string::npos || at + 12 >= text.size() ||
            text.find_first_of(" \t\"\\") != std::string::npos)
            return "'" + text + "' is not a timescale URI (/<host>/.../timescales/<id>)";
        return "";
    },
    "URI", "timescale URI");

const char* const kCommands[] = {"list", "device", "time", "correlate", "domain", "demo"};

// The first word that is not an option must be a command.
std::optional<std::string> unknownCommand(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word.empty() || word[0] == '-') continue;
        for (const char* command : kCommands) {
            if (word == command) return std::nullopt;
        }
        return word;
    }
    return std::nullopt;
}

// A command line that parses but asks for something that cannot be done.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// --json (or --format json) anywhere on the command line asks for JSON
// errors, also for a command line the parser refuses before it has read it.
bool asksForJson(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--") break;
        if (word == "--json" || word == "--format=json") return true;
        if (word == "--format" && i + 1 < argc && std::string(argv[i + 1]) == "json") return true;
    }
    return false;
}

void printUsageError(const std::string& message, bool json) {
    if (json) {
        std::cerr << JsonObject().addRaw("error", JsonObject().addString("usage", message).text()).text() << "\n";
    } else {
        std::cerr << "ztsdctl: " << message << "\n";
    }
}

void printLibraryError(const LibraryError& error, bool json, bool verbose) {
    if (json) {
        std::cerr << summaryJson(error) << "\n";
        return;
    }
    std::cerr << summaryLine(error) << "\n";
    if (verbose) std::cerr << (error.report().empty() ? "(no report)" : error.report()) << "\n";
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"ztsdctl: inspect chassis, read remote clocks, correlate timescales and run sync domains "
                 "through ztsdlib"};
    // Resource URIs begin with '/': they are never Windows-style options.
    app.allow_windows_style_options(false);
    app.require_subcommand(1);
    app.fallthrough();
    bool json = false;
    app.add_flag("--json", json, "Print one JSON object per line (errors as one JSON object on stderr)");
    bool verbose = false;
    app.add_flag("-v,--verbose", verbose, "With an error, print the library's whole report after its line");
    app.set_version_flag("--version", [] {
        return std::string("ztsdctl ") + ZTSDCTL_VERSION + " (ztsdlib API " + std::to_string(ztsdlib_getApiVersion()) +
               ")";
    });

    ListOptions list;
    std::string listAddress;
    std::uint32_t daemonPort = 0;
    CLI::App* listCommand = app.add_subcommand("list", "What a chassis offers: its syncable devices and timescales");
    listCommand->add_option("HOST", listAddress, "The chassis web service, host[:port][@daemonPort]")
        ->required()
        ->check(kChassisAddress);
    CLI::Option* listDaemonPort =
        listCommand->add_option("--daemon-port", daemonPort, "TCP port of the chassis' timestamp daemon")
            ->check(CLI::Range(1u, 65535u));

    DeviceOptions device;
    CLI::App* deviceCommand = app.add_subcommand("device", "A syncable device's coherency, loss count and JSON");
    std::string deviceName, plugin = "ztsd";
    deviceCommand
        ->add_option("DEVICE", device.uri,
                     "/<remoteHost>/ztsdwebs/resources/<plugin>/syncableDevices/<name>, or HOST[:PORT] with NAME")
        ->required();
    CLI::Option* deviceNameOption =
        deviceCommand->add_option("NAME", deviceName, "The device's name on the chassis HOST[:PORT]");
    CLI::Option* pluginOption =
        deviceCommand->add_option("--plugin", plugin, "With NAME: the plugin segment of the device's path")
            ->capture_default_str()
            ->needs(deviceNameOption);

    TimeOptions time;
    CLI::App* timeCommand = app.add_subcommand("time", "A remote timescale's time next to the host's");
    timeCommand->add_option("URI", time.uri, "/<remoteHost>/ztsdwebs/resources/<plugin>/timescales/<gmId>")
        ->required();
    timeCommand->add_option("HOST", time.host, "Host of the timestamp daemon")->required()->transform(kDaemonHost);
    timeCommand->add_option("PORT", time.port, "TCP port of the timestamp daemon")
        ->required()
        ->check(CLI::Range(1u, 65535u));

    CorrelateOptions correlate;
    std::string atText, from = "host";
    CLI::App* correlateCommand = app.add_subcommand(
        "correlate", "Fit the host clock against a remote timescale: offset, rate and one correlated time");
    correlateCommand->add_option("URI", correlate.uri, "The remote timescale's URI")->required();
    correlateCommand->add_option("HOST", correlate.host, "Host of the timestamp daemon")
        ->required()
        ->transform(kDaemonHost);
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
        ->required()
        ->check(kTimescaleUri);
    domainCommand->add_option("--timeout-s", domain.timeout_s, "How long the start waits for coherency")
        ->check(CLI::Range(1u, 4294967u))
        ->capture_default_str();
    CLI::Option* watchOption =
        domainCommand->add_option("--watch", watch_s, "Check the domain every SECONDS after it started")
            ->check(CLI::Range(0.01, 86400.0));
    domainCommand->add_option("--checks", domain.checks, "With --watch: stop after N checks (0: until Ctrl-C)")
        ->capture_default_str()
        ->needs(watchOption);
    domainCommand->add_option("--uri", domain.settings.uri, "The domain's URI")->capture_default_str();
    CLI::Option* metricsOption =
        domainCommand
            ->add_option("--metrics-listen", domain.metricsListen,
                         "With --watch: serve Prometheus metrics at http://ADDR:PORT/metrics (PORT 0: any)")
            ->needs(watchOption)
            ->check(CLI::Validator(
                [](std::string& text) -> std::string {
                    try {
                        parseListenAddress(text);
                        return "";
                    } catch (const std::invalid_argument& error) {
                        return error.what();
                    }
                },
                "ADDR:PORT", "listen address"));
    (void)metricsOption;
    domainCommand
        ->add_option("--device", domain.extraDevices,
                     "Also a member: a device by URI (/<host>/.../syncableDevices/<name>), e.g. a chassis' "
                     "second device; repeatable")
        ->check(CLI::Validator(
            [](std::string& uri) -> std::string {
                return uri.size() > 1 && uri[0] == '/' && uri.find("/syncableDevices/") != std::string::npos &&
                               uri.find_first_of(" \"\\") == std::string::npos
                           ? ""
                           : "'" + uri + "' is not a device URI (/<host>/.../syncableDevices/<name>)";
            },
            "URI", "device URI"));
    domainCommand->add_flag("--all-devices", domain.allDevices,
                            "Every syncable device each HOST lists is a member, not only its first");
    std::string format = "text";
    CLI::Option* formatOption =
        domainCommand->add_option("--format", format, "How checks are printed: text (tables), json, csv")
            ->check(CLI::IsMember({"text", "json", "csv"}))
            ->capture_default_str();
    CLI::Option* domainDaemonPort =
        domainCommand->add_option("--daemon-port", daemonPort, "Timestamp daemon port for hosts without @DAEMONPORT")
            ->check(CLI::Range(1u, 65535u));

    app.add_subcommand("demo", "Three simulated chassis in this process, from start to coherent, a loss, a correlation");

    if (const std::optional<std::string> word = unknownCommand(argc, argv)) {
        printUsageError("unknown command '" + *word +
                            "'; the commands are list, device, time, correlate, domain, demo (ztsdctl --help)",
                        asksForJson(argc, argv));
        return kExitUsage;
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() != 0 && asksForJson(argc, argv)) {
            printUsageError(error.what(), true);
            return kExitUsage;
        }
        const int code = app.exit(error);
        return code == 0 ? kExitOk : kExitUsage;
    }

    try {
        if (listCommand->parsed()) {
            list.chassis = parseChassisAddress(listAddress);
            if (listDaemonPort->count() > 0 && list.chassis.daemonPort)
                throw UsageError("--daemon-port changes nothing: the address has its @DAEMONPORT");
            if (listDaemonPort->count() > 0) list.chassis.daemonPort = daemonPort;
            return runList(list, json);
        }
        if (deviceCommand->parsed()) {
            if (deviceNameOption->count() > 0) {
                const ChassisAddress chassis = parseChassisAddress(device.uri);
                if (chassis.daemonPort) throw UsageError("a device needs no @DAEMONPORT: '" + device.uri + "'");
                if (deviceName.empty() || deviceName.find_first_of("/ \"\\") != std::string::npos)
                    throw UsageError("'" + deviceName + "' is not a device name");
                device.uri = "/" + chassis.remoteHost + "/ztsdwebs/resources/" + plugin + "/syncableDevices/" + deviceName;
            } else if (device.uri.empty() || device.uri[0] != '/' ||
                       device.uri.find("/syncableDevices/") == std::string::npos) {
                throw UsageError("'" + device.uri +
                                 "' is neither a device URI (/<host>/.../syncableDevices/<name>) nor HOST NAME");
            }
            (void)pluginOption;
            return runDevice(device, json);
        }
        if (timeCommand->parsed()) return runTime(time, json);
        if (correlateCommand->parsed()) {
            if (!atText.empty()) correlate.at = parseTime(atText);
            correlate.atIsRemote = from == "remote";
            correlate.settings.symmetric = !sequential;
            return runCorrelate(correlate, json);
        }
        if (domainCommand->parsed()) {
            bool anyWithoutPort = false;
            for (const std::string& text : domainAddresses) anyWithoutPort |= text.find('@') == std::string::npos;
            if (domainDaemonPort->count() > 0 && !anyWithoutPort)
                throw UsageError("--daemon-port changes nothing: every address has its @DAEMONPORT");
            for (const std::string& text : domainAddresses) {
                domain.chassis.push_back(parseChassisAddress(text));
                if (domainDaemonPort->count() > 0 && !domain.chassis.back().daemonPort)
                    domain.chassis.back().daemonPort = daemonPort;
            }
            if (watchOption->count() > 0) domain.watch_s = watch_s;
            if (formatOption->count() > 0 && format != "text" && watchOption->count() == 0 && format == "csv")
                throw UsageError("--format csv prints checks: it needs --watch");
            if (json && formatOption->count() > 0 && format != "json")
                throw UsageError("--json and --format " + format + " ask for two formats");
            if (format == "json") json = true;
            domain.csv = format == "csv";
            domain.verbose = verbose;
            return runDomain(domain, json);
        }
        return runDemo(json);
    } catch (const UsageError& error) {
        printUsageError(error.what(), json);
        return kExitUsage;
    } catch (const LibraryError& error) {
        printLibraryError(error, json, verbose);
        return kExitFailure;
    } catch (const std::invalid_argument& error) {  // an address the validators let through
        printUsageError(error.what(), json);
        return kExitUsage;
    } catch (const std::exception& error) {
        std::cerr << "ztsdctl: " << error.what() << "\n";
        return kExitFailure;
    }
}
