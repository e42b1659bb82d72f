// The HTTP client and the GET/PUT helpers against the simulated chassis over
// real HTTP on 127.0.0.1: what the fault matrix (faultMatrixTest.cpp) does
// not check through the exports, that is the status map's range edges, the
// reply envelope and its result, bodies the reader refuses, time-outs, and
// the reports the helpers make of the client's failures.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include <cstdlib>
#include <iostream>

#include "integration/remote/remoteTestSupport.h"
#include "unit/support/processProbe.h"
#include "ztsd-sim/socketControl.h"
#include "remote/curlResourceManagerProxy.h"
#include "syncdomain/syncableDeviceProxy.h"
#include "remote/curlClient.h"
#include "remote/httpRequests.h"
#include "unit/support/raisedError.h"
#include "unit/support/timing.h"

using remotetest::rawBody;
using remotetest::SimulatorTest;
using remotetest::status;
using zt::vela::shared::tCURL;
using ztsdtest::captureRaise;
using ztsdtest::expectReport;
using ztsdtest::Raised;

namespace {

using ztsdtest::kDebug;

class HttpClient : public SimulatorTest {
protected:
    void SetUp() override {
        SimulatorTest::SetUp();
        client.setTimeoutInMS(3000);
        client.initialize(prefix, deviceRelative());
    }

    // One GET of the device through the client itself.
    Raised clientError() {
        std::string result;
        return captureRaise([&] { client.request(false, "", result); });
    }
    std::string clientGet() {
        std::string result = "<unset>";
        client.request(false, "", result);
        return result;
    }

    tCURL client{remotetest::kMediaType};
};

}  // namespace

TEST_F(HttpClient, GetsAndPutsWithTheMediaTypeBothWays) {
    const std::string result = clientGet();
    ztsdtest::CJsonPtr payload = ztsdtest::parseJson(result);
    ASSERT_NE(payload, nullptr) << result;
    EXPECT_EQ(cJSON_GetObjectItem(payload.get(), "uri")->valuestring, devicePath);
    EXPECT_TRUE(cJSON_IsTrue(cJSON_GetObjectItem(payload.get(), "isCoherent")));
    ztsdsim::RequestRecord request = sim.lastRequest();
    EXPECT_EQ(request.method, "GET");
    EXPECT_EQ(request.path, devicePath);
    EXPECT_EQ(request.accept, remotetest::kMediaType);
    EXPECT_EQ(request.contentType, remotetest::kMediaType);

    const std::string requirements = "{\"version\":1,\"coherencyRequirements\":{\"maxOffset_ns\":1000},\"data\":{}}";
    std::string ignored;
    ztsdtools::sendPutRequest(client, hostPrefix, devicePath, requirements, ignored);
    EXPECT_EQ(sim.requirementsOf("chassis0"), requirements);
    request = sim.lastRequest();
    EXPECT_EQ(request.method, "PUT");
    EXPECT_EQ(request.accept, remotetest::kMediaType);
    EXPECT_EQ(request.contentType, remotetest::kMediaType);

    // A GET after a PUT is a GET again.
    ztsdtools::sendGetRequest(client, hostPrefix, devicePath, ignored);
    EXPECT_EQ(sim.lastRequest().method, "GET");
    EXPECT_EQ(sim.putCountOf("chassis0"), 1u);
    EXPECT_EQ(sim.getCountOf("chassis0"), 2u);

    // A body larger than one read callback's buffer arrives whole.
    const std::string big = "{\"version\":1,\"data\":\"" + std::string(300000, 'z') + "\"}";
    ztsdtools::sendPutRequest(client, hostPrefix, devicePath, big, ignored);
    EXPECT_EQ(sim.requirementsOf("chassis0"), big);
}

