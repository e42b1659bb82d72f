// tCURL against a hand-filled libcurl entry-point table: the options it sets
// and their order, and the failures of libcurl calls that a real server
// cannot provoke. Statuses, envelopes and transport faults are tested over
// real HTTP in the integration tests.
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "remote/curlClient.h"
#include "unit/support/raisedError.h"

using zt::vela::shared::CurlApi;
using zt::vela::shared::joinAddress;
using zt::vela::shared::tCURL;
using ztsdtest::captureRaise;
using ztsdtest::Raised;

namespace {

const char* kDebug = "ztsyncdomain_debug";

// One fake libcurl: records what the client asks of it.
struct Fake {
    static inline std::vector<CURLoption> options;
    static inline int failAt = -1;  // index of the setopt call to fail
    static inline CURLcode performResult = CURLE_OK;
    static inline CURLcode getinfoResult = CURLE_OK;
    static inline bool initFails = false;
    static inline long responseCode = 200;
    static inline std::string body;
    static inline std::size_t chunk = 0;  // 0: the body in one write
    static inline int inits = 0, cleanups = 0, listNodes = 0;

    static inline curl_write_callback write = nullptr;
    static inline curl_read_callback read = nullptr;
    static inline void* writeData = nullptr;
    static inline void* readData = nullptr;
    static inline char* errorBuffer = nullptr;
    static inline std::string url, username, password, uploaded;
    static inline long upload = -1, timeout = -1, nosignal = -1;
    static inline std::vector<std::vector<std::string>> headerSets;  // one per CURLOPT_HTTPHEADER call

    static void reset() {
        options.clear();
        failAt = -1;
        performResult = getinfoResult = CURLE_OK;
        initFails = false;
        responseCode = 200;
        body = "{\"error\":{\"success\":true,\"errorCode\":0,\"errorText\":\"\",\"errorInfo\":{}},\"result\":{\"a\":1}}";
        chunk = 0;
        inits = cleanups = listNodes = 0;
        write = nullptr;
        read = nullptr;
        writeData = readData = nullptr;
        errorBuffer = nullptr;
        url.clear();
        username.clear();
        password.clear();
        uploaded.clear();
        upload = timeout = nosignal = -1;
        headerSets.clear();
    }

    static CURLcode globalInit(long) { return CURLE_OK; }
    static CURL* easyInit() {
        ++inits;
        static int handle;
        return initFails ? nullptr : reinterpret_cast<CURL*>(&handle);
    }
    static void easyCleanup(CURL*) { ++cleanups; }

    static CURLcode setopt(CURL*, CURLoption option, ...) {
        const int index = static_cast<int>(options.size());
        options.push_back(option);
        va_list args;
        va_start(args, option);
        switch (option) {
            case CURLOPT_READFUNCTION: read = va_arg(args, curl_read_callback); break;
            case CURLOPT_WRITEFUNCTION: write = va_arg(args, curl_write_callback); break;
            case CURLOPT_WRITEDATA: writeData = va_arg(args, void*); break;
            case CURLOPT_READDATA: readData = va_arg(args, void*); break;
            case CURLOPT_UPLOAD: upload = va_arg(args, long); break;
            case CURLOPT_TIMEOUT_MS: timeout = va_arg(args, long); break;
            case CURLOPT_NOSIGNAL: nosignal = va_arg(args, long); break;
            case CURLOPT_URL: url = va_arg(args, const char*); break;
            case CURLOPT_USERNAME: username = va_arg(args, const char*); break;
            case CURLOPT_PASSWORD: password = va_arg(args, const char*); break;
            case CURLOPT_HTTPHEADER: {
                headerSets.emplace_back();
                for (curl_slist* n = va_arg(args, curl_slist*); n; n = n->next) headerSets.back().emplace_back(n->data);
                break;
            }
            case CURLOPT_ERRORBUFFER: errorBuffer = va_arg(args, char*); break;
            default: break;
        }
        va_end(args);
        return index == failAt ? CURLE_UNKNOWN_OPTION : CURLE_OK;
    }

