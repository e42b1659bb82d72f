// The fault matrix: for every network fault the simulated chassis can show
// (its web service "ztsdwebs" and its timestamp daemon "zttimestampd"), the
// code each network-facing operation of the library hands its caller, as
// data. docs/faultMatrix.md is the readable form of this table (a test
// checks that every row appears there as renderRow() writes it), the matrix
// test runs every cell against real simulators, and the soak test accepts
// for a call exactly 0 or the cells of the faults active while it ran.
//
// A cell holds the caller's code and "error_constant", and the code
// underneath it when there is one (the HTTP client's own code that the
// request helpers translated, kept as "originalCode"; a member's or the
// daemon's error kept in "nested_error"). Every applicable cell also
// promises that the same call on the same objects succeeds once the fault is
// cleared.
#pragma once

#include <cjson/cJSON.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "api/exportFrame.h"
#include "errors/errorCodes.h"
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
    const char* constant = "";    // its "error_constant" ("" for success)
    std::int32_t cause = 0;       // found as "originalCode" or a nested "code" in the report; 0: none asserted
};

inline Outcome notApplicable() { return Outcome{}; }
inline Outcome success() { return Outcome{true, 0, "", 0}; }
inline Outcome error(std::int32_t code, const char* constant, std::int32_t cause = 0) {
    return Outcome{true, code, constant, cause};
}
inline Outcome communicationsFault(std::int32_t cause = 0) {
    return error(zterr::code::ztapalerr_communicationsFault, zterr::name::ztapalerr_communicationsFault, cause);
}

// How a fault is put on the simulators and taken off again.
enum class Injection {
    WebStopped,            // the web service is stopped; restarted on its port to clear
    WebFault,              // ChassisSimulator::setFault("", web)
    DeviceVersionMissing,  // the device answers without "version"
    DeviceVersionUnsupported,  // the device answers "version":2
    DeviceWrongUri,        // the device reports another "uri"
    ListingVersionMissing,     // the listing without "version"
    ListingVersionUnsupported, // the listing with "version":2
    DaemonStopped,         // nothing listens on the daemon's port (it stops; a new one comes back on it)
    DaemonRefuse,          // refuseConnections(count), then dropConnections()
    DaemonDropCalls,       // dropCalls(count)
    DaemonStallCalls,      // stallCalls(count)
    DaemonFailCalls,       // failCalls(count, kDaemonErrorCode, ...)
    DaemonRemoveTimescale, // the daemon no longer serves the timescale (the listing still names it)
    DaemonWrongUri,        // a version 1 daemon answers getTime with another timescale's URI
    DaemonVersionDown,     // the daemon turns from version 2 to version 1 after the proxy was made
    DaemonVersionUp,       // the daemon turns from version 1 to version 2 after the proxy was made
    DaemonDropConnections, // every open connection is shut down once
    DaemonSlow,            // every call is held about kSlowDaemon_ms, then answered
};

// How late a slow daemon answers: well within any socket time-out used here.
constexpr int kSlowDaemon_ms = 40;
// The code a failing daemon sends in its thrift_zterr.
constexpr std::int32_t kDaemonErrorCode = zterr::code::ztapalerr_resourceNotFound;
// The code a failing web service sends in its envelope.
constexpr std::int32_t kEnvelopeErrorCode = -50123;

struct FaultRow {
    const char* id;          // "H07": the row's name in the doc and in test names
    const char* fault;       // what the caller's peer does
    Injection injection;
    ztsdsim::Fault web;      // for WebFault
    std::uint32_t count = 0; // for the daemon's counted faults
    std::int32_t daemonVersionAtCreation = 2;
    const char* note = "";
    std::array<Outcome, kOpCount> cells{};

    const Outcome& cell(Op op) const { return cells[static_cast<std::size_t>(op)]; }
    bool isWebFault() const { return injection < Injection::DaemonStopped; }
    bool appliesTo(Family family) const {
        for (Op op : opsOf(family))
            if (cell(op).applies) return true;
        return false;
    }
};