// The statuses inside each range are the matrix's rows (H05 to H19); here the
// edges of the ranges and other successes. 0: the body is read as usual.
TEST_F(HttpClient, StatusesMapToCodesUpToTheRangeEnds) {
    const std::vector<std::pair<int, std::int32_t>> rows = {
        {201, 0}, {299, 0}, {498, -411358}, {598, -411359}};
    for (const auto& [httpStatus, code] : rows) {
        SCOPED_TRACE(httpStatus);
        sim.setFault("", status(httpStatus));
        if (code == 0) {
            ztsdtest::CJsonPtr payload = ztsdtest::parseJson(clientGet());
            ASSERT_NE(payload, nullptr);
            EXPECT_EQ(cJSON_GetObjectItem(payload.get(), "uri")->valuestring, devicePath);
            continue;
        }
        const Raised r = clientError();
        EXPECT_EQ(r.code, code);
        EXPECT_EQ(r.number(kDebug, "responseCode"), httpStatus);
    }
}

TEST_F(HttpClient, TheEnvelopeYieldsItsResultOrItsError) {
    struct Ok {
        const char* body;
        const char* result;
    };
    for (const Ok& c : std::vector<Ok>{
             {"{\"result\":{\"x\":1}}", "{\"x\":1}"},
             {"{}", ""},
             {"[1,2]", ""},
             // The result as sent, only the whitespace between tokens gone.
             {" {\"error\":{\"success\":true},\"result\":[1, 2.50 ,\t\"s \\\" \\u0041\"]}\r\n",
              "[1,2.50,\"s \\\" \\u0041\"]"},
             {"{\"a\":{\"result\":0},\"resulT\" : { \"b\" : [ ] , \"c\":-1e+2},\"result\":2}", "{\"b\":[],\"c\":-1e+2}"},
             // A name written with escapes is read from the parsed tree.
             {"{\"r\\u0065sult\":[ 1.0 ]}", "[1]"},
             {"{\"error\":null,\"result\":1}", "1"},
             {"{\"error\":{\"success\":true,\"errorCode\":\"ignored\"},\"result\":null}", "null"},
             // Member names without letter case; "errors" is not "error".
             {"{\"ERROR\":{\"Success\":true},\"errors\":{\"success\":false},\"Result\":[2]}", "[2]"},
         }) {
        SCOPED_TRACE(c.body);
        sim.setFault("", rawBody(c.body));
        EXPECT_EQ(clientGet(), c.result);
    }

    // The chassis' own code passes the request helpers unchanged, with its
    // text and information and nothing nested.
    sim.setFault("", rawBody("{\"Error\":{\"SUCCESS\":false,\"errorCode\":-1074100993,\"errorText\":\"nope\","
                             "\"errorInfo\":{\"k\":[1]}},\"result\":null}"));
    std::string result;
    const Raised server = captureRaise([&] { ztsdtools::sendGetRequest(client, hostPrefix, devicePath, result); });
    EXPECT_EQ(server.text("error_constant"), "errorCode");
    expectReport(server, -1074100993,
                 R"({"message":"Chassis reported an error.","errorText":"nope","errorInfo":{"k":[1]}})");
    EXPECT_EQ(server.member("nested_error"), nullptr);

    // A positive server code, up to the largest a code can be, is raised as it stands (a warning).
    sim.setFault("", rawBody("{\"error\":{\"success\":false,\"errorCode\":2147483647}}"));
    EXPECT_EQ(clientError().code, 2147483647);

    // A failure with no code at all, or code 0, is still a failure.
    sim.setFault("", rawBody("{\"error\":{\"success\":false,\"errorText\":\"vague\"},\"result\":{}}"));
    const Raised vague = clientError();
    EXPECT_EQ(vague.code, -411361);
    EXPECT_EQ(vague.detail(kDebug, "errorText"), "vague");
}

