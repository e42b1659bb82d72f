// The fault matrix: for every network fault the simulated chassis can show
// (its web service "ztsdwebs" and its timestamp daemon "zttimestampd"), the
// code each network-facing operation of the library hands its caller. The
// cells are the tables of docs/faultMatrix.md, read from the text the build
// embeds (faultMatrixDocument.h); how each row's fault is put on the
// simulators is tests/data/faultInjections.txt. The matrix test runs every
// cell against real simulators, and the soak test accepts for a call exactly
// 0 or the cells of the faults active while it ran.
//
// A cell holds the caller's code and "error_constant", and the code
// underneath it when there is one (the HTTP client's own code that the
// request helpers translated, kept as "originalCode"; a member's or the
// daemon's error kept in "nested_error"). Every applicable cell also
// promises that the same call on the same objects succeeds once the fault is
// cleared.
#pragma once

#include <cjson/cJSON.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "api/exportFrame.h"
#include "errors/errorCodes.h"
#include "faultMatrixDocument.h"
#include "integration/remote/remoteTestSupport.h"
#include "syncdomain/syncableDeviceProxy.h"
#include "timestampservice/timescaleProxy.h"
#include "ztsd-sim/chassisSimulator.h"
#include "ztsd-sim/timestampDaemonSimulator.h"

namespace faultmatrix {

// Every operation that touches the network, as a caller reaches it.
enum class Op : std::size_t {
    DevicePut,               // ztsdlib_SyncableDevice_setCoherencyRequirements
    DeviceIsCoherent,        // ztsdlib_SyncableDevice_isCoherent
    DeviceToJson,            // ztsdlib_SyncableDevice_toJson
    DomainStart,             // ztsdlib_SyncDomain_start
    DomainIsCoherent,        // ztsdlib_SyncDomain_isCoherent
    DomainSinceLastChecked,  // ztsdlib_SyncDomain_isCoherentSinceLastChecked
    DomainToJson,            // ztsdlib_SyncDomain_toJson
    LoadResources,           // ztsdlib_loadProxyResources
    TimescaleGetTime,        // ztsdlib_Timescale_getTime of a timescale proxy
    CorrelatorCorrelate,     // ztsdlib_TimestampCorrelator_correlate (linear, host and remote)
    CorrelatorStop,          // ztsdlib_TimestampCorrelator_stop after sampling under the fault
};
constexpr std::size_t kOpCount = 11;

inline const char* opTitle(Op op) {
    static const char* const titles[kOpCount] = {
        "device PUT", "device isCoherent", "device toJson", "domain start", "domain isCoherent",
        "domain sinceLastChecked", "domain toJson", "loadProxyResources", "getTime", "correlate", "correlator stop"};
    return titles[static_cast<std::size_t>(op)];
}

// The operations the matrix test runs together, one parameterised test each.
enum class Family { Device, Domain, Loading, RemoteTime };

inline std::vector<Op> opsOf(Family family) {
    switch (family) {
        case Family::Device: return {Op::DevicePut, Op::DeviceIsCoherent, Op::DeviceToJson};
        case Family::Domain:
            return {Op::DomainStart, Op::DomainIsCoherent, Op::DomainSinceLastChecked, Op::DomainToJson};
        case Family::Loading: return {Op::LoadResources};
        case Family::RemoteTime: return {Op::TimescaleGetTime, Op::CorrelatorCorrelate, Op::CorrelatorStop};
    }
    return {};
}

// One cell.
struct Outcome {
    bool applies = false;
    std::int32_t code = 0;        // the caller's status code
    std::string constant;         // its "error_constant" ("" for success)
    std::int32_t cause = 0;       // found as "originalCode" or a nested "code" in the report; 0: none asserted
};

// How a fault is put on the simulators and taken off again: the names
// tests/data/faultInjections.txt uses (injectWeb and injectDaemon below say
// what each does). Every daemon fault's name begins with "daemon".
constexpr const char* kInjectionKinds[] = {
    "webStopped", "web", "deviceVersionMissing", "deviceVersionUnsupported", "deviceWrongUri",
    "listingVersionMissing", "listingVersionUnsupported", "daemonStopped", "daemonRefuse", "daemonDropCalls",
    "daemonStallCalls", "daemonFailCalls", "daemonRemoveTimescale", "daemonWrongUri", "daemonVersionDown",
    "daemonVersionUp", "daemonDropConnections", "daemonSlow"};

// How late a slow daemon answers: well within any socket time-out used here.
constexpr int kSlowDaemon_ms = 40;
// The code a failing daemon sends in its thrift_zterr.
constexpr std::int32_t kDaemonErrorCode = zterr::code::ztapalerr_resourceNotFound;

struct FaultRow {
    std::string id;          // "H07": the row's name in the document and in test names
    std::string fault;       // what the caller's peer does
    std::string injection;   // one of kInjectionKinds
    ztsdsim::Fault web;      // for WebFault
    std::uint32_t count = 0; // for the daemon's counted faults
    std::array<Outcome, kOpCount> cells{};