namespace detail {

using remotetest::rawBody;
using remotetest::status;

// A web row: the cells of the eight web operations, the others not applicable.
inline FaultRow webRow(const char* id, const char* fault, Injection injection, ztsdsim::Fault web,
                       std::array<Outcome, 8> cells, const char* note = "") {
    FaultRow row{id, fault, injection, std::move(web)};
    row.note = note;
    for (std::size_t i = 0; i < 8; ++i) row.cells[i] = cells[i];
    return row;
}

// A fault every web operation meets as a failed request: the device calls
// and the listing fail with -52024 (cause: the client's own code), a domain
// fan-out fails with -52024 with the member's report nested, and the
// domain's toJson succeeds with the member's error inside its entry.
inline FaultRow failedRequest(const char* id, const char* fault, Injection injection, ztsdsim::Fault web,
                              std::int32_t cause, const char* note = "") {
    const Outcome e = communicationsFault(cause);
    return webRow(id, fault, injection, std::move(web), {e, e, e, e, e, e, success(), e}, note);
}

// A fault the client does not notice.
inline FaultRow unnoticed(const char* id, const char* fault, ztsdsim::Fault web, const char* note) {
    const Outcome s = success();
    return webRow(id, fault, Injection::WebFault, std::move(web), {s, s, s, s, s, s, s, s}, note);
}

// A fault of the device's own payload: the PUT reply is not read; the GETs
// fail with `code`; a domain fails its checks with -52024 and the member's
// error nested; the listing does not involve the device.
inline FaultRow devicePayload(const char* id, const char* fault, Injection injection, Outcome isCoherent,
                              Outcome toJson, const char* note = "") {
    const Outcome domain = isCoherent.code == 0 ? success() : communicationsFault(isCoherent.code);
    return webRow(id, fault, injection, ztsdsim::Fault{},
                  {success(), isCoherent, toJson, domain, domain, domain, success(), notApplicable()}, note);
}

inline FaultRow listingPayload(const char* id, const char* fault, Injection injection) {
    const Outcome n = notApplicable();
    return webRow(id, fault, injection, ztsdsim::Fault{},
                  {n, n, n, n, n, n, n, error(zterr::code::ztapalerr_invalidParameter,
                                              zterr::name::ztapalerr_invalidParameter)});
}

// A daemon row: getTime, correlate, correlator stop, loadProxyResources.
inline FaultRow daemonRow(const char* id, const char* fault, Injection injection, std::uint32_t count,
                          Outcome getTime, Outcome load, const char* note = "", std::int32_t versionAtCreation = 2) {
    FaultRow row{id, fault, injection, ztsdsim::Fault{}, count, versionAtCreation};
    row.note = note;
    row.cells[static_cast<std::size_t>(Op::TimescaleGetTime)] = getTime;
    // A reading that fails ends the correlator's sampling before a sample
    // exists: the first correlate waits out its time and finds no history,
    // and stop() passes on what ended the sampling.
    row.cells[static_cast<std::size_t>(Op::CorrelatorCorrelate)] =
        getTime.code == 0 ? success()
                          : error(zterr::code::ztapalerr_resourceNotInitialized,
                                  zterr::name::ztapalerr_resourceNotInitialized);
    row.cells[static_cast<std::size_t>(Op::CorrelatorStop)] = getTime;
    row.cells[static_cast<std::size_t>(Op::LoadResources)] = load;
    return row;
}

}  // namespace detail

