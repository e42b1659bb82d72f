#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "api/exportFrame.h"
#include "core/exportedObject.h"
#include "errors/exception.h"
#include "unit/support/statusFixture.h"
#include "ztsdlib/ztsdlib.h"

using ztsdtest::OwnedStatus;

namespace {
const char* kMissing = "\"ztsyncdomain_debug\":{\"message\":\"Encountered missing parameter needed for task completion.\",";

// The whole record, bytes included, to prove a call left it untouched.
std::string snapshot(const zterr_Status& s) {
    return std::to_string(s.code) + "|" + std::to_string(s.capacity) + "|" +
           (s.json ? std::string(s.json, s.capacity) : std::string("<null>"));
}
}  // namespace

TEST(ExportFrame, ReportsOnlyTheFirstMissingParameterByName) {
    OwnedStatus st;
    ztsdlib_Timescale_getTime(nullptr, nullptr, &st);
    EXPECT_EQ(st.s.code, -52005);
    const std::string text = st.text();
    EXPECT_NE(text.find("\"error_constant\":\"ztapalerr_invalidParameter\""), std::string::npos);
    EXPECT_NE(text.find("\"file\":\"objects\\\\codegen\\\\ztsdlib\\\\ztsdlib\""), std::string::npos);
    EXPECT_NE(text.find("\"component\":\"ztsdlib\""), std::string::npos);
    // Only the handle is named, though the timestamp is missing too.
    EXPECT_NE(text.find(std::string(kMissing) + "\"handle\":\"nullptr\"}"), std::string::npos) << text;
    EXPECT_TRUE(ztsdtest::strictlyValid(st.s.json));

    OwnedStatus create;
    EXPECT_EQ(ztsdlib_HostTimescale_create(nullptr, &create), nullptr);
    EXPECT_NE(create.text().find("\"uri\":\"nullptr\""), std::string::npos);
}

TEST(ExportFrame, AnEarlierErrorMakesEveryCallANoOpButAWarningDoesNot) {
    OwnedStatus good;
    ztsdlib_Timescale* ts = ztsdlib_HostTimescale_create(ZTSDLIB_HOST_TIMESCALE_URI, &good);
    ASSERT_NE(ts, nullptr);

    OwnedStatus failed;
    zterr::setError(&failed, -1, ZTERR_SITE("x", "e"));
    const std::string before = snapshot(failed.s);
    ztsdlib_Timestamp t{};
    t.seconds = 77;
    EXPECT_EQ(ztsdlib_HostTimescale_create("/u", &failed), nullptr);
    EXPECT_EQ(ztsdlib_Timescale_getUri(ts, &failed), nullptr);
    EXPECT_EQ(ztsdlib_Timescale_toJson(ts, &failed), nullptr);
    ztsdlib_Timescale_getTime(ts, &t, &failed);
    ztsdlib_Timescale_getTime(nullptr, nullptr, &failed);
    EXPECT_EQ(t.seconds, 77u);
    EXPECT_EQ(snapshot(failed.s), before);

    OwnedStatus warned;
    zterr::setError(&warned, 411369, ZTERR_SITE("x", "kNetworkClientInProgress"));
    ztsdlib_Timescale_getTime(ts, &t, &warned);
    EXPECT_GT(t.seconds, 13000000000u);
    EXPECT_STREQ(ztsdlib_Timescale_getUri(ts, &warned), ZTSDLIB_HOST_TIMESCALE_URI);
    EXPECT_EQ(warned.s.code, 411369);
    ztsdlib_Timescale_getTime(ts, nullptr, &warned);  // an error still replaces the warning
    EXPECT_EQ(warned.s.code, -52005);

    // No status at all: nothing can be reported, nothing happens.
    EXPECT_EQ(ztsdlib_HostTimescale_create("/v", nullptr), nullptr);
    EXPECT_EQ(ztsdlib_Timescale_getUri(ts, nullptr), nullptr);
    ztsdlib_Timescale_delete(ts);
}