    static CURLcode perform(CURL*) {
        if (upload == 1) {
            char buffer[7];
            for (std::size_t n; (n = read(buffer, 1, sizeof buffer, readData)) > 0;) uploaded.append(buffer, n);
        }
        if (performResult != CURLE_OK) {
            std::strcpy(errorBuffer, "fake transfer failure");
            return performResult;
        }
        const std::size_t step = chunk ? chunk : (body.empty() ? 1 : body.size());
        for (std::size_t at = 0; at < body.size(); at += step) {
            const std::size_t n = std::min(step, body.size() - at);
            if (write(const_cast<char*>(body.data() + at), 1, n, writeData) != n) return CURLE_WRITE_ERROR;
        }
        return CURLE_OK;
    }

    static CURLcode getinfo(CURL*, CURLINFO info, ...) {
        va_list args;
        va_start(args, info);
        if (info == CURLINFO_RESPONSE_CODE) *va_arg(args, long*) = responseCode;
        va_end(args);
        return getinfoResult;
    }

    static curl_slist* slistAppend(curl_slist* list, const char* text) {
        auto* node = new curl_slist{strdup(text), nullptr};
        ++listNodes;
        if (!list) return node;
        curl_slist* last = list;
        while (last->next) last = last->next;
        last->next = node;
        return list;
    }
    static void slistFreeAll(curl_slist* list) {
        while (list) {
            curl_slist* next = list->next;
            std::free(list->data);
            delete list;
            --listNodes;
            list = next;
        }
    }

    static std::shared_ptr<const CurlApi> source() {
        auto api = std::make_shared<CurlApi>();
        api->global_init = &globalInit;
        api->easy_init = &easyInit;
        api->easy_setopt = &setopt;
        api->easy_perform = &perform;
        api->easy_getinfo = &getinfo;
        api->easy_cleanup = &easyCleanup;
        api->slist_append = &slistAppend;
        api->slist_free_all = &slistFreeAll;
        return api;
    }
};

class CurlClient : public ::testing::Test {
protected:
    void SetUp() override { Fake::reset(); }
};

const std::vector<CURLoption> kOptionOrder = {
    CURLOPT_READFUNCTION, CURLOPT_WRITEFUNCTION, CURLOPT_WRITEDATA, CURLOPT_READDATA,
    CURLOPT_UPLOAD,       CURLOPT_TIMEOUT_MS,    CURLOPT_NOSIGNAL,  CURLOPT_URL,
    CURLOPT_USERNAME,     CURLOPT_PASSWORD,      CURLOPT_HTTPHEADER, CURLOPT_ERRORBUFFER,
};

const char* const kOptionTexts[] = {
    "curl_easy_setopt(_connection, CURLOPT_READFUNCTION, _readCallback)",
    "curl_easy_setopt(_connection, CURLOPT_WRITEFUNCTION, _writeCallback)",
    "curl_easy_setopt(_connection, CURLOPT_WRITEDATA, &tempBufferForGet)",
    "curl_easy_setopt(_connection, CURLOPT_READDATA, &putTextBuffer)",
    "curl_easy_setopt(_connection, CURLOPT_UPLOAD, upload ? 1L : 0L)",
    "curl_easy_setopt(_connection, CURLOPT_TIMEOUT_MS, static_cast<long>(_timeoutInMS))",
    "curl_easy_setopt(_connection, CURLOPT_NOSIGNAL, 1L)",
    "curl_easy_setopt(_connection, CURLOPT_URL, url.c_str())",
    "curl_easy_setopt(_connection, CURLOPT_USERNAME, _username.c_str())",
    "curl_easy_setopt(_connection, CURLOPT_PASSWORD, _password.c_str())",
    "curl_easy_setopt(_connection, CURLOPT_HTTPHEADER, headerList.get())",
    "curl_easy_setopt(_connection, CURLOPT_ERRORBUFFER, errbuf)",
};

}  // namespace

TEST(JoinAddress, JoinsWithExactlyOneSlash) {
    EXPECT_EQ(joinAddress("http://h:1/ztsdwebs", "resources/"), "http://h:1/ztsdwebs/resources/");
    EXPECT_EQ(joinAddress("http://h:1/ztsdwebs/", "/resources/a/b"), "http://h:1/ztsdwebs/resources/a/b");
    EXPECT_EQ(joinAddress("http://h:1//", "//x"), "http://h:1/x");
    EXPECT_EQ(joinAddress("http://h:1", ""), "http://h:1/");
    EXPECT_EQ(joinAddress("http://h:1", "a//b/"), "http://h:1/a//b/");
}

