// The HTTP client and the GET/PUT helpers against the simulated chassis over
// real HTTP on 127.0.0.1: the status map, the reply envelope, bad bodies,
// transport faults and the translation into the library's codes.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "integration/remote/remoteTestSupport.h"
#include "remote/curlClient.h"
#include "remote/httpRequests.h"
#include "unit/support/raisedError.h"

using remotetest::rawBody;
using remotetest::SimulatorTest;
using remotetest::status;
using zt::vela::shared::tCURL;
using ztsdtest::captureRaise;
using ztsdtest::Raised;

namespace {

const char* kDebug = "ztsyncdomain_debug";

// The client's own report kept under the translated one.
const cJSON* nestedReport(const Raised& r) {
    const cJSON* list = r.member("nested_error");
    return cJSON_IsArray(list) ? list->child : nullptr;
}

double nestedNumber(const Raised& r, const char* key) {
    const cJSON* inner = cJSON_GetObjectItemCaseSensitive(nestedReport(r), kDebug);
    const cJSON* n = cJSON_GetObjectItemCaseSensitive(inner, key);
    return cJSON_IsNumber(n) ? n->valuedouble : -1e300;
}

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

TEST_F(HttpClient, GetsTheEnvelopeResultAndSendsTheMediaTypeBothWays) {
    const std::string result = clientGet();
    ztsdtest::CJsonPtr payload = ztsdtest::parseJson(result);
    ASSERT_NE(payload, nullptr) << result;
    EXPECT_EQ(cJSON_GetObjectItem(payload.get(), "uri")->valuestring, devicePath);
    EXPECT_TRUE(cJSON_IsTrue(cJSON_GetObjectItem(payload.get(), "isCoherent")));

    const ztsdsim::RequestRecord request = sim.lastRequest();
    EXPECT_EQ(request.method, "GET");
    EXPECT_EQ(request.path, devicePath);
    EXPECT_EQ(request.accept, remotetest::kMediaType);
    EXPECT_EQ(request.contentType, remotetest::kMediaType);
}

TEST_F(HttpClient, PutsTheBodyAndAGetAfterAPutIsAGetAgain) {
    const std::string requirements =
        "{\"version\":1,\"syncDomainUri\":\"/d\",\"coherencyRequirements\":{\"requiredTimescaleUri\":\"/t\","
        "\"maxOffset_ns\":1000,\"minSyncDuration_ms\":10},\"data\":{}}";
    std::string result;
    ztsdtools::sendPutRequest(client, hostPrefix, devicePath, requirements, result);
    EXPECT_EQ(sim.requirementsOf("chassis0"), requirements);
    EXPECT_EQ(sim.lastRequest().method, "PUT");
    EXPECT_EQ(sim.lastRequest().contentType, remotetest::kMediaType);

    ztsdtools::sendGetRequest(client, hostPrefix, devicePath, result);
    EXPECT_EQ(sim.lastRequest().method, "GET");
    EXPECT_EQ(sim.putCountOf("chassis0"), 1u);
    EXPECT_EQ(sim.getCountOf("chassis0"), 1u);

    // A body larger than one read callback's buffer arrives whole.
    const std::string big = "{\"version\":1,\"data\":\"" + std::string(300000, 'z') + "\"}";
    ztsdtools::sendPutRequest(client, hostPrefix, devicePath, big, result);
    EXPECT_EQ(sim.requirementsOf("chassis0"), big);
}

TEST_F(HttpClient, EveryMappedStatusRaisesItsCode) {
    struct Row {
        int status;
        std::int32_t code;
        const char* constant;
    };
    const std::vector<Row> rows = {
        {202, 411369, "kNetworkClientInProgress"},      {400, -411354, "kNetworkClientBadRequestError"},
        {401, -411355, "kNetworkClientUnauthorizedError"}, {404, -411356, "kNetworkClientNotFoundError"},
        {408, -411357, "kNetworkClientRequestTimeoutError"}, {415, -411370, "kNetworkClientUnsupportedMediaType"},
        {402, -411358, "kNetworkClientError"},          {403, -411358, "kNetworkClientError"},
        {409, -411358, "kNetworkClientError"},          {451, -411358, "kNetworkClientError"},
        {498, -411358, "kNetworkClientError"},          {500, -411359, "kNetworkServerError"},
        {503, -411359, "kNetworkServerError"},          {598, -411359, "kNetworkServerError"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.status);
        sim.setFault("", status(row.status));
        const Raised r = clientError();
        EXPECT_EQ(r.code, row.code);
        EXPECT_EQ(r.text("error_constant"), row.constant);
        EXPECT_EQ(r.number(kDebug, "responseCode"), row.status);
    }
}

TEST_F(HttpClient, StatusesOutsideTheMapGoOnToTheBody) {
    for (int s : {200, 201, 299, 499, 599}) {
        SCOPED_TRACE(s);
        sim.setFault("", status(s));
        ztsdtest::CJsonPtr payload = ztsdtest::parseJson(clientGet());
        ASSERT_NE(payload, nullptr);
        EXPECT_EQ(cJSON_GetObjectItem(payload.get(), "uri")->valuestring, devicePath);
    }
    // 204 has no body, which is no JSON.
    sim.setFault("", status(204));
    const Raised empty = clientError();
    EXPECT_EQ(empty.code, -411360);
    EXPECT_EQ(empty.text("error_constant"), "kInvalidJSONResponseFromServer");
    EXPECT_EQ(empty.number(kDebug, "jsonz_ErrorCode"), 1);
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
             {"{\"Result\":true}", "true"},
         }) {
        SCOPED_TRACE(c.body);
        sim.setFault("", rawBody(c.body));
        EXPECT_EQ(clientGet(), c.result);
    }

    sim.setFault("", rawBody("{\"error\":{\"success\":false,\"errorCode\":-52017,\"errorText\":\"nope\","
                             "\"errorInfo\":{\"k\":[1]}},\"result\":null}"));
    const Raised server = clientError();
    EXPECT_EQ(server.code, -52017);
    EXPECT_EQ(server.text("error_constant"), "errorCode");
    EXPECT_EQ(server.detail(kDebug, "errorText"), "nope");
    const cJSON* info = cJSON_GetObjectItemCaseSensitive(server.debug(kDebug), "errorInfo");
    ASSERT_TRUE(cJSON_IsObject(info)) << server.json;
    EXPECT_TRUE(cJSON_IsArray(cJSON_GetObjectItem(info, "k")));

    // The simulator's own failure envelope.
    ztsdsim::Fault failing;
    failing.envelopeError = true;
    failing.errorCode = -52010;
    failing.errorText = "not ready";
    sim.setFault("", failing);
    const Raised simulated = clientError();
    EXPECT_EQ(simulated.code, -52010);
    EXPECT_EQ(simulated.detail(kDebug, "errorText"), "not ready");

    // A positive server code is raised as it stands (a warning).
    sim.setFault("", rawBody("{\"error\":{\"success\":false,\"errorCode\":7}}"));
    EXPECT_EQ(clientError().code, 7);

    // Failure without a code is still a failure.
    sim.setFault("", rawBody("{\"error\":{\"success\":false,\"errorCode\":0,\"errorText\":\"vague\"},\"result\":{}}"));
    const Raised vague = clientError();
    EXPECT_EQ(vague.code, -411361);
    EXPECT_EQ(vague.detail(kDebug, "errorText"), "vague");
    sim.setFault("", rawBody("{\"error\":{\"success\":false}}"));
    EXPECT_EQ(clientError().code, -411361);
}