// Bodies the reader refuses (member "") and envelopes whose outcome cannot be
// told (the member named): a repeated "error" or "success", looked up
// without letter case, must not let a failure pass as a success. The
// validator's own codes are pinned by tests/unit/json; these are the
// client's checks around it.
TEST_F(HttpClient, UnreadableBodiesAndMalformedEnvelopesAreInvalidResponses) {
    struct Case {
        std::string body;
        int jsonzError;
        const char* member;
    };
    const std::vector<Case> cases = {
        {"{\"result\":1} x", 9, ""},
        {std::string("{\"result\":1}\0{}", 15), 9, ""},
        {"{\"result\":\"\\ud800\"}", 0, ""},                               // valid, a lone surrogate
        {"{\"error\":\"bad\"}", 0, "error"},
        {"{\"error\":{\"success\":true},\"Error\":{\"success\":false,\"errorCode\":5},\"result\":1}", 0, "error"},
        {"{\"error\":{\"success\":\"false\"}}", 0, "success"},
        {"{\"error\":{\"success\":true,\"SUCCESS\":false},\"result\":1}", 0, "success"},
        {"{\"error\":{\"success\":true,\"success\":true},\"result\":1}", 0, "success"},
        {"{\"error\":{\"success\":false,\"errorCode\":1.5}}", 0, "errorCode"},
        {"{\"error\":{\"success\":false,\"errorCode\":1e12}}", 0, "errorCode"},
        {"{\"error\":{\"success\":false,\"errorCode\":\"-1\"}}", 0, "errorCode"},
        {"{\"error\":{\"success\":false,\"errorCode\":-1,\"errorText\":7}}", 0, "errorText"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.body.substr(0, 40) + "... (" + std::to_string(c.body.size()) + " bytes)");
        sim.setFault("", rawBody(c.body));
        const Raised r = clientError();
        EXPECT_EQ(r.code, -411360);
        EXPECT_EQ(r.number(kDebug, "jsonz_ErrorCode"), c.jsonzError);
        EXPECT_EQ(r.detail(kDebug, "member"), c.member);
    }

    // A valid body of exactly the limit goes through; one byte more aborts
    // the transfer.
    const std::size_t limit = zt::vela::shared::kMaxResponseBytes;
    const std::string atLimit = "{\"result\":\"" + std::string(limit - 13, 'b') + "\"}";
    ASSERT_EQ(atLimit.size(), limit);
    sim.setFault("", rawBody(atLimit));
    EXPECT_EQ(clientGet().size(), limit - 11);
    sim.setFault("", rawBody(atLimit + " "));
    const Raised tooLong = clientError();
    EXPECT_EQ(tooLong.code, -411361);
    EXPECT_EQ(tooLong.number(kDebug, "CURLcode"), CURLE_WRITE_ERROR);
}

// The body cap bounds what a reply costs once parsed: the densest document
// that fits, an array of half a million zeros, keeps the process's peak
// memory growth below 64 MiB (about 46 MiB here). (Each test runs in a process of its own,
// so the high-water mark before the request is this test's.)
TEST_F(HttpClient, TheDensestReplyThatFitsCostsLessThan64MiB) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer's own bookkeeping multiplies the memory measured";
#endif
    std::string dense = "{\"result\":[0";
    while (dense.size() + 4 <= zt::vela::shared::kMaxResponseBytes) dense += ",0";
    dense += "]}";
    sim.setFault("", rawBody(dense));
    const long before_KiB = ztsdtest::peakResidentKiB();
    EXPECT_GT(clientGet().size(), 1000000u);
    const long growth_KiB = ztsdtest::peakResidentKiB() - before_KiB;
    EXPECT_GT(growth_KiB, 1024);  // the measurement sees at least the body itself
    EXPECT_LT(growth_KiB, 64 * 1024);
    std::cout << "peak memory growth for " << dense.size() << " bytes of zeros: " << growth_KiB << " KiB\n";
}

// Proxies named in the environment are never used for chassis traffic: with
// every proxy variable pointing at a closed port, requests still arrive.
TEST_F(HttpClient, IgnoresProxiesNamedInTheEnvironment) {
    std::uint16_t closedPort = 0;
    ztsdsim::net::closeSocket(ztsdsim::net::listenOnLoopback(closedPort, 1, "probe"));  // nothing listens there now
    const std::string closedProxy = "http://127.0.0.1:" + std::to_string(closedPort);
    for (const char* name : {"http_proxy", "HTTP_PROXY", "all_proxy", "ALL_PROXY"})
        ztsdtest::setEnvironment(name, closedProxy);
    for (const char* name : {"no_proxy", "NO_PROXY"}) ztsdtest::removeEnvironment(name);
    const auto before = sim.getCountOf("chassis0");
    std::string error;
    try {
        clientGet();
    } catch (const zterr::Exception& e) {
        error = e.what();
    }
    for (const char* name : {"http_proxy", "HTTP_PROXY", "all_proxy", "ALL_PROXY"}) ztsdtest::removeEnvironment(name);
    EXPECT_EQ(error, "");
    EXPECT_EQ(sim.getCountOf("chassis0"), before + 1);
}