TEST(ExportFrame, ToJsonGivesAFreshCopyGetUriTheObjectsTextAndDeleteIgnoresNull) {
    OwnedStatus st;
    ztsdlib_Timescale* ts = ztsdlib_HostTimescale_create("/localhost/ztsds/timescales/system", &st);
    EXPECT_EQ(ztsdlib_Timescale_getUri(ts, &st), ztsdlib_Timescale_getUri(ts, &st));  // stored text, not a copy
    char* json = ztsdlib_Timescale_toJson(ts, &st);
    char* json2 = ztsdlib_Timescale_toJson(ts, &st);
    EXPECT_NE(json, json2);
    ztsdlib_Timescale_delete(ts);
    EXPECT_STREQ(json, "{\"uri\":\"/localhost/ztsds/timescales/system\"}");  // outlives the handle
    std::free(json);
    std::free(json2);
    EXPECT_EQ(st.s.code, 0);

    EXPECT_EQ(ztsdlib_getApiVersion(), 1);
}

// Every family's delete name releases any handle through its virtual
// destructor and ignores null (that they are one entry point is checked on
// the shared object's symbols).
TEST(ExportFrame, EveryDeleteNameRunsTheObjectsDestructorAndIgnoresNull) {
    struct Probe : ztsdlib::ExportedObject {
        explicit Probe(int* destroyed) : destroyed(destroyed) {}
        ~Probe() override { ++*destroyed; }
        int* destroyed;
    };
    using Delete = void (*)(void*);
    const Delete deletes[] = {
        [](void* h) { ztsdlib_Timescale_delete(static_cast<ztsdlib_Timescale*>(h)); },
        [](void* h) { ztsdlib_TimestampCorrelator_delete(static_cast<ztsdlib_TimestampCorrelator*>(h)); },
        [](void* h) { ztsdlib_SyncableDevice_delete(static_cast<ztsdlib_SyncableDevice*>(h)); },
        [](void* h) { ztsdlib_SyncDomain_delete(static_cast<ztsdlib_SyncDomain*>(h)); },
    };
    int destroyed = 0;
    for (const Delete del : deletes) {
        del(nullptr);
        del(static_cast<ztsdlib::ExportedObject*>(new Probe(&destroyed)));
    }
    EXPECT_EQ(destroyed, 4);
}