TEST_F(CurlClient, SetsEveryOptionInOrderAndReusesItsHandle) {
    {
        tCURL client("media/x; charset=utf-8", &Fake::source);
        client.setTimeoutInMS(1234);
        client.setCredentials("user", "secret");
        client.initialize("http://h:1/ztsdwebs/", "/resources/a");
        std::string result;
        client.request(false, "ignored for GET", result);
        EXPECT_EQ(result, "{\"a\":1}");

        std::vector<CURLoption> expected = kOptionOrder;
        expected.push_back(CURLOPT_HTTPHEADER);  // detached again after the request
        EXPECT_EQ(Fake::options, expected);
        EXPECT_EQ(Fake::url, "http://h:1/ztsdwebs/resources/a");
        EXPECT_EQ(Fake::upload, 0);
        EXPECT_EQ(Fake::timeout, 1234);
        EXPECT_EQ(Fake::nosignal, 1);
        EXPECT_EQ(Fake::username, "user");
        EXPECT_EQ(Fake::password, "secret");
        // The media type as both headers; the list is detached after the request.
        EXPECT_EQ(Fake::headerSets, (std::vector<std::vector<std::string>>{
                                        {"Accept: media/x; charset=utf-8", "Content-Type: media/x; charset=utf-8"}, {}}));
        EXPECT_EQ(Fake::listNodes, 0);
        EXPECT_EQ(Fake::uploaded, "");

        Fake::options.clear();
        Fake::body = "{\"result\":[1,2]}";
        client.setAddress("http://h:1/ztsdwebs", "resources/b");
        client.request(true, "{\"put\":\"body of some length\"}", result);
        EXPECT_EQ(result, "[1,2]");
        EXPECT_EQ(Fake::options.size(), kOptionOrder.size() + 1);
        EXPECT_EQ(Fake::upload, 1);
        EXPECT_EQ(Fake::uploaded, "{\"put\":\"body of some length\"}");
        EXPECT_EQ(Fake::url, "http://h:1/ztsdwebs/resources/b");
        EXPECT_EQ(Fake::inits, 1);
        EXPECT_EQ(Fake::cleanups, 0);
    }
    EXPECT_EQ(Fake::cleanups, 1);
}

TEST_F(CurlClient, EachFailingOptionRaisesTheInternalErrorNamingItsCall) {
    tCURL client("m", &Fake::source);
    client.initialize("http://h", "r");
    for (int i = 0; i < static_cast<int>(kOptionOrder.size()); ++i) {
        SCOPED_TRACE(kOptionTexts[i]);
        Fake::options.clear();
        Fake::failAt = i;
        std::string result = "before";
        const Raised r = captureRaise([&] { client.request(false, "", result); });
        EXPECT_EQ(r.code, -411350);
        EXPECT_EQ(r.text("error_constant"), "kInternalSoftwareError");
        EXPECT_EQ(r.detail(kDebug, "function"), kOptionTexts[i]);
        EXPECT_EQ(r.number(kDebug, "CURLcode"), CURLE_UNKNOWN_OPTION);
        EXPECT_EQ(result, "before");
        EXPECT_EQ(Fake::listNodes, 0);
    }
    Fake::failAt = -1;
    std::string result;
    client.request(false, "", result);  // still usable
    EXPECT_EQ(result, "{\"a\":1}");
}

TEST_F(CurlClient, TransferInfoAndHandleFailuresHaveTheirCodes) {
    tCURL client("m", &Fake::source);
    client.initialize("http://h", "r");
    std::string result;

    Fake::performResult = CURLE_COULDNT_CONNECT;
    const Raised perform = captureRaise([&] { client.request(false, "", result); });
    EXPECT_EQ(perform.code, -411361);
    EXPECT_EQ(perform.text("error_constant"), "kInternalSoftwareErrorUnknownNetworkError");
    EXPECT_EQ(perform.detailKeys(kDebug),
              (std::vector<std::string>{"message", "function", "CURLcode", "CURLOPT_ERRORBUFFER"}));
    EXPECT_EQ(perform.detail(kDebug, "function"), "curl_easy_perform");
    EXPECT_EQ(perform.number(kDebug, "CURLcode"), CURLE_COULDNT_CONNECT);
    EXPECT_EQ(perform.detail(kDebug, "CURLOPT_ERRORBUFFER"), "fake transfer failure");

    Fake::performResult = CURLE_OK;
    Fake::getinfoResult = CURLE_BAD_FUNCTION_ARGUMENT;
    const Raised info = captureRaise([&] { client.request(false, "", result); });
    EXPECT_EQ(info.code, -411350);
    EXPECT_EQ(info.detail(kDebug, "function"),
              "curl_easy_getinfo(_connection, CURLINFO_RESPONSE_CODE, &responseCode)");
    EXPECT_EQ(Fake::listNodes, 0);

    Fake::reset();
    Fake::initFails = true;
    tCURL noHandle("m", &Fake::source);
    const Raised init = captureRaise([&] { noHandle.initialize("http://h", "r"); });
    EXPECT_EQ(init.code, -411351);
    EXPECT_EQ(init.detail(kDebug, "check failed"), "_connection");
}