TEST_F(HttpClient, AMalformedEnvelopeIsAnInvalidResponse) {
    struct Case {
        const char* body;
        const char* member;
    };
    for (const Case& c : std::vector<Case>{
             {"{\"error\":\"bad\"}", "error"},
             {"{\"error\":[]}", "error"},
             {"{\"error\":{\"errorCode\":1}}", "success"},
             {"{\"error\":{\"success\":\"false\"}}", "success"},
             {"{\"error\":{\"success\":false,\"errorCode\":1.5}}", "errorCode"},
             {"{\"error\":{\"success\":false,\"errorCode\":1e12}}", "errorCode"},
             {"{\"error\":{\"success\":false,\"errorCode\":\"-1\"}}", "errorCode"},
             {"{\"error\":{\"success\":false,\"errorCode\":-1,\"errorText\":7}}", "errorText"},
         }) {
        SCOPED_TRACE(c.body);
        sim.setFault("", rawBody(c.body));
        const Raised r = clientError();
        EXPECT_EQ(r.code, -411360);
        EXPECT_EQ(r.detail(kDebug, "member"), c.member);
    }
}

TEST_F(HttpClient, MalformedTruncatedHugeAndDeepBodiesFailCleanly) {
    struct Case {
        std::string body;
        int jsonzError;
    };
    const std::size_t tenMiB = 10u << 20;
    const std::vector<Case> cases = {
        {"not json", 1},
        {"{\"result\":{\"a\":1}", 3},
        {"{\"result\":[1,2", 4},
        {"{\"result\":1} x", 9},
        {std::string("{\"result\":1}\0{}", 15), 9},
        {"{\"result\":\"" + std::string(tenMiB, 'a'), 2},
        {"[" + std::string(tenMiB, '1'), 4},
        {std::string(1000000, '['), 4},
        {std::string(1000000, '[') + std::string(1000000, ']'), 0},  // valid, but deeper than the reader goes
        {std::string(200000, '{') , 2},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.body.substr(0, 24) + "... (" + std::to_string(c.body.size()) + " bytes)");
        sim.setFault("", rawBody(c.body));
        const Raised r = clientError();
        EXPECT_EQ(r.code, -411360);
        EXPECT_EQ(r.number(kDebug, "jsonz_ErrorCode"), c.jsonzError);
    }

    // A huge valid body goes through.
    sim.setFault("", rawBody("{\"result\":\"" + std::string(tenMiB, 'b') + "\"}"));
    EXPECT_EQ(clientGet().size(), tenMiB + 2);
}

