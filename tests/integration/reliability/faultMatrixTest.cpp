// Runs the fault matrix (the tables of docs/faultMatrix.md, read by
// faultMatrix.h) against real simulators on
// 127.0.0.1, through the public C exports: for every row and every
// operation it applies to, the fault is put on the simulated chassis, the
// call must give the cell's code (with its cause in the report, and a report
// the strict validator accepts), and once the fault is cleared the same call
// on the same objects must succeed. One parameterised test per family of
// operations, one instance per row.
//
// Device proxies and timescale proxies are made with short time-outs (the
// exports fix 5000 ms) and handed to the exports as handles, so a stall
// costs a few hundred milliseconds; everything else is made by the exports.
#include <gtest/gtest.h>

#include <cjson/cJSON.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "integration/reliability/faultMatrix.h"
#include "integration/timestampservice/daemonTestSupport.h"
#include "unit/support/statusFixture.h"
#include "ztsd-sim/restartableChassis.h"
#include "ztsd-sim/timestampDaemonSimulator.h"
#include "ztsdlib/ztsdlib.h"

namespace {

using faultmatrix::Family;
using faultmatrix::FaultRow;
using faultmatrix::Op;
using faultmatrix::Outcome;
using ztsdtest::OwnedStatus;

constexpr unsigned kRequestTimeout_ms = 250;
constexpr std::uint32_t kSocketTimeout_ms = 150;
constexpr const char* kGmId = "00-80-2F-00-00-00-01-00";
constexpr const char* kFaultyDevice = "chassis1";
constexpr const char* kDomainUri = "/localhost/ztsd/syncDomains/matrix";

// What one call left in its status, and what it returned.
struct CallResult {
    std::int32_t code = 0;
    std::string report;
    bool answer = true;  // what a call that succeeds must give: true, a true reading, valid JSON
    std::string text;    // toJson results
};

void expectOutcome(const Outcome& cell, const CallResult& r) {
    EXPECT_EQ(r.code, cell.code) << r.report;
    if (cell.code == 0) return;
    ASSERT_TRUE(ztsdtest::strictlyValid(r.report.c_str())) << r.report;
    ztsdtest::CJsonPtr doc = ztsdtest::parseJson(r.report);
    ASSERT_TRUE(doc) << r.report;
    EXPECT_STREQ(cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(doc.get(), "error_constant")),
                 cell.constant.c_str())
        << r.report;
    if (cell.cause != 0) EXPECT_TRUE(faultmatrix::reportCarriesCause(doc.get(), cell.cause)) << r.report;
}

// A chassis on 127.0.0.1 that can go away and come back on the same ports,
// with one device and one listed timescale.
struct MatrixChassis {
    explicit MatrixChassis(std::string deviceName) : device(std::move(deviceName)) { restart(); }

    void restart() {
        restartable.up().webService().addDevice(device);
        web().addTimescale(kGmId);
    }
    ztsdsim::ChassisSimulator& web() { return restartable.chassis()->webService(); }
    std::string deviceUri() { return web().deviceUri(device); }

    const std::string device;
    ztsdsim::RestartableChassis restartable{"ztsd", ztsdsim::SimulatorOptions{}};
};

class FaultMatrix : public ::testing::TestWithParam<std::string> {
protected:
    const FaultRow& row() const { return *faultmatrix::findRow(GetParam()); }

    void SetUp() override { startDaemon(0); }

    // A daemon on port (0: an ephemeral one). The row that stops the daemon
    // brings a new one up on the old port, as a restarted daemon would come.
    void startDaemon(std::uint16_t port) {
        daemon = std::make_unique<ztsdsim::TimestampDaemonSimulator>();
        daemon->addTimescale(kGmId);
        daemon->setApiVersion(row().daemonVersionAtCreation());
        daemon->start("127.0.0.1", port);
        daemonPortNumber = daemon->port();
    }

    // The caller's objects go first (see CallerObjects), then the servers.
    void TearDown() override {
        objects.reset();
        for (auto& c : chassis) c->restartable.down();
        daemon->stop();
    }

    std::uint16_t daemonPort() const { return daemonPortNumber; }

    // ---- the world each family needs ----

    // Two chassis; the faults go on the second.
    void makeChassis() {
        chassis.push_back(std::make_unique<MatrixChassis>("chassis0"));
        chassis.push_back(std::make_unique<MatrixChassis>(kFaultyDevice));
    }
    MatrixChassis& faulty() { return *chassis.back(); }