// A PUT goes out with its length: a web server that never answers "Expect:
// 100-continue" and refuses chunked bodies takes it in one round trip.
TEST(HttpRequestFraming, APutReachesAServerThatIgnoresExpectAndRefusesChunkedBodies) {
    // A chassis behind the simulator's strict front (ztsd-sim --strict-http):
    // a domain's requirements arrive at once, where an Expect line would wait
    // out libcurl's second and a chunked body would be refused with 411.
    ztsdsim::SimulatorOptions options;
    options.strictHttp = true;
    ztsdsim::ChassisSimulator chassis("ztsd", options);
    chassis.start();
    ztsdlib::SyncableDeviceProxy device(chassis.addDevice("d0"), 3000);
    const std::string requirements =
        "{\"version\":1,\"syncDomainUri\":\"/d\",\"coherencyRequirements\":{\"requiredTimescaleUri\":\"/t\","
        "\"maxOffset_ns\":1000,\"minSyncDuration_ms\":100},\"data\":{}}";
    const auto placing = std::chrono::steady_clock::now();
    device.setCoherencyRequirements(requirements, "/d");
    EXPECT_LT(std::chrono::steady_clock::now() - placing, std::chrono::milliseconds(500));
    EXPECT_EQ(chassis.requirementsOf("d0"), requirements);
    std::uint32_t losses = 7;
    EXPECT_TRUE(device.isCoherent(&losses));
    EXPECT_EQ(losses, 0u);

    // A request whose Content-Length is no number ends its connection and
    // nothing else: the chassis goes on answering.
    namespace net = ztsdsim::net;
    const net::Socket peer = remotetest::connectLoopback(chassis.port());
    ASSERT_NE(peer, net::kNoSocket);
    const std::string hostile = "PUT /ztsdwebs/resources/ztsd/syncableDevices/d0 HTTP/1.1\r\nContent-Length: x1\r\n\r\n";
    ASSERT_EQ(net::sendSome(peer, hostile.data(), hostile.size()), static_cast<long>(hostile.size()));
    char answer[64];
    EXPECT_LE(net::receiveSome(peer, answer, sizeof answer), 0);  // closed without an answer
    net::closeSocket(peer);
    EXPECT_TRUE(device.isCoherent(&losses));
}

TEST_F(HttpClient, StalledAndRefusedRequestsFailWithinTheTimeOut) {
    // Stalled: the call returns after the time-out, not later.
    ztsdsim::Fault stall;
    stall.stall = true;
    sim.setFault("", stall);
    client.setTimeoutInMS(300);
    const auto start = std::chrono::steady_clock::now();
    const Raised stalled = clientError();
    const long long elapsed_ms = ztsdtest::msSince(start);
    EXPECT_EQ(stalled.code, -411361);
    EXPECT_EQ(stalled.number(kDebug, "CURLcode"), CURLE_OPERATION_TIMEDOUT);
    EXPECT_FALSE(stalled.detail(kDebug, "CURLOPT_ERRORBUFFER").empty());
    EXPECT_GE(elapsed_ms, 280);
    EXPECT_LT(elapsed_ms, 300 + 1000);

    // Nobody listening.
    const std::string deadPrefix = prefix;
    sim.stop();
    client.setAddress(deadPrefix, deviceRelative());
    const Raised refused = clientError();
    EXPECT_EQ(refused.code, -411361);
    EXPECT_EQ(refused.text("error_constant"), "kInternalSoftwareErrorUnknownNetworkError");
    EXPECT_EQ(refused.detailKeys(kDebug),
              (std::vector<std::string>{"message", "function", "CURLcode", "CURLOPT_ERRORBUFFER"}));
    EXPECT_EQ(refused.detail(kDebug, "function"), "curl_easy_perform");
    EXPECT_EQ(refused.number(kDebug, "CURLcode"), CURLE_COULDNT_CONNECT);
    EXPECT_FALSE(refused.detail(kDebug, "CURLOPT_ERRORBUFFER").empty());
}

