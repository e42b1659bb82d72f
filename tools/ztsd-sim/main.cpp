// ztsd-sim: serves one or more simulated chassis until SIGINT or SIGTERM.
// Each chassis is a web service "ztsdwebs" (its own HTTP server, its own
// port, so its own remoteHost) and a timestamp daemon "zttimestampd" beside
// it, with its devices, its timescales and a clock at its own offset and
// rate from the host's. A control server takes runtime changes (a loss, the
// coherency flag, a chassis down and up, a clock step or slew).
//
//   ztsd-sim --chassis 3 --clock-offset-ns 0,1500000,-250000 --clock-rate-ppb 0,20000,-5000
//
// Output, on stdout: for every chassis a few human lines (its address, its
// URIs, its clock) and one line that is a JSON object (the only lines that
// start with "{"), then "ready"; "stopped on SIGINT|SIGTERM" at the end. The
// JSON line's members are listed in the README and the man page ztsd-sim(1).
//
// Device d of chassis c is named "chassis<c>" for d = 0 and "chassis<c>-<d>"
// after; timescale t of chassis c has the gmId "00-80-2F-00-00-00-<c>-<t>"
// (two hexadecimal digits each). --port P with P > 0 gives chassis c the
// port P + c, --daemon-port D the daemon port D + c.
#include <CLI/CLI.hpp>
#include <cjson/cJSON.h>
#include <httplib.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/clock.h"
#include "ztsd-sim/restartableChassis.h"
#include "ztsd-sim/socketControl.h"
#include "ztsd-sim/stopSignals.h"

namespace {

std::string hex2(unsigned value) {
    char text[3];
    std::snprintf(text, sizeof text, "%02X", value & 0xFFu);
    return text;
}

std::string deviceName(unsigned chassis, unsigned device) {
    std::string name = "chassis" + std::to_string(chassis);
    return device == 0 ? name : name + "-" + std::to_string(device);
}

std::string printJson(cJSON* item) {
    char* text = cJSON_PrintUnformatted(item);
    std::string result = text ? text : "null";
    cJSON_free(text);
    cJSON_Delete(item);
    return result;
}

// Nanoseconds since 1601 do not fit 64 bits (about 1.3e19 today).
using Nanos = __int128;

Nanos hostNow_ns() { return static_cast<Nanos>(ztsdlib::platform::systemTime100nsSince1601()) * 100; }

Nanos toNanos(const ztsdlib_Timestamp& t) {
    const Nanos magnitude = static_cast<Nanos>(t.seconds) * 1000000000 + t.nanos;
    return t.isNegative ? -magnitude : magnitude;
}

ztsdlib_Timestamp fromNanos(Nanos ns) {
    ztsdlib_Timestamp t{};
    const Nanos magnitude = ns < 0 ? -ns : ns;
    t.seconds = static_cast<std::uint64_t>(magnitude / 1000000000);
    t.nanos = static_cast<std::uint32_t>(magnitude % 1000000000);
    t.isNegative = ns < 0;
    return t;
}

struct Settings {
    std::string host = "127.0.0.1";
    std::string plugin = "ztsd";
    unsigned devices = 1;
    unsigned timescales = 1;
    int latency_ms = 0;
    bool incoherent = false;
    std::size_t maxWorkers = 512;
    ztsdsim::ListingForm listingForm = ztsdsim::ListingForm::withHosts;
    unsigned replyDelay_us = 0;   // every daemon time reply held back this long after the clock is read
    unsigned replyJitter_us = 0;  // plus uniform random up to this
    std::vector<unsigned> drift_us;  // amplitudes of the wandering outward and return delays (one: both)
    bool strictHttp = false;
    ztsdsim::DaemonPersonality daemonPersonality = ztsdsim::DaemonPersonality::faithful;
    unsigned dripInterval_ms = 1000;
};

// One chassis of the program. It can be taken down (both servers stop,
// their ports close) and brought up again on the same ports; a chassis that
// comes up keeps its devices' coherency flags and loss counts and its clock
// (offset and rate carry on as if it had run on), and forgets the
// requirements placed on its devices, as a restarted chassis does.
class ProgramChassis {
public:
    ProgramChassis(unsigned index, const Settings& settings, std::uint16_t webPort, std::uint16_t daemonPort,
                   std::int64_t offset_ns, std::int64_t rate_ppb)
        : index_(index), settings_(settings), restartable_(settings.plugin, webOptions(settings, webPort), daemonPort),
          rate_ppb_(rate_ppb), offset_ns_(offset_ns) {
        for (unsigned d = 0; d < settings.devices; ++d) {
            devices_.push_back({deviceName(index, d), !settings.incoherent, 0});
        }
        for (unsigned t = 0; t < settings.timescales; ++t) {
            gmIds_.push_back("00-80-2F-00-00-00-" + hex2(index) + "-" + hex2(t));
        }
    }