TEST_F(HttpClient, RefusedDroppedAndStalledRequestsFailWithinTheTimeOut) {
    // Dropped without an answer.
    ztsdsim::Fault drop;
    drop.dropConnection = true;
    sim.setFault("", drop);
    const Raised dropped = clientError();
    EXPECT_EQ(dropped.code, -411361);
    EXPECT_EQ(dropped.detail(kDebug, "function"), "curl_easy_perform");

    // Stalled: the call returns after the time-out, not later.
    ztsdsim::Fault stall;
    stall.stall = true;
    sim.setFault("", stall);
    client.setTimeoutInMS(300);
    const auto start = std::chrono::steady_clock::now();
    const Raised stalled = clientError();
    const auto elapsed_ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
    EXPECT_EQ(stalled.code, -411361);
    EXPECT_EQ(stalled.number(kDebug, "CURLcode"), CURLE_OPERATION_TIMEDOUT);
    EXPECT_FALSE(stalled.detail(kDebug, "CURLOPT_ERRORBUFFER").empty());
    EXPECT_GE(elapsed_ms, 280);
    EXPECT_LT(elapsed_ms, 300 + 1000);

    // The same client works once the chassis answers again.
    sim.clearFaults();
    client.setTimeoutInMS(3000);
    EXPECT_FALSE(clientGet().empty());

    // Nobody listening.
    const std::string deadPrefix = prefix;
    sim.stop();
    client.setAddress(deadPrefix, deviceRelative());
    const Raised refused = clientError();
    EXPECT_EQ(refused.code, -411361);
    EXPECT_EQ(refused.number(kDebug, "CURLcode"), CURLE_COULDNT_CONNECT);
}

TEST_F(HttpClient, ConsecutiveRequestsReuseOneConnection) {
    const std::uint16_t port = sim.port();
    for (int i = 0; i < 5; ++i) clientGet();
    std::string result;
    ztsdtools::sendPutRequest(client, hostPrefix, devicePath, "{\"a\":1}", result);
    ztsdtools::sendGetRequest(client, hostPrefix, devicePath, result);
    EXPECT_EQ(remotetest::clientSocketsTo(port), 1u);
    EXPECT_EQ(sim.getCountOf("chassis0"), 6u);
}

// ---------------------------------------------------------------------------
// Translation by sendGetRequest / sendPutRequest