    void makeDomain() {
        OwnedStatus status;
        objects->makeDomain(kDomainUri, 2, {chassis[0]->deviceUri(), faulty().deviceUri()}, kRequestTimeout_ms,
                            &status);
        ASSERT_EQ(status.s.code, 0) << status.text();
    }

    void makeRemoteTime() {
        OwnedStatus status;
        objects->makeCorrelator("/localhost/ztsd/correlators/matrix",
                                "/127.0.0.1:1/ztsdwebs/resources/ztsd/timescales/" + std::string(kGmId), "127.0.0.1",
                                daemonPort(), kSocketTimeout_ms, 4, 600, &status);
        // A first reading leaves a connection open, as a proxy in use has.
        ztsdlib_Timestamp t{};
        ztsdlib_Timescale_getTime(objects->remote, &t, &status);
        ASSERT_EQ(status.s.code, 0) << status.text();
    }

    // ---- faults ----

    // Puts the row's fault on (on) or takes it off again.
    void setFault(bool on) {
        const FaultRow& r = row();
        if (r.injection == "webStopped") return on ? faulty().restartable.down() : faulty().restart();
        if (r.injection == "daemonStopped") return on ? daemon->stop() : startDaemon(daemonPortNumber);
        if (r.isWebFault()) {
            return on ? faultmatrix::injectWeb(r, faulty().web(), faulty().device)
                      : faultmatrix::clearWeb(r, faulty().web(), faulty().device);
        }
        on ? faultmatrix::injectDaemon(r, *daemon, kGmId)
           : faultmatrix::clearDaemon(r, *daemon, kGmId);
    }

    // ---- the operations ----

    std::string requirements() const {
        return std::string("{\"version\":1,\"syncDomainUri\":\"") + kDomainUri +
               "\",\"coherencyRequirements\":{\"requiredTimescaleUri\":\"" + ZTSDLIB_HOST_TIMESCALE_URI +
               "\",\"maxOffset_ns\":1000,\"minSyncDuration_ms\":100},\"data\":{}}";
    }

    CallResult run(Op op) {
        OwnedStatus status;
        CallResult r;
        switch (op) {
            case Op::DevicePut:
                ztsdlib_SyncableDevice_setCoherencyRequirements(device, kDomainUri, requirements().c_str(),
                                                                &status);
                break;
            case Op::DeviceIsCoherent: {
                std::uint32_t losses = 99;
                r.answer = ztsdlib_SyncableDevice_isCoherent(device, &losses, &status);
                if (status.s.code == 0) EXPECT_EQ(losses, 0u);
                break;
            }
            case Op::DeviceToJson: r.text = ztsdtest::takeText(ztsdlib_SyncableDevice_toJson(device, &status)); break;
            case Op::DomainToJson: r.text = ztsdtest::takeText(ztsdlib_SyncDomain_toJson(domain, &status)); break;
            case Op::DomainStart: {
                OwnedStatus stopping;
                if (ztsdlib_SyncDomain_isRunning(domain, &stopping)) ztsdlib_SyncDomain_stop(domain, &stopping);
                r.answer = ztsdlib_SyncDomain_start(domain, 2, &status);
                break;
            }
            case Op::DomainIsCoherent: r.answer = ztsdlib_SyncDomain_isCoherent(domain, &status); break;
            case Op::DomainSinceLastChecked:
                r.answer = ztsdlib_SyncDomain_isCoherentSinceLastChecked(domain, &status);
                break;
            case Op::LoadResources: r.answer = load(status); break;
            case Op::TimescaleGetTime: {
                const ztsdlib_Timestamp before = daemon->timeAt(daemontest::hostNow());
                ztsdlib_Timestamp reading{};
                ztsdlib_Timescale_getTime(remote, &reading, &status);
                const ztsdlib_Timestamp after = daemon->timeAt(daemontest::hostNow());
                r.answer = daemontest::notAfter(before, reading) && daemontest::notAfter(reading, after);
                break;
            }
            case Op::CorrelatorCorrelate: {
                // Sampling starts under the fault; the first correlate waits for it.
                OwnedStatus starting;
                ztsdlib_TimestampCorrelator_start(correlator, &starting);
                EXPECT_EQ(starting.s.code, 0) << starting.text();
                const ztsdlib_Timestamp hostTime = daemontest::hostNow();
                ztsdlib_Timestamp remoteTime{};
                ztsdlib_TimestampCorrelator_correlate(correlator, &hostTime, ZTSDLIB_HOST_TIMESCALE_URI, &remoteTime,
                                                      &status);
                if (status.s.code != 0) break;
                // Within 50 ms of the daemon's true mapping (loopback round trips).
                const ztsdlib_Timestamp truth = daemon->timeAt(hostTime);
                // (The seconds guard keeps nanosBetween clear of overflow on wild readings.)
                r.answer = !remoteTime.isNegative &&
                           std::llabs(static_cast<long long>(remoteTime.seconds - truth.seconds)) <= 1 &&
                           std::llabs(daemontest::nanosBetween(truth, remoteTime)) < 50000000;
                break;
            }
            case Op::CorrelatorStop: ztsdlib_TimestampCorrelator_stop(correlator, &status); break;
        }
        if (op == Op::DeviceToJson || op == Op::DomainToJson) r.answer = ztsdtest::strictlyValid(r.text.c_str());
        r.code = status.s.code;
        r.report = status.text();
        return r;
    }