// A caller that ignores the status must never read success from a failed
// call: every export that returns a value returns its failure value (false
// or NULL), here for a missing handle.
TEST(ExportFrame, EveryValueExportReturnsItsFailureValueWhenItFails) {
    struct Case {
        const char* name;
        bool (*returnedFailureValue)(zterr_Status*);
    };
    const Case cases[] = {
        {"HostTimescale_create", [](zterr_Status* s) { return !ztsdlib_HostTimescale_create(nullptr, s); }},
        {"TimescaleProxy_create", [](zterr_Status* s) { return !ztsdlib_TimescaleProxy_create(nullptr, "h", 1, s); }},
        {"Timescale_getUri", [](zterr_Status* s) { return !ztsdlib_Timescale_getUri(nullptr, s); }},
        {"Timescale_toJson", [](zterr_Status* s) { return !ztsdlib_Timescale_toJson(nullptr, s); }},
        {"LinearCorrelator_create",
         [](zterr_Status* s) { return !ztsdlib_LinearCorrelator_create("/c", nullptr, nullptr, 1, 2, 3, s); }},
        {"CachingCorrelator_create", [](zterr_Status* s) { return !ztsdlib_CachingCorrelator_create("/c", nullptr, s); }},
        {"NopCorrelator_create",
         [](zterr_Status* s) { return !ztsdlib_NopCorrelator_create("/c", nullptr, nullptr, s); }},
        {"TimestampCorrelator_getUri", [](zterr_Status* s) { return !ztsdlib_TimestampCorrelator_getUri(nullptr, s); }},
        {"TimestampCorrelator_getTimescale1Uri",
         [](zterr_Status* s) { return !ztsdlib_TimestampCorrelator_getTimescale1Uri(nullptr, s); }},
        {"TimestampCorrelator_getTimescale2Uri",
         [](zterr_Status* s) { return !ztsdlib_TimestampCorrelator_getTimescale2Uri(nullptr, s); }},
        {"TimestampCorrelator_isRunning",
         [](zterr_Status* s) { return !ztsdlib_TimestampCorrelator_isRunning(nullptr, s); }},
        {"TimestampCorrelator_toJson", [](zterr_Status* s) { return !ztsdlib_TimestampCorrelator_toJson(nullptr, s); }},
        {"SyncableDeviceProxy_create", [](zterr_Status* s) { return !ztsdlib_SyncableDeviceProxy_create(nullptr, s); }},
        {"SyncableDevice_isCoherent",
         [](zterr_Status* s) {
             uint32_t losses = 0;
             return !ztsdlib_SyncableDevice_isCoherent(nullptr, &losses, s);
         }},
        {"SyncableDevice_getUri", [](zterr_Status* s) { return !ztsdlib_SyncableDevice_getUri(nullptr, s); }},
        {"SyncableDevice_toJson", [](zterr_Status* s) { return !ztsdlib_SyncableDevice_toJson(nullptr, s); }},
        {"ThreadPool_create", [](zterr_Status* s) { return !ztsdlib_ThreadPool_create(0, s); }},
        {"SyncDomain_create",
         [](zterr_Status* s) { return !ztsdlib_SyncDomain_create(nullptr, nullptr, 1, 1, nullptr, s); }},
        {"NopSyncDomain_create", [](zterr_Status* s) { return !ztsdlib_NopSyncDomain_create(nullptr, nullptr, s); }},
        {"SyncDomain_isMember", [](zterr_Status* s) { return !ztsdlib_SyncDomain_isMember(nullptr, "/d", s); }},
        {"SyncDomain_isCoherent", [](zterr_Status* s) { return !ztsdlib_SyncDomain_isCoherent(nullptr, s); }},
        {"SyncDomain_isCoherentSinceLastChecked",
         [](zterr_Status* s) { return !ztsdlib_SyncDomain_isCoherentSinceLastChecked(nullptr, s); }},
        {"SyncDomain_isRunning", [](zterr_Status* s) { return !ztsdlib_SyncDomain_isRunning(nullptr, s); }},
        {"SyncDomain_start", [](zterr_Status* s) { return !ztsdlib_SyncDomain_start(nullptr, 1, s); }},
        {"SyncDomain_getTimescaleUri", [](zterr_Status* s) { return !ztsdlib_SyncDomain_getTimescaleUri(nullptr, s); }},
        {"SyncDomain_getUri", [](zterr_Status* s) { return !ztsdlib_SyncDomain_getUri(nullptr, s); }},
        {"SyncDomain_toJson", [](zterr_Status* s) { return !ztsdlib_SyncDomain_toJson(nullptr, s); }},
        {"SyncDomain_cancelStart", [](zterr_Status* s) { return !ztsdlib_SyncDomain_cancelStart(nullptr, s); }},
        {"listSyncableDeviceUris", [](zterr_Status* s) { return !ztsdlib_listSyncableDeviceUris(nullptr, s); }},
    };
    for (const Case& c : cases) {
        OwnedStatus st;
        EXPECT_TRUE(c.returnedFailureValue(&st.s)) << c.name;
        EXPECT_EQ(st.s.code, -52005) << c.name;
    }
}

// No exception crosses the frame: a library one and a standard one land in
// the status (how each kind is classified is StatusTranslation's test) and the
// failure value comes back.
TEST(ExportFrame, TranslatesExceptionsAndReturnsTheFailureValue) {
    using ztsdlib::api::guardedCall;
    using ztsdlib::api::guardedCallVoid;
    int marker = 0;

    OwnedStatus library;
    EXPECT_FALSE(guardedCall(
        &library, 1, {{"p", &marker}},
        []() -> bool { zterr::raise(ZTERR_SITE("source\\ztsdlib\\x", "ztapalerr_osFault"), -52008, "d", {}); }, false));
    EXPECT_EQ(library.s.code, -52008);

    OwnedStatus standard;
    guardedCallVoid(&standard, 1, {}, [] { throw std::out_of_range("stoull argument out of range"); });
    EXPECT_EQ(standard.s.code, -52003);
}