    void up() {
        if (live_) return;
        ztsdsim::SimulatedChassis* chassis = &restartable_.up();
        chassis->timestampDaemon().setClock(offset_ns_, rate_ppb_);
        chassis->timestampDaemon().setReplyDelay(settings_.replyDelay_us, settings_.replyJitter_us);
        if (!settings_.drift_us.empty()) {
            chassis->timestampDaemon().setDriftingDelay(settings_.drift_us.front(), settings_.drift_us.back());
        }
        chassis->timestampDaemon().setPersonality(settings_.daemonPersonality, settings_.dripInterval_ms);
        deviceUris_.clear();
        timescaleUris_.clear();
        for (const Device& device : devices_) {
            deviceUris_.push_back(chassis->webService().addDevice(device.name));
            chassis->webService().setCoherent(device.name, device.coherent);
            if (device.losses > 0) chassis->webService().addCoherencyLoss(device.name, device.losses);
        }
        for (const std::string& gmId : gmIds_) timescaleUris_.push_back(chassis->addTimescale(gmId));
        if (settings_.latency_ms > 0) {
            ztsdsim::Fault slow;
            slow.latency_ms = settings_.latency_ms;
            chassis->webService().setFault("", slow);
        }
        live_ = chassis;
    }

    void down() {
        if (!live_) return;
        for (Device& device : devices_) {
            device.coherent = live_->webService().isCoherent(device.name);
            device.losses = live_->webService().coherencyLossCount(device.name);
        }
        offset_ns_ = currentOffset_ns();
        restartable_.down();
        live_ = nullptr;
    }

    bool isUp() const { return live_ != nullptr; }

    void setCoherent(const std::string& name, bool coherent) {
        Device& device = find(name);
        device.coherent = coherent;
        if (live_) live_->webService().setCoherent(name, coherent);
    }

    void addLoss(const std::string& name, std::uint32_t count) {
        Device& device = find(name);
        if (live_) {
            live_->webService().addCoherencyLoss(name, count);
        } else {
            device.losses += count;
        }
    }

    // The offset jumps by step_ns now; the rate stays.
    void stepClock(std::int64_t step_ns) { setClock(currentOffset_ns() + step_ns, rate_ppb_); }
    // The clock runs at a new rate from now on, with no jump.
    void slewClock(std::int64_t rate_ppb) { setClock(currentOffset_ns(), rate_ppb); }

    std::string remoteHost() const {
        return ztsdsim::hostPortText(settings_.host, restartable_.webPort());
    }
    std::string address() const { return remoteHost() + "@" + std::to_string(restartable_.daemonPort()); }
    std::string paramsJson() const {
        cJSON* params = cJSON_CreateObject();
        cJSON_AddStringToObject(params, "remoteHost", remoteHost().c_str());
        cJSON_AddNumberToObject(params, "timestampDaemonPort", restartable_.daemonPort());
        cJSON* document = cJSON_CreateObject();
        cJSON_AddNumberToObject(document, "version", 1);
        cJSON_AddStringToObject(document, "type", "networkDeviceParams");
        cJSON_AddItemToObject(document, "params", params);
        return printJson(document);
    }