    bool load(OwnedStatus& status) {
        const std::string params = remotetest::networkDeviceParams(faulty().web().remoteHost(), daemonPort());
        ztsdlib_SyncableDevice* device = nullptr;
        ztsdlib_Timescale** loaded = nullptr;
        std::uint32_t count = 0;
        ztsdlib_loadProxyResources(params.c_str(), &device, &loaded, &count, std::malloc, &status);
        const bool complete = device != nullptr && count == 1;
        ztsdlib_SyncableDevice_delete(device);
        for (std::uint32_t i = 0; i < count; ++i) ztsdlib_Timescale_delete(loaded[i]);
        std::free(loaded);
        return complete;
    }

    // The domain's JSON keeps going when a member fails: that member's entry
    // carries its error, the same one the device's own toJson gives.
    void expectMemberEntries(const CallResult& r, bool faultActive) {
        ztsdtest::CJsonPtr doc = ztsdtest::parseJson(r.text);
        ASSERT_TRUE(doc) << r.text;
        const cJSON* members = cJSON_GetObjectItemCaseSensitive(doc.get(), "syncableDevices");
        ASSERT_EQ(cJSON_GetArraySize(members), 2) << r.text;
        const Outcome& deviceCell = row().cell(Op::DeviceToJson);
        const bool memberFails = faultActive && deviceCell.applies && deviceCell.code != 0;
        const cJSON* entry = nullptr;
        cJSON_ArrayForEach(entry, members) {
            const std::string uri = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(entry, "uri"));
            const cJSON* error = cJSON_GetObjectItemCaseSensitive(entry, "error");
            if (memberFails && uri == faulty().deviceUri()) {
                ASSERT_TRUE(cJSON_IsObject(error)) << r.text;
                EXPECT_STREQ(cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(error, "error_constant")),
                             deviceCell.constant.c_str());
            } else {
                EXPECT_EQ(error, nullptr) << r.text;
                EXPECT_TRUE(cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(entry, "isCoherent"))) << r.text;
            }
        }
    }

    void runFamily(Family family) {
        for (Op op : faultmatrix::opsOf(family)) {
            const Outcome& cell = row().cell(op);
            if (!cell.applies) continue;
            SCOPED_TRACE(row().id + " " + faultmatrix::opTitle(op));
            // The correlator's two cells come from one run: start and
            // correlate under the fault, then stop.
            if (op == Op::CorrelatorStop) continue;
            setFault(true);
            const auto began = std::chrono::steady_clock::now();
            const CallResult faulted = run(op);
            expectOutcome(cell, faulted);
            // A late answer must have been late (else the row shows nothing).
            const int late_ms =
                row().injection == "daemonSlow" ? faultmatrix::kSlowDaemon_ms : row().web.latency_ms;
            EXPECT_GE(std::chrono::steady_clock::now() - began, std::chrono::milliseconds(late_ms));
            // A reading held up under the fault skews the samples taken
            // meanwhile, so the correlator's answer is judged after clearing.
            if (cell.code == 0 && op != Op::CorrelatorCorrelate) EXPECT_TRUE(faulted.answer) << faulted.text;
            if (op == Op::DomainToJson) expectMemberEntries(faulted, true);
            if (op == Op::CorrelatorCorrelate) {
                SCOPED_TRACE("correlator stop");
                expectOutcome(row().cell(Op::CorrelatorStop), run(Op::CorrelatorStop));
            }
            setFault(false);
            const CallResult recovered = run(op);
            EXPECT_EQ(recovered.code, 0) << "after clearing: " << recovered.report;
            EXPECT_TRUE(recovered.answer) << recovered.text;
            if (op == Op::DomainToJson) expectMemberEntries(recovered, false);
            if (op == Op::DevicePut) EXPECT_EQ(faulty().web().requirementsOf(faulty().device), requirements());
            if (op == Op::CorrelatorCorrelate) {
                SCOPED_TRACE("correlator stop after clearing");
                EXPECT_EQ(run(Op::CorrelatorStop).code, 0);
            }
        }
    }

    std::unique_ptr<ztsdsim::TimestampDaemonSimulator> daemon;
    std::uint16_t daemonPortNumber = 0;
    std::vector<std::unique_ptr<MatrixChassis>> chassis;
    std::unique_ptr<faultmatrix::CallerObjects> objects = std::make_unique<faultmatrix::CallerObjects>();
    ztsdlib_SyncableDevice* device = nullptr;  // the Device family's
    ztsdlib_SyncDomain*& domain = objects->domain;
    ztsdlib_Timescale*& remote = objects->remote;
    ztsdlib_TimestampCorrelator*& correlator = objects->correlator;
};