// Clients share the process's kept-alive connections, and one client's
// stalled request holds nobody else's (its thread drives theirs meanwhile).
TEST_F(HttpClient, ClientsShareConnectionsAndNoneWaitsForAnothersStalledRequest) {
    sim.addDevice("chassis1");
    sim.setFault(devicePath, [] { ztsdsim::Fault f; f.stall = true; return f; }());
    std::string stalledResult;
    std::thread stalled([&] { client.request(false, "", stalledResult); });
    ASSERT_TRUE(ztsdtest::eventually([&] { return sim.heldRequestCount() == 1; }));

    const std::uint64_t connections = sim.acceptedConnectionCount();
    const auto start = std::chrono::steady_clock::now();
    for (int c = 0; c < 2; ++c) {
        tCURL next(remotetest::kMediaType);
        next.initialize(prefix, sim.deviceResourcePath("chassis1").substr(std::string("/ztsdwebs/").size()));
        for (int r = 0; r < 3; ++r) {
            std::string result;
            next.request(false, "", result);
            EXPECT_NE(result.find("chassis1"), std::string::npos) << result;
        }
    }
    EXPECT_LT(ztsdtest::msSince(start), 900);  // six loopback requests, none after the poll's 1 s
    EXPECT_EQ(sim.acceptedConnectionCount(), connections + 1);  // the second client reused the first's
    sim.clearFaults();
    stalled.join();
    EXPECT_NE(stalledResult.find("chassis0"), std::string::npos) << stalledResult;
}

// ---------------------------------------------------------------------------
// Translation by sendGetRequest / sendPutRequest

// Which client codes become -52024 is the fault matrix's business (every
// status, body and transport row); here the reports the helpers make around
// the client's code: an empty URI or prefix, and a 404.
TEST_F(HttpClient, TheHelpersReportTheRequestAndTheClientsCode) {
    std::string result = "unchanged";
    const Raised uri = captureRaise([&] { ztsdtools::sendGetRequest(client, prefix, "", result); });
    EXPECT_EQ(uri.text("error_constant"), "ztapalerr_invalidParameter");
    expectReport(uri, -52005, R"({"message":"Encountered invalid URI.","callingFn":"ztsdtools::sendGetRequest",)"
                              R"("url":")" + prefix + R"(/","data":"","originalCode":-411352})");
    const Raised noPrefix = captureRaise([&] { ztsdtools::sendPutRequest(client, "", devicePath, "{}", result); });
    EXPECT_EQ(noPrefix.code, -52005);
    EXPECT_EQ(noPrefix.number(kDebug, "originalCode"), -411353);
    EXPECT_EQ(sim.requestCount(), 0u);

    sim.setFault("", status(404));
    const Raised get = captureRaise([&] { ztsdtools::sendGetRequest(client, hostPrefix, devicePath, result); });
    EXPECT_EQ(get.text("error_constant"), "ztapalerr_communicationsFault");
    expectReport(get, -52024, R"({"callingFn":"ztsdtools::sendGetRequest","url":"http://)" + host + devicePath +
                                  R"(","data":"","originalCode":-411356})");
    EXPECT_EQ(result, "unchanged");
    // The client's own report, nested.
    const cJSON* list = get.member("nested_error");
    const cJSON* nested = cJSON_IsArray(list) ? list->child : nullptr;
    ASSERT_NE(nested, nullptr) << get.json;
    EXPECT_EQ(cJSON_GetObjectItem(nested, "code")->valueint, -411356);
    const cJSON* nestedDebug = cJSON_GetObjectItemCaseSensitive(nested, kDebug);
    EXPECT_EQ(cJSON_GetObjectItemCaseSensitive(nestedDebug, "responseCode")->valueint, 404) << get.json;

    const Raised put =
        captureRaise([&] { ztsdtools::sendPutRequest(client, hostPrefix, devicePath, "{\"b\":2}", result); });
    expectReport(put, -52024, R"({"callingFn":"ztsdtools::sendPutRequest","url":"http://)" + host + devicePath +
                                  R"(","data":"{\"b\":2}","originalCode":-411356})");
}