    const Outcome& cell(Op op) const { return cells[static_cast<std::size_t>(op)]; }
    bool isWebFault() const { return injection.rfind("daemon", 0) != 0; }
    // The rows whose daemon changes from or answers as version 1 need one when the proxy is made.
    std::int32_t daemonVersionAtCreation() const {
        return injection == "daemonWrongUri" || injection == "daemonVersionUp" ? 1 : 2;
    }
    bool appliesTo(Family family) const {
        for (Op op : opsOf(family))
            if (cell(op).applies) return true;
        return false;
    }
};

// The rows read from the document, and what went wrong reading them ("" if
// nothing did: an error or an empty table fails the matrix test).
struct Table {
    std::vector<FaultRow> rows;
    std::size_t cells = 0;  // applicable cells
    std::string error;
};

namespace detail {

// "| a | b |" -> {"a", "b"}
inline std::vector<std::string> columnsOf(const std::string& line) {
    std::vector<std::string> columns;
    if (line.rfind('|', 0) != 0) return columns;
    for (std::size_t at = 1, bar; (bar = line.find('|', at)) != std::string::npos; at = bar + 1) {
        const std::size_t first = line.find_first_not_of(' ', at);
        const std::size_t last = line.find_last_not_of(' ', bar - 1);
        columns.push_back(first < bar ? line.substr(first, last + 1 - first) : "");
    }
    return columns;
}

// "n/a", "0 ok", "<code> <constant>" or "<code> <constant> (<cause>)".
inline bool parseOutcome(const std::string& text, Outcome& cell) {
    if (text == "n/a") return (cell = Outcome{}), true;
    if (text == "0 ok") return (cell = Outcome{true}), true;
    std::istringstream in(text);
    std::string cause;
    cell.applies = true;
    if (!(in >> cell.code >> cell.constant) || cell.code == 0) return false;
    if (!(in >> cause)) return true;
    if (cause.size() < 3 || cause.front() != '(' || cause.back() != ')' || !(in >> std::ws).eof()) return false;
    cell.cause = std::stoi(cause.substr(1, cause.size() - 2));
    return cell.cause != 0;
}

// One line of the injection table: "<id> <injection> [<argument>]".
inline std::string parseInjection(std::istringstream& in, FaultRow& row) {
    std::string name, what;
    in >> name;
    if (std::find(std::begin(kInjectionKinds), std::end(kInjectionKinds), name) == std::end(kInjectionKinds))
        return "unknown injection " + name;
    row.injection = name;
    if (name != "web") {
        in >> row.count;
        return "";
    }
    bool argument = true;
    in >> what;
    if (what == "drop") row.web.dropConnection = true;
    else if (what == "stall") row.web.stall = true;
    else if (what == "latency") argument = static_cast<bool>(in >> row.web.latency_ms);
    else if (what == "status") argument = static_cast<bool>(in >> row.web.httpStatus);
    else if (what == "body") argument = static_cast<bool>(std::getline(in >> std::ws, row.web.rawBody));
    else if (what == "envelope") argument = static_cast<bool>(in >> row.web.errorCode);
    else return "unknown web fault " + what;
    row.web.hasRawBody = what == "body";
    if (what == "envelope") {
        row.web.envelopeError = true;
        row.web.errorText = "chassis busy";
        row.web.errorInfoJson = "{\"retryAfter_ms\":100}";
    }
    return argument ? "" : "no argument to " + what;
}

// The document's fault tables ("| id | fault | <operation>... | note |") and
// the injection table's lines, merged by row id.
inline Table parse(const std::string& document, const std::string& injections) {
    Table table;
    auto fail = [&table](const std::string& why, const std::string& line) {
        if (table.error.empty()) table.error = why + ": " + line;
    };
    auto rowNamed = [&table](const std::string& id) -> FaultRow* {
        for (FaultRow& row : table.rows)
            if (row.id == id) return &row;
        return nullptr;
    };
    std::istringstream lines(document);
    std::vector<Op> ops;  // the columns of the table being read; empty outside a fault table
    for (std::string line; std::getline(lines, line);) {
        const std::vector<std::string> columns = columnsOf(line);
        if (columns.size() < 3 || line.rfind("|---", 0) == 0) {
            if (columns.empty()) ops.clear();
            continue;
        }
        if (columns[0] == "id" && columns[1] == "fault" && columns.back() == "note") {
            ops.clear();
            for (std::size_t i = 2; i + 1 < columns.size(); ++i) {
                std::size_t op = 0;
                while (op < kOpCount && columns[i] != opTitle(static_cast<Op>(op))) ++op;
                if (op < kOpCount) ops.push_back(static_cast<Op>(op));
                else fail("unknown operation " + columns[i], line);
            }
            if (ops.size() + 3 != columns.size()) ops.clear();
            continue;
        }
        if (ops.empty()) continue;
        if (columns.size() != ops.size() + 3) fail("wrong number of cells", line);
        FaultRow* row = rowNamed(columns[0]);
        if (!row) row = &table.rows.emplace_back(FaultRow{columns[0], columns[1]});
        if (row->fault != columns[1]) fail("another fault under the same id", line);
        for (std::size_t i = 0; i < ops.size() && i + 2 < columns.size(); ++i) {
            if (!parseOutcome(columns[i + 2], row->cells[static_cast<std::size_t>(ops[i])]))
                fail("unreadable cell \"" + columns[i + 2] + "\"", line);
        }
    }
    std::istringstream injectionLines(injections);
    for (std::string line; std::getline(injectionLines, line);) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream in(line);
        std::string id;
        in >> id;
        FaultRow* row = rowNamed(id);
        const std::string why = row ? parseInjection(in, *row) : "no row " + id + " in the document";
        if (!why.empty()) fail(why, line);
    }
    for (const FaultRow& row : table.rows) {
        if (row.injection.empty()) fail("no injection for the row", row.id);
        for (const Outcome& cell : row.cells) table.cells += cell.applies ? 1 : 0;
    }
    if (table.rows.empty()) fail("no fault rows", "the document has no table of faults");
    return table;
}

}  // namespace detail