TEST_F(CurlClient, RefusesAnEmptyUriBeforeAnEmptyPrefixAndSendsNothing) {
    tCURL client("m", &Fake::source);
    std::string result;
    client.initialize("", "");
    const Raised uri = captureRaise([&] { client.request(false, "", result); });
    EXPECT_EQ(uri.code, -411352);
    EXPECT_EQ(uri.text("error_constant"), "kInvalidEndStationURI");
    EXPECT_EQ(uri.detail(kDebug, "check failed"), "!_uri.empty()");

    client.setAddress("", "r");
    const Raised prefix = captureRaise([&] { client.request(false, "", result); });
    EXPECT_EQ(prefix.code, -411353);
    EXPECT_EQ(prefix.text("error_constant"), "kInvalidURIPrefix");
    EXPECT_EQ(prefix.detail(kDebug, "check failed"), "!_prefix.empty()");
    EXPECT_TRUE(Fake::options.empty());
}

TEST_F(CurlClient, ABodyBeyondTheLimitAbortsTheTransfer) {
    tCURL client("m", &Fake::source);
    client.initialize("http://h", "r");
    Fake::body.assign(zt::vela::shared::kMaxResponseBytes + 1, ' ');
    Fake::chunk = 1 << 20;
    std::string result;
    const Raised r = captureRaise([&] { client.request(false, "", result); });
    EXPECT_EQ(r.code, -411361);
    EXPECT_EQ(r.number(kDebug, "CURLcode"), CURLE_WRITE_ERROR);
}

// A repeated "error" or "success" (the reader looks members up without letter
// case and takes the first) must not let a failure pass as a success; one
// "error" and one "success" in another case still read as usual. A lone
// surrogate escape is valid JSON the reader refuses: -411360 number 0.
TEST(ReplyEnvelope, RepeatedOutcomeMembersAreMalformedAndNeverASuccess) {
    using zt::vela::shared::readReplyEnvelope;
    struct Case {
        const char* body;
        const char* member;
    };
    const Case malformed[] = {
        {"{\"error\":{\"success\":true},\"Error\":{\"success\":false,\"errorCode\":5},\"result\":1}", "error"},
        {"{\"error\":{\"success\":false,\"errorCode\":5},\"error\":{\"success\":true},\"result\":1}", "error"},
        {"{\"error\":{\"success\":true,\"SUCCESS\":false},\"result\":1}", "success"},
        {"{\"error\":{\"success\":true,\"success\":true},\"result\":1}", "success"},
    };
    for (const Case& c : malformed) {
        const Raised r = captureRaise([&] { readReplyEnvelope(c.body); });
        EXPECT_EQ(r.code, -411360) << c.body;
        EXPECT_EQ(r.text("error_constant"), "kInvalidJSONResponseFromServer") << c.body;
        EXPECT_EQ(r.detail(kDebug, "member"), c.member) << c.body;
    }

    EXPECT_EQ(readReplyEnvelope("{\"ERROR\":{\"Success\":true},\"errors\":{\"success\":false},\"result\":[2]}"), "[2]");
    const Raised failed =
        captureRaise([&] { readReplyEnvelope("{\"Error\":{\"SUCCESS\":false,\"errorCode\":-50123},\"result\":null}"); });
    EXPECT_EQ(failed.code, -50123);

    const Raised surrogate = captureRaise([&] { readReplyEnvelope("{\"result\":\"\\ud800\"}"); });
    EXPECT_EQ(surrogate.code, -411360);
    EXPECT_EQ(surrogate.number(kDebug, "jsonz_ErrorCode"), 0);
}