inline const std::vector<FaultRow>& rows() {
    using namespace detail;
    using zterr::code::ztapalerr_communicationsFault;
    namespace c = zterr::code;
    namespace n = zterr::name;
    static const std::vector<FaultRow> table = [] {
        ztsdsim::Fault drop;
        drop.dropConnection = true;
        ztsdsim::Fault stall;
        stall.stall = true;
        ztsdsim::Fault slow;
        slow.latency_ms = 40;
        ztsdsim::Fault envelope;
        envelope.envelopeError = true;
        envelope.errorCode = kEnvelopeErrorCode;
        envelope.errorText = "chassis busy";
        envelope.errorInfoJson = "{\"retryAfter_ms\":100}";
        ztsdsim::Fault envelopeZero = envelope;
        envelopeZero.errorCode = 0;
        const char* const truncated = "{\"error\":{\"success\":true,\"errorCode\":0,\"errorText\":\"\",\"errorI";
        const Outcome envelopeCode = error(kEnvelopeErrorCode, "errorCode");
        const Outcome domainOfEnvelope = communicationsFault(kEnvelopeErrorCode);
        const Outcome removed = error(c::ztapalerr_resourceRemoved, n::ztapalerr_resourceRemoved);

        std::vector<FaultRow> t;
        t.push_back(failedRequest("H01", "web service not listening (connection refused)", Injection::WebStopped, {},
                                  c::kInternalSoftwareErrorUnknownNetworkError));
        t.push_back(failedRequest("H02", "connection reset without an answer", Injection::WebFault, drop,
                                  c::kInternalSoftwareErrorUnknownNetworkError));
        t.push_back(failedRequest("H03", "request stalled past the client's time-out", Injection::WebFault, stall,
                                  c::kInternalSoftwareErrorUnknownNetworkError,
                                  "the test's device proxies time out after 250 ms; loading waits out the export's "
                                  "fixed 5000 ms"));
        t.push_back(unnoticed("H04", "answer 40 ms late, within the time-out", slow, ""));
        t.push_back(failedRequest("H05", "status 100 (1xx), no body", Injection::WebFault, status(100),
                                  c::kInternalSoftwareErrorUnknownNetworkError,
                                  "an interim status and no final answer: the client waits out its time-out (loading: "
                                  "5000 ms)"));
        t.push_back(unnoticed("H06", "status 301 (3xx) with the usual envelope", status(301),
                              "statuses outside 202, 400-498 and 500-598 go on to the body; a faulted PUT is "
                              "not stored by the chassis, yet the caller sees success"));
        t.push_back(failedRequest("H07", "status 304 (3xx), no body", Injection::WebFault, status(304),
                                  c::kInvalidJSONResponseFromServer));
        t.push_back(failedRequest("H08", "status 400", Injection::WebFault, status(400),
                                  c::kNetworkClientBadRequestError));
        t.push_back(failedRequest("H09", "status 401", Injection::WebFault, status(401),
                                  c::kNetworkClientUnauthorizedError));
        t.push_back(failedRequest("H10", "status 404", Injection::WebFault, status(404),
                                  c::kNetworkClientNotFoundError));
        t.push_back(failedRequest("H11", "status 408", Injection::WebFault, status(408),
                                  c::kNetworkClientRequestTimeoutError));
        t.push_back(failedRequest("H12", "status 415", Injection::WebFault, status(415),
                                  c::kNetworkClientUnsupportedMediaType));
        t.push_back(failedRequest("H13", "status 429 (other 4xx)", Injection::WebFault, status(429),
                                  c::kNetworkClientError));
        t.push_back(unnoticed("H14", "status 499 with the usual envelope", status(499),
                              "the 4xx range ends at 498: 499 goes on to the body"));
        t.push_back(failedRequest("H15", "status 500", Injection::WebFault, status(500), c::kNetworkServerError));
        t.push_back(failedRequest("H16", "status 503", Injection::WebFault, status(503), c::kNetworkServerError));
        t.push_back(unnoticed("H17", "status 599 with the usual envelope", status(599),
                              "the 5xx range ends at 598: 599 goes on to the body"));
        t.push_back(failedRequest("H18", "status 202 (in progress)", Injection::WebFault, status(202),
                                  c::kNetworkClientInProgress,
                                  "the client's warning +411369 becomes an error on the way out"));
        t.push_back(failedRequest("H19", "status 204, no body", Injection::WebFault, status(204),
                                  c::kInvalidJSONResponseFromServer));
        t.push_back(failedRequest("H20", "body not JSON", Injection::WebFault, rawBody("<html>busy</html>"),
                                  c::kInvalidJSONResponseFromServer));
        t.push_back(failedRequest("H21", "body truncated mid-envelope", Injection::WebFault, rawBody(truncated),
                                  c::kInvalidJSONResponseFromServer));
        t.push_back(webRow("H22", "envelope \"success\":false with errorCode -50123", Injection::WebFault, envelope,
                           {envelopeCode, envelopeCode, envelopeCode, domainOfEnvelope, domainOfEnvelope,
                            domainOfEnvelope, success(), envelopeCode},
                           "the chassis' own code reaches the caller unchanged"));
        t.push_back(failedRequest("H23", "envelope \"success\":false with errorCode 0", Injection::WebFault,
                                  envelopeZero, c::kInternalSoftwareErrorUnknownNetworkError,
                                  "a failure without a code is never taken for a success"));
        t.push_back(devicePayload(
            "H24", "device answers without \"version\"", Injection::DeviceVersionMissing,
            error(c::ztapalerr_invalidParameter, n::ztapalerr_invalidParameter),
            error(c::ztapalerr_invalidParameter, n::ztapalerr_invalidParameter)));
        t.push_back(devicePayload(
            "H25", "device answers \"version\":2", Injection::DeviceVersionUnsupported,
            error(c::ztapalerr_featureUnsupported, n::ztapalerr_featureUnsupported),
            error(c::ztapalerr_featureUnsupported, n::ztapalerr_featureUnsupported)));
        t.push_back(devicePayload("H26", "device reports another \"uri\"", Injection::DeviceWrongUri, success(),
                                  error(c::ztapalerr_invalidParameter, n::ztapalerr_invalidParameter),
                                  "only toJson compares the URI"));
        t.push_back(listingPayload("H27", "listing without \"version\"", Injection::ListingVersionMissing));
        t.push_back(listingPayload("H28", "listing with \"version\":2", Injection::ListingVersionUnsupported));

        const Outcome comms = communicationsFault();
        t.push_back(daemonRow("T01", "daemon not listening (connection refused)", Injection::DaemonStopped, 0, comms,
                              comms));
        t.push_back(daemonRow("T02", "daemon resets every connection (5 of 5 attempts)", Injection::DaemonRefuse, 5,
                              comms, comms));
        t.push_back(daemonRow("T03", "daemon resets 2 connections", Injection::DaemonRefuse, 2, success(), comms,
                              "a reading makes 5 attempts; the version handshake of a new proxy makes one"));
        t.push_back(daemonRow("T04", "daemon closes the connection mid-call, every attempt",
                              Injection::DaemonDropCalls, 5, comms, comms));
        t.push_back(daemonRow("T05", "daemon closes the connection mid-call once", Injection::DaemonDropCalls, 1,
                              success(), comms));
        t.push_back(daemonRow("T06", "daemon stalls every attempt past the socket time-out",
                              Injection::DaemonStallCalls, 5, comms, notApplicable(),
                              "the test's proxies time out after 150 ms; loading makes proxies with the fixed "
                              "5000 ms time-out, so its cell is not run; the first correlate gives up (600 ms) "
                              "while the sampling task is still in its attempts, which stop() interrupts: "
                              "nothing ended the task, nothing to report"));
        t.back().cells[static_cast<std::size_t>(Op::CorrelatorStop)] = success();
        t.push_back(daemonRow("T07", "daemon stalls one call past the socket time-out", Injection::DaemonStallCalls,
                              1, success(), notApplicable(),
                              "the next attempt is answered; a correlator's samples taken meanwhile are off by the "
                              "hold-up"));
        t.push_back(daemonRow("T08", "daemon call fails (thrift_zterr -52006)", Injection::DaemonFailCalls, 1,
                              communicationsFault(kDaemonErrorCode), success(),
                              "the daemon's status is nested; loading asks only the API version"));
        t.push_back(daemonRow("T09", "daemon no longer serves the timescale", Injection::DaemonRemoveTimescale, 0,
                              removed, success(), "loading makes proxies without reading them"));
        t.push_back(daemonRow("T10", "version 1 daemon answers with another timescale's URI",
                              Injection::DaemonWrongUri, 0, removed, success(), "", 1));
        t.push_back(daemonRow("T11", "daemon API version changes from 2 to 1", Injection::DaemonVersionDown, 0,
                              comms, success(),
                              "the proxy keeps the version of its handshake and asks a method the daemon no "
                              "longer serves"));
        t.push_back(daemonRow("T12", "daemon API version changes from 1 to 2", Injection::DaemonVersionUp, 0,
                              success(), success(), "", 1));
        t.push_back(daemonRow("T13", "daemon shuts down every open connection once",
                              Injection::DaemonDropConnections, 0, success(), success()));
        t.push_back(daemonRow("T14", "daemon answers every call 40 ms late, within the socket time-out",
                              Injection::DaemonSlow, 1000000, success(), success()));
        return t;
    }();
    return table;
}