    // The chassis as one JSON object (its line at start-up, and its entry in
    // the control server's /state).
    std::string describe(const std::string& controlUrl) {
        cJSON* object = cJSON_CreateObject();
        cJSON_AddNumberToObject(object, "chassis", index_);
        cJSON_AddBoolToObject(object, "up", isUp());
        cJSON_AddStringToObject(object, "remoteHost", remoteHost().c_str());
        cJSON_AddStringToObject(object, "daemonHost", settings_.host.c_str());
        cJSON_AddNumberToObject(object, "daemonPort", restartable_.daemonPort());
        cJSON_AddStringToObject(object, "address", address().c_str());
        cJSON_AddStringToObject(object, "networkDeviceParamsJson", paramsJson().c_str());
        cJSON* devices = cJSON_AddArrayToObject(object, "devices");
        for (std::size_t d = 0; d < devices_.size(); ++d) {
            cJSON* device = cJSON_CreateObject();
            cJSON_AddStringToObject(device, "name", devices_[d].name.c_str());
            cJSON_AddStringToObject(device, "uri", deviceUris_[d].c_str());
            const bool coherent = live_ ? live_->webService().isCoherent(devices_[d].name) : devices_[d].coherent;
            const std::uint32_t losses =
                live_ ? live_->webService().coherencyLossCount(devices_[d].name) : devices_[d].losses;
            cJSON_AddBoolToObject(device, "isCoherent", coherent);
            cJSON_AddNumberToObject(device, "coherencyLossCount", losses);
            cJSON_AddItemToArray(devices, device);
        }
        cJSON* timescales = cJSON_AddArrayToObject(object, "timescales");
        for (const std::string& uri : timescaleUris_) cJSON_AddItemToArray(timescales, cJSON_CreateString(uri.c_str()));
        cJSON* clock = cJSON_AddObjectToObject(object, "clock");
        cJSON_AddNumberToObject(clock, "offset_ns", static_cast<double>(currentOffset_ns()));
        cJSON_AddNumberToObject(clock, "rate_ppb", static_cast<double>(rate_ppb_));
        cJSON_AddStringToObject(object, "control", (controlUrl + "chassis/" + std::to_string(index_) + "/").c_str());
        return printJson(object);
    }

    void printHuman(std::ostream& out) const {
        out << "chassis " << index_ << " http://" << remoteHost() << "/\n";
        for (const std::string& uri : deviceUris_) out << "  " << uri << "\n";
        for (const std::string& uri : timescaleUris_) out << "  " << uri << "\n";
        out << "  ztsdctl address: " << address() << "\n";
        out << "  daemon: " << ztsdsim::hostPortText(settings_.host, restartable_.daemonPort()) << "\n";
        out << "  clock: offset " << offset_ns_ << " ns, rate " << rate_ppb_ << " ppb (remote - host)\n";
        out << "  networkDeviceParamsJson: " << paramsJson() << "\n";
    }

private:
    static ztsdsim::SimulatorOptions webOptions(const Settings& settings, std::uint16_t port) {
        ztsdsim::SimulatorOptions options;
        options.host = settings.host;
        options.port = port;
        options.maxWorkers = settings.maxWorkers;
        options.listingForm = settings.listingForm;
        options.strictHttp = settings.strictHttp;
        return options;
    }

    struct Device {
        std::string name;
        bool coherent;
        std::uint32_t losses;
    };

    Device& find(const std::string& name) {
        for (Device& device : devices_) {
            if (device.name == name) return device;
        }
        throw std::invalid_argument("chassis " + std::to_string(index_) + " has no device \"" + name + "\"");
    }

    // remote - host at this instant: the offset the clock has reached, rate included.
    std::int64_t currentOffset_ns() const {
        if (!live_) return offset_ns_;
        const Nanos host = hostNow_ns();
        return static_cast<std::int64_t>(toNanos(live_->timestampDaemon().timeAt(fromNanos(host))) - host);
    }

    void setClock(std::int64_t offset_ns, std::int64_t rate_ppb) {
        offset_ns_ = offset_ns;
        rate_ppb_ = rate_ppb;
        if (live_) live_->timestampDaemon().setClock(offset_ns, rate_ppb);
    }