TEST_F(HttpClient, AnEmptyUriOrPrefixIsAnInvalidParameter) {
    std::string result;
    const Raised uri = captureRaise([&] { ztsdtools::sendGetRequest(client, prefix, "", result); });
    EXPECT_EQ(uri.code, -52005);
    EXPECT_EQ(uri.text("error_constant"), "ztapalerr_invalidParameter");
    EXPECT_EQ(uri.detailKeys(kDebug),
              (std::vector<std::string>{"message", "callingFn", "url", "data", "originalCode"}));
    EXPECT_EQ(uri.detail(kDebug, "message"), "Encountered invalid URI.");
    EXPECT_EQ(uri.detail(kDebug, "callingFn"), "ztsdtools::sendGetRequest");
    EXPECT_EQ(uri.detail(kDebug, "url"), prefix + "/");
    EXPECT_EQ(uri.detail(kDebug, "data"), "");
    EXPECT_EQ(uri.number(kDebug, "originalCode"), -411352);

    const Raised noPrefix = captureRaise([&] { ztsdtools::sendPutRequest(client, "", devicePath, "{\"p\":1}", result); });
    EXPECT_EQ(noPrefix.code, -52005);
    EXPECT_EQ(noPrefix.detail(kDebug, "callingFn"), "ztsdtools::sendPutRequest");
    EXPECT_EQ(noPrefix.detail(kDebug, "data"), "{\"p\":1}");
    EXPECT_EQ(noPrefix.number(kDebug, "originalCode"), -411353);
    EXPECT_EQ(sim.requestCount(), 0u);
}

TEST_F(HttpClient, ClientFailuresBecomeCommunicationsFaultsWithTheOriginalCode) {
    struct Row {
        ztsdsim::Fault fault;
        std::int32_t original;
    };
    ztsdsim::Fault drop;
    drop.dropConnection = true;
    const std::vector<Row> rows = {
        {status(202), 411369}, {status(400), -411354}, {status(401), -411355}, {status(404), -411356},
        {status(408), -411357}, {status(415), -411370}, {status(418), -411358}, {status(502), -411359},
        {rawBody("{oops"), -411360},  {rawBody("{\"error\":{\"success\":false}}"), -411361}, {drop, -411361},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.original);
        sim.setFault("", row.fault);
        std::string result = "unchanged";
        const Raised get = captureRaise([&] { ztsdtools::sendGetRequest(client, hostPrefix, devicePath, result); });
        EXPECT_EQ(get.code, -52024);
        EXPECT_EQ(get.text("error_constant"), "ztapalerr_communicationsFault");
        EXPECT_EQ(get.detailKeys(kDebug), (std::vector<std::string>{"callingFn", "url", "data", "originalCode"}));
        EXPECT_EQ(get.detail(kDebug, "callingFn"), "ztsdtools::sendGetRequest");
        EXPECT_EQ(get.detail(kDebug, "url"), "http://" + host + devicePath);
        EXPECT_EQ(get.number(kDebug, "originalCode"), row.original);
        ASSERT_NE(nestedReport(get), nullptr) << get.json;
        EXPECT_EQ(cJSON_GetObjectItem(nestedReport(get), "code")->valueint, row.original);
        EXPECT_EQ(result, "unchanged");

        const Raised put = captureRaise([&] { ztsdtools::sendPutRequest(client, hostPrefix, devicePath, "{\"b\":2}", result); });
        EXPECT_EQ(put.code, -52024);
        EXPECT_EQ(put.detail(kDebug, "callingFn"), "ztsdtools::sendPutRequest");
        EXPECT_EQ(put.detail(kDebug, "data"), "{\"b\":2}");
        EXPECT_EQ(put.number(kDebug, "originalCode"), row.original);
    }
    sim.setFault("", status(404));
    std::string result;
    const Raised notFound = captureRaise([&] { ztsdtools::sendGetRequest(client, hostPrefix, devicePath, result); });
    EXPECT_EQ(nestedNumber(notFound, "responseCode"), 404);
}

TEST_F(HttpClient, ServerCodesPassThroughUnchanged) {
    ztsdsim::Fault failing;
    failing.envelopeError = true;
    failing.errorCode = -1074100993;
    failing.errorText = "conflict";
    sim.setFault("", failing);
    std::string result;
    const Raised r = captureRaise([&] { ztsdtools::sendGetRequest(client, hostPrefix, devicePath, result); });
    EXPECT_EQ(r.code, -1074100993);
    EXPECT_EQ(r.text("error_constant"), "errorCode");
    EXPECT_EQ(r.detail(kDebug, "errorText"), "conflict");
    EXPECT_EQ(r.member("nested_error"), nullptr);
}