inline const FaultRow* findRow(const std::string& id) {
    for (const FaultRow& row : rows())
        if (id == row.id) return &row;
    return nullptr;
}

// ---- injecting on the simulators ------------------------------------------

// Puts a web-service fault (other than WebStopped) on `sim`; `device` names
// the device whose payload the device faults change.
inline void injectWeb(const FaultRow& row, ztsdsim::ChassisSimulator& sim, const std::string& device) {
    switch (row.injection) {
        case Injection::WebFault: sim.setFault("", row.web); break;
        case Injection::DeviceVersionMissing: sim.setDeviceVersion(device, std::nullopt); break;
        case Injection::DeviceVersionUnsupported: sim.setDeviceVersion(device, 2); break;
        case Injection::DeviceWrongUri: sim.setDeviceReportedUri(device, "/ztsdwebs/resources/ztsd/syncableDevices/other"); break;
        case Injection::ListingVersionMissing: sim.setListingVersion(std::nullopt); break;
        case Injection::ListingVersionUnsupported: sim.setListingVersion(2); break;
        default: break;
    }
}

inline void clearWeb(const FaultRow& row, ztsdsim::ChassisSimulator& sim, const std::string& device) {
    switch (row.injection) {
        case Injection::WebFault: sim.clearFaults(); break;
        case Injection::DeviceVersionMissing:
        case Injection::DeviceVersionUnsupported: sim.setDeviceVersion(device, 1); break;
        case Injection::DeviceWrongUri: sim.setDeviceReportedUri(device, sim.deviceResourcePath(device)); break;
        case Injection::ListingVersionMissing:
        case Injection::ListingVersionUnsupported: sim.setListingVersion(1); break;
        default: break;
    }
}