    unsigned index_;
    Settings settings_;
    ztsdsim::RestartableChassis restartable_;
    std::int64_t rate_ppb_;
    std::int64_t offset_ns_;  // while down, or as last set: the offset at the reference instant
    std::vector<Device> devices_;
    std::vector<std::string> gmIds_;
    std::vector<std::string> deviceUris_;
    std::vector<std::string> timescaleUris_;
    ztsdsim::SimulatedChassis* live_ = nullptr;  // restartable_'s chassis while it is up
};

// A transformer from a name (any case) to its enumerator; a name that is
// none of them is refused with the list of the names.
template <typename Enum>
CLI::Validator namedChoice(const std::vector<std::pair<std::string, Enum>>& names, const std::string& what,
                           const std::string& plural) {
    std::string list;
    for (const auto& [name, value] : names) list += (list.empty() ? "" : ", ") + name;
    return CLI::Validator(
        [names, what, plural, list](std::string& text) -> std::string {
            for (const auto& [name, value] : names) {
                if (CLI::detail::to_lower(text) == name) {
                    text = std::to_string(static_cast<int>(value));
                    return "";
                }
            }
            return "'" + text + "' is not a " + what + "; the " + plural + " are " + list;
        },
        "NAME", what);
}

// Spreads one or per-chassis values: a single value applies to every chassis.
std::optional<std::vector<std::int64_t>> perChassis(const std::vector<std::int64_t>& values, unsigned count) {
    if (values.empty()) return std::vector<std::int64_t>(count, 0);
    if (values.size() == 1) return std::vector<std::int64_t>(count, values[0]);
    if (values.size() == count) return values;
    return std::nullopt;
}

// The control server: POST /chassis/<c>/<action> changes chassis c;
// GET /state describes every chassis. Answers are JSON: {"ok":true,...} or
// {"ok":false,"error":"..."} with 400 (a bad value) or 404 (no such chassis,
// device or action).
class ControlServer {
public:
    ControlServer(std::vector<std::unique_ptr<ProgramChassis>>& chassis, std::mutex& mutex)
        : chassis_(chassis), mutex_(mutex) {}