inline const Table& table() {
    static const Table parsed = detail::parse(kDocument, kInjections);
    return parsed;
}

inline const std::vector<FaultRow>& rows() { return table().rows; }

inline const FaultRow* findRow(const std::string& id) {
    for (const FaultRow& row : rows())
        if (id == row.id) return &row;
    return nullptr;
}

// ---- injecting on the simulators ------------------------------------------

// Puts a web-service fault (other than webStopped) on `sim`; `device` names
// the device whose payload the device faults change.
inline void injectWeb(const FaultRow& row, ztsdsim::ChassisSimulator& sim, const std::string& device) {
    const std::string& kind = row.injection;
    if (kind == "web") sim.setFault("", row.web);
    if (kind == "deviceVersionMissing") sim.setDeviceVersion(device, std::nullopt);
    if (kind == "deviceVersionUnsupported") sim.setDeviceVersion(device, 2);
    if (kind == "deviceWrongUri") sim.setDeviceReportedUri(device, "/ztsdwebs/resources/ztsd/syncableDevices/other");
    if (kind == "listingVersionMissing") sim.setListingVersion(std::nullopt);
    if (kind == "listingVersionUnsupported") sim.setListingVersion(2);
}

inline void clearWeb(const FaultRow& row, ztsdsim::ChassisSimulator& sim, const std::string& device) {
    const std::string& kind = row.injection;
    if (kind == "web") sim.clearFaults();
    if (kind.rfind("deviceVersion", 0) == 0) sim.setDeviceVersion(device, 1);
    if (kind == "deviceWrongUri") sim.setDeviceReportedUri(device, sim.deviceResourcePath(device));
    if (kind.rfind("listingVersion", 0) == 0) sim.setListingVersion(1);
}

// Puts a daemon fault (other than daemonStopped) on `daemon`; `gmId` names
// the timescale the proxies read. A refusing daemon also resets the
// connections already open; a slow one holds every call kSlowDaemon_ms.
inline void injectDaemon(const FaultRow& row, ztsdsim::TimestampDaemonSimulator& daemon, const std::string& gmId) {
    const std::string& kind = row.injection;
    if (kind == "daemonRefuse") daemon.refuseConnections(row.count);
    if (kind == "daemonRefuse" || kind == "daemonDropConnections") daemon.dropConnections();
    if (kind == "daemonDropCalls") daemon.dropCalls(row.count);
    if (kind == "daemonStallCalls") daemon.stallCalls(row.count);
    if (kind == "daemonSlow") daemon.stallCalls(row.count, kSlowDaemon_ms);
    if (kind == "daemonFailCalls")
        daemon.failCalls(row.count, kDaemonErrorCode,
                         "{\"error_constant\":\"ztapalerr_resourceNotFound\",\"component\":\"zttimestampd\"}");
    if (kind == "daemonRemoveTimescale") daemon.removeTimescale(gmId);
    if (kind == "daemonWrongUri")
        daemon.setReportedUri(ztsdsim::TimestampDaemonSimulator::localTimescaleUri("00-00-00-00-00-00-00-00"));
    if (kind == "daemonVersionDown" || kind == "daemonVersionUp") daemon.setApiVersion(kind == "daemonVersionUp" ? 2 : 1);
}