// A daemon that answers late: while running, it releases each call the
// daemon holds about kSlowDaemon_ms after the call was held (the daemon holds
// every call while DaemonSlow is on).
class SlowDaemon {
public:
    ~SlowDaemon() { stop(); }
    void start(ztsdsim::TimestampDaemonSimulator& daemon) {
        stop();
        running = true;
        worker = std::thread([this, &daemon] {
            while (running) {
                if (daemon.stalledCallCount() == 0) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                    continue;
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(kSlowDaemon_ms));
                daemon.releaseStalls();
            }
        });
    }
    void stop() {
        running = false;
        if (worker.joinable()) worker.join();
    }

private:
    std::atomic<bool> running{false};
    std::thread worker;
};

// Puts a daemon fault (other than DaemonStopped) on `daemon`; `gmId` names
// the timescale the proxies read; `slow` answers the held calls of DaemonSlow.
inline void injectDaemon(const FaultRow& row, ztsdsim::TimestampDaemonSimulator& daemon, const std::string& gmId,
                         SlowDaemon& slow) {
    switch (row.injection) {
        case Injection::DaemonRefuse:
            daemon.refuseConnections(row.count);
            daemon.dropConnections();
            break;
        case Injection::DaemonDropCalls: daemon.dropCalls(row.count); break;
        case Injection::DaemonStallCalls: daemon.stallCalls(row.count); break;
        case Injection::DaemonFailCalls:
            daemon.failCalls(row.count, kDaemonErrorCode,
                             "{\"error_constant\":\"ztapalerr_resourceNotFound\",\"component\":\"zttimestampd\"}");
            break;
        case Injection::DaemonRemoveTimescale: daemon.removeTimescale(gmId); break;
        case Injection::DaemonWrongUri:
            daemon.setReportedUri(ztsdsim::TimestampDaemonSimulator::localTimescaleUri("00-00-00-00-00-00-00-00"));
            break;
        case Injection::DaemonVersionDown: daemon.setApiVersion(1); break;
        case Injection::DaemonVersionUp: daemon.setApiVersion(2); break;
        case Injection::DaemonDropConnections: daemon.dropConnections(); break;
        case Injection::DaemonSlow:
            daemon.stallCalls(row.count);
            slow.start(daemon);
            break;
        default: break;
    }
}

inline void clearDaemon(const FaultRow& row, ztsdsim::TimestampDaemonSimulator& daemon, const std::string& gmId,
                        SlowDaemon& slow) {
    slow.stop();
    daemon.clearFaults();
    if (row.injection == Injection::DaemonRemoveTimescale) daemon.addTimescale(gmId);
    if (row.injection == Injection::DaemonVersionDown || row.injection == Injection::DaemonVersionUp)
        daemon.setApiVersion(row.daemonVersionAtCreation);
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

// ---- the readable form ----------------------------------------------------

inline std::string renderCell(const Outcome& cell) {
    if (!cell.applies) return "n/a";
    if (cell.code == 0) return "0 ok";
    std::string text = std::to_string(cell.code) + " " + cell.constant;
    if (cell.cause != 0) text += " (" + std::to_string(cell.cause) + ")";
    return text;
}

// The row's line in the family's table of docs/faultMatrix.md.
inline std::string renderRow(const FaultRow& row, Family family) {
    std::string line = std::string("| ") + row.id + " | " + row.fault + " |";
    for (Op op : opsOf(family)) line += " " + renderCell(row.cell(op)) + " |";
    line += std::string(" ") + (row.note[0] ? row.note : "") + " |";
    return line;
}

}  // namespace faultmatrix