    void start(const std::string& host, std::uint16_t port) {
        {
            // As the chassis' servers: a port in use is refused, not shared.
            server_.set_socket_options([](socket_t sock) { ztsdsim::net::bindExclusively(sock); });
        }
        server_.Get("/state", [this](const httplib::Request&, httplib::Response& response) {
            std::lock_guard<std::mutex> lock(mutex_);
            std::string body = "{\"ok\":true,\"chassis\":[";
            for (std::size_t c = 0; c < chassis_.size(); ++c) {
                body += (c ? "," : "") + chassis_[c]->describe(url_);
            }
            response.set_content(body + "]}\n", "application/json");
        });
        server_.Post(R"(/chassis/(\d+)/(.+))",
                     [this](const httplib::Request& request, httplib::Response& response) { act(request, response); });
        server_.set_error_handler([](const httplib::Request&, httplib::Response& response) {
            if (response.body.empty()) {
                response.set_content("{\"ok\":false,\"error\":\"no such control\"}\n", "application/json");
            }
        });
        int bound = port == 0 ? server_.bind_to_any_port(host) : (server_.bind_to_port(host, port) ? port : -1);
        if (bound <= 0) throw std::runtime_error("cannot listen on " + ztsdsim::hostPortText(host, port));
        url_ = "http://" + ztsdsim::hostPortText(host, static_cast<unsigned>(bound)) + "/";
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        for (int waited = 0; !server_.is_running() && waited < 10000; ++waited) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    void stop() {
        server_.stop();
        if (thread_.joinable()) thread_.join();
    }

    const std::string& url() const { return url_; }

private:
    static void answer(httplib::Response& response, int status, const std::string& error) {
        response.status = status;
        cJSON* object = cJSON_CreateObject();
        cJSON_AddBoolToObject(object, "ok", status == 200);
        if (status != 200) cJSON_AddStringToObject(object, "error", error.c_str());
        response.set_content(printJson(object) + "\n", "application/json");
    }

    static std::int64_t integerParam(const httplib::Request& request, const char* name, std::int64_t fallback,
                                     bool required) {
        if (!request.has_param(name)) {
            if (required) throw std::domain_error(std::string("missing ?") + name + "=<integer>");
            return fallback;
        }
        const std::string text = request.get_param_value(name);
        char* end = nullptr;
        errno = 0;
        const long long value = std::strtoll(text.c_str(), &end, 10);
        if (text.empty() || *end != '\0' || errno == ERANGE) {
            throw std::domain_error(std::string(name) + " is not an integer: \"" + text + "\"");
        }
        return value;
    }

    void act(const httplib::Request& request, httplib::Response& response) {
        std::lock_guard<std::mutex> lock(mutex_);
        const std::string index = request.matches[1];
        const std::string action = request.matches[2];
        if (index.size() > 3 || std::stoul(index) >= chassis_.size()) {
            return answer(response, 404, "no chassis " + index);
        }
        ProgramChassis& chassis = *chassis_[std::stoul(index)];
        try {
            const std::string devices = "devices/";
            if (action == "down") {
                chassis.down();
            } else if (action == "up") {
                chassis.up();
            } else if (action == "clock/step") {
                chassis.stepClock(integerParam(request, "ns", 0, true));
            } else if (action == "clock/slew") {
                chassis.slewClock(integerParam(request, "ppb", 0, true));
            } else if (action.rfind(devices, 0) == 0 && action.find('/', devices.size()) != std::string::npos) {
                const std::size_t slash = action.find('/', devices.size());
                const std::string name = action.substr(devices.size(), slash - devices.size());
                const std::string what = action.substr(slash + 1);
                if (what == "loss") {
                    const std::int64_t count = integerParam(request, "count", 1, false);
                    if (count < 1 || count > 1000000) throw std::domain_error("count must be 1 to 1000000");
                    chassis.addLoss(name, static_cast<std::uint32_t>(count));
                } else if (what == "coherent" || what == "incoherent") {
                    chassis.setCoherent(name, what == "coherent");
                } else {
                    return answer(response, 404, "no such control: " + action);
                }
            } else {
                return answer(response, 404, "no such control: " + action);
            }
        } catch (const std::invalid_argument& error) {
            return answer(response, 404, error.what());
        } catch (const std::domain_error& error) {
            return answer(response, 400, error.what());
        } catch (const std::exception& error) {
            return answer(response, 500, error.what());  // a chassis that cannot come up again
        }
        answer(response, 200, "");
    }

    std::vector<std::unique_ptr<ProgramChassis>>& chassis_;
    std::mutex& mutex_;
    httplib::Server server_;
    std::thread thread_;
    std::string url_;
};

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Simulated chassis (web service and timestamp daemon) for ztsdlib tests and demos"};
    app.allow_windows_style_options(false);  // options are spelled the same on every system
    Settings settings;
    unsigned port = 0;
    unsigned daemonPort = 0;
    unsigned controlPort = 0;
    unsigned chassisCount = 1;
    std::vector<std::int64_t> offsets;
    std::vector<std::int64_t> rates;
    app.add_option("--host", settings.host, "Address to listen on")->capture_default_str();
    app.add_option("--port", port, "First web service port (0 = ephemeral ports)")
        ->capture_default_str()->check(CLI::Range(0, 65535));
    app.add_option("--daemon-port", daemonPort, "First timestamp daemon port (0 = ephemeral ports)")
        ->capture_default_str()->check(CLI::Range(0, 65535));
    app.add_option("--control-port", controlPort, "Port of the control server (0 = ephemeral)")
        ->capture_default_str()->check(CLI::Range(0, 65535));
    app.add_option("--chassis", chassisCount, "Number of chassis")->capture_default_str()->check(CLI::Range(1, 256));
    app.add_option("--devices-per-chassis", settings.devices, "Syncable devices per chassis")
        ->capture_default_str()->check(CLI::Range(0, 4096));
    app.add_option("--timescales", settings.timescales, "Timescale entries per chassis")
        ->capture_default_str()->check(CLI::Range(0, 256));
    app.add_option("--clock-offset-ns", offsets,
                   "Clock offset (remote - host) in ns: one value for every chassis or one per chassis")
        ->delimiter(',');
    app.add_option("--clock-rate-ppb", rates,
                   "Clock rate deviation in parts per billion: one value for every chassis or one per chassis")
        ->delimiter(',');
    app.add_option("--plugin", settings.plugin, "Plugin segment of every resource path")->capture_default_str();
    app.add_option("--latency-ms", settings.latency_ms, "Delay before every answer, in milliseconds")
        ->capture_default_str()->check(CLI::Range(0, 600000));
    app.add_flag("--incoherent", settings.incoherent, "Devices start out not coherent");
    app.add_option("--daemon-reply-delay-us", settings.replyDelay_us,
                   "Hold every daemon time reply back this long after reading the clock (a slow return path)")
        ->capture_default_str()->check(CLI::Range(0u, 1000000u));
    app.add_option("--daemon-reply-jitter-us", settings.replyJitter_us,
                   "Plus a uniform random delay up to this, per reply")
        ->capture_default_str()->check(CLI::Range(0u, 1000000u));
    app.add_option("--daemon-drift-us", settings.drift_us,
                   "OUT[,BACK]: each leg of a daemon time call wanders between 0 and this many microseconds "
                   "over seconds (one value: both legs alike)")
        ->delimiter(',')->expected(1, 2)->check(CLI::Range(0u, 1000000u));
    app.add_option("--max-workers", settings.maxWorkers, "Connections served at once per chassis")
        ->capture_default_str();
    const std::vector<std::pair<std::string, ztsdsim::ListingForm>> listingForms = {
        {"hosts", ztsdsim::ListingForm::withHosts},
        {"paths", ztsdsim::ListingForm::pathsOnly},
        {"mixed", ztsdsim::ListingForm::mixed}};
    app.add_option("--listing-form", settings.listingForm,
                   "How the listing names resources: hosts (/<host>/ztsdwebs/...), paths (/ztsdwebs/..., "
                   "without the host, as chassis that do not know the name they were reached by) or mixed")
        ->transform(namedChoice(listingForms, "listing form", "listing forms"))
        ->default_str("hosts");
    app.add_flag("--strict-http", settings.strictHttp,
                 "Web services with the habits of minimal web servers: Expect: 100-continue never answered, "
                 "chunked request bodies refused (411)");
    app.add_option("--daemon-personality", settings.daemonPersonality,
                   "How the daemons answer time calls: faithful, or a broken daemon (wrong-method-name, "
                   "invalid-message-type, wrong-sequence-id, huge-lengths, http-server, byte-at-a-time)")
        ->transform(namedChoice(ztsdsim::daemonPersonalityNames(), "daemon personality", "daemon personalities"))
        ->default_str("faithful");
    app.add_option("--daemon-drip-ms", settings.dripInterval_ms,
                   "Milliseconds between the bytes of a byte-at-a-time reply")
        ->capture_default_str()->check(CLI::Range(1, 60000));
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        // Help is not an error; every wrong command line exits 2 (CLI11's
        // own codes are its internal numbers).
        return app.exit(error) == 0 ? 0 : 2;
    }