std::vector<std::string> rowsOf(Family family) {
    std::vector<std::string> ids;
    for (const FaultRow& row : faultmatrix::rows())
        if (row.appliesTo(family)) ids.emplace_back(row.id);
    return ids;
}

std::string rowName(const ::testing::TestParamInfo<std::string>& info) { return info.param; }

using DeviceFaultMatrix = FaultMatrix;
using DomainFaultMatrix = FaultMatrix;
using LoadingFaultMatrix = FaultMatrix;
using RemoteTimeFaultMatrix = FaultMatrix;

TEST_P(DeviceFaultMatrix, CallerGetsTheCellsCodeAndTheSameDeviceWorksOnceCleared) {
    makeChassis();
    device = objects->device(faulty().deviceUri(), kRequestTimeout_ms);
    runFamily(Family::Device);
}

TEST_P(DomainFaultMatrix, MemberFaultsNestUnderTheDomainsCodeAndTheDomainWorksOnceCleared) {
    makeChassis();
    makeDomain();
    runFamily(Family::Domain);
}

TEST_P(LoadingFaultMatrix, LoadingGivesTheCellsCodeAndLoadsOnceCleared) {
    makeChassis();
    runFamily(Family::Loading);
}

TEST_P(RemoteTimeFaultMatrix, ReadingsAndCorrelationGiveTheCellsCodeAndRecoverOnceCleared) {
    makeRemoteTime();
    runFamily(Family::RemoteTime);
}

INSTANTIATE_TEST_SUITE_P(Rows, DeviceFaultMatrix, ::testing::ValuesIn(rowsOf(Family::Device)), rowName);
INSTANTIATE_TEST_SUITE_P(Rows, DomainFaultMatrix, ::testing::ValuesIn(rowsOf(Family::Domain)), rowName);
INSTANTIATE_TEST_SUITE_P(Rows, LoadingFaultMatrix, ::testing::ValuesIn(rowsOf(Family::Loading)), rowName);
INSTANTIATE_TEST_SUITE_P(Rows, RemoteTimeFaultMatrix, ::testing::ValuesIn(rowsOf(Family::RemoteTime)), rowName);

// The document's tables are the matrix: one that cannot be read, or reads as
// no rows, must fail here rather than leave the matrix above empty.
TEST(FaultMatrixDocument, TablesParseIntoTheRowsAndCellsTheDocumentStates) {
    const faultmatrix::Table& table = faultmatrix::table();
    ASSERT_EQ(table.error, "");
    ASSERT_FALSE(table.rows.empty());
    const std::string counts =
        std::to_string(table.rows.size()) + " fault rows and " + std::to_string(table.cells) + " cells";
    EXPECT_NE(std::string(faultmatrix::kDocument).find(counts), std::string::npos) << "the document should state: " << counts;
}

}  // namespace