inline void clearDaemon(const FaultRow& row, ztsdsim::TimestampDaemonSimulator& daemon, const std::string& gmId) {
    daemon.clearFaults();
    if (row.injection == "daemonRemoveTimescale") daemon.addTimescale(gmId);
    if (row.injection == "daemonVersionDown" || row.injection == "daemonVersionUp")
        daemon.setApiVersion(row.daemonVersionAtCreation());
}

// ---- handles with short time-outs ----------------------------------------

// The exports fix a 5000 ms time-out; the matrix and the soak make their
// proxies with shorter ones and hand them to the exports as handles, so a
// stall costs little.
inline ztsdlib_SyncableDevice* deviceHandle(const std::string& uri, unsigned requestTimeout_ms) {
    return ztsdlib::api::handleOf<ztsdlib_SyncableDevice>(
        static_cast<ztsdlib::SyncableDeviceInterface*>(new ztsdlib::SyncableDeviceProxy(uri, requestTimeout_ms)));
}

inline ztsdlib_Timescale* timescaleProxyHandle(const std::string& uri, const std::string& daemonHost,
                                               std::uint16_t daemonPort, std::uint32_t socketTimeout_ms) {
    ztsdlib::TimescaleProxySettings settings;
    settings.socketTimeout_ms = socketTimeout_ms;
    return ztsdlib::api::handleOf<ztsdlib_Timescale>(static_cast<ztsdlib::TimescaleInterface*>(
        new ztsdlib::TimescaleProxy(uri, daemonHost, daemonPort, settings)));
}

// What a caller holds, made through the exports (devices and the remote
// timescale with short time-outs, as handles) and deleted receivers first,
// the pool before the devices its late tasks may still use.
struct CallerObjects {
    ~CallerObjects() {
        ztsdlib_TimestampCorrelator_delete(correlator);
        ztsdlib_SyncDomain_delete(domain);
        ztsdlib_ThreadPool_delete(pool);
        for (ztsdlib_SyncableDevice* d : devices) ztsdlib_SyncableDevice_delete(d);
        ztsdlib_Timescale_delete(remote);
        ztsdlib_Timescale_delete(host);
    }

    ztsdlib_SyncableDevice* device(const std::string& uri, unsigned requestTimeout_ms) {
        return devices.emplace_back(deviceHandle(uri, requestTimeout_ms));
    }

    // A domain on its own pool of `threads` over a device for each URI.
    void makeDomain(const char* uri, std::uint32_t threads, const std::vector<std::string>& deviceUris,
                    unsigned requestTimeout_ms, zterr_Status* status) {
        makeHost(status);
        pool = ztsdlib_ThreadPool_create(threads, status);
        domain = ztsdlib_SyncDomain_create(uri, host, 1000, 100, pool, status);
        for (const std::string& deviceUri : deviceUris)
            ztsdlib_SyncDomain_addSyncableDevice(domain, device(deviceUri, requestTimeout_ms), status);
    }

    // A linear correlator of the host clock and a timescale proxy of the daemon.
    void makeCorrelator(const char* uri, const std::string& remoteUri, const std::string& daemonHost,
                        std::uint16_t daemonPort, std::uint32_t socketTimeout_ms, std::uint32_t samples,
                        std::uint32_t firstWait_ms, zterr_Status* status) {
        makeHost(status);
        remote = timescaleProxyHandle(remoteUri, daemonHost, daemonPort, socketTimeout_ms);
        correlator = ztsdlib_LinearCorrelator_create(uri, host, remote, 5, samples, firstWait_ms, status);
    }

    void makeHost(zterr_Status* status) {
        if (!host) host = ztsdlib_HostTimescale_create(ZTSDLIB_HOST_TIMESCALE_URI, status);
    }

    ztsdlib_Timescale* host = nullptr;
    ztsdlib_Timescale* remote = nullptr;
    ztsdlib_TimestampCorrelator* correlator = nullptr;
    void* pool = nullptr;
    ztsdlib_SyncDomain* domain = nullptr;
    std::vector<ztsdlib_SyncableDevice*> devices;
};

// ---- reading a caller's report --------------------------------------------

// Whether `code` appears anywhere in the report as the number of an
// "originalCode" or "code" member (the translated client error, a nested
// member or daemon error).
inline bool reportCarriesCause(const cJSON* item, std::int32_t code) {
    for (const cJSON* child = item ? item->child : nullptr; child; child = child->next) {
        if (cJSON_IsNumber(child) && child->string &&
            (std::string(child->string) == "originalCode" || std::string(child->string) == "code") &&
            static_cast<std::int64_t>(child->valuedouble) == code)
            return true;
        if (reportCarriesCause(child, code)) return true;
    }
    return false;
}

}  // namespace faultmatrix