    for (const auto& [name, first] : {std::pair<const char*, unsigned>{"ports", port}, {"daemon ports", daemonPort}}) {
        if (first != 0 && first + chassisCount - 1 > 65535) {
            std::cerr << "ztsd-sim: " << name << " " << first << " to " << first + chassisCount - 1
                      << " do not all exist\n";
            return 2;
        }
    }
    const auto offset_ns = perChassis(offsets, chassisCount);
    const auto rate_ppb = perChassis(rates, chassisCount);
    if (!offset_ns || !rate_ppb) {
        std::cerr << "ztsd-sim: --clock-offset-ns and --clock-rate-ppb take one value or one per chassis ("
                  << chassisCount << ")\n";
        return 2;
    }

    // Stop requests are held from here on (before any server thread starts)
    // and taken by waitForStop below.
    ztsdsim::holdStopRequests();

    std::mutex mutex;  // every chassis' state, between the control server and this thread
    std::vector<std::unique_ptr<ProgramChassis>> chassis;
    ControlServer control(chassis, mutex);
    try {
        for (unsigned c = 0; c < chassisCount; ++c) {
            chassis.push_back(std::make_unique<ProgramChassis>(
                c, settings, static_cast<std::uint16_t>(port == 0 ? 0 : port + c),
                static_cast<std::uint16_t>(daemonPort == 0 ? 0 : daemonPort + c), (*offset_ns)[c], (*rate_ppb)[c]));
            chassis.back()->up();
        }
        control.start(settings.host, static_cast<std::uint16_t>(controlPort));
    } catch (const std::exception& error) {
        const std::string why = error.what();
        std::cerr << (why.rfind("ztsd-sim: ", 0) == 0 ? "" : "ztsd-sim: ") << why << "\n";
        for (auto& one : chassis) one->down();
        return 1;
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        for (auto& one : chassis) {
            one->printHuman(std::cout);
            std::cout << one->describe(control.url()) << "\n";
        }
    }
    std::cout << "control " << control.url() << "\n";
    std::cout << "ready" << std::endl;

    const std::string received = ztsdsim::waitForStop();
    control.stop();
    for (auto& one : chassis) one->down();
    std::cout << "stopped on " << received << std::endl;
    return 0;
}
