// tCURL against a hand-filled libcurl entry-point table: the options it sets
// and their order, and the failures of libcurl calls that a real server
// cannot provoke. Statuses, envelopes, bodies and transport faults are tested
// over real HTTP in tests/integration/remote/httpClientTest.cpp.
#include <gtest/gtest.h>

#include <cstdarg>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "remote/curlClient.h"
#include "unit/support/raisedError.h"

using zt::vela::shared::CurlApi;
using zt::vela::shared::joinAddress;
using zt::vela::shared::tCURL;
using ztsdtest::captureRaise;
using ztsdtest::kDebug;
using ztsdtest::Raised;

namespace {

// One fake libcurl: records what the client asks of it.
struct Fake {
    static inline std::vector<CURLoption> options;
    static inline int failAt = -1;  // index of the setopt call to fail
    static inline CURLcode getinfoResult = CURLE_OK;
    static inline bool initFails = false;
    static inline std::string body;
    static inline int inits = 0, cleanups = 0, listNodes = 0;

    static inline curl_write_callback write = nullptr;
    static inline void* writeData = nullptr;
    static inline std::string username, password;
    static inline long timeout = -1, nosignal = -1;
    static inline std::vector<curl_slist*> headerLists;  // one per CURLOPT_HTTPHEADER call
    static inline std::vector<std::string> headerTexts;  // of the last list attached
    static inline curl_off_t uploadSize = -2;
    static inline std::string proxy = "<unset>";

    static void reset() {
        options.clear();
        failAt = -1;
        getinfoResult = CURLE_OK;
        initFails = false;
        body = "{\"error\":{\"success\":true,\"errorCode\":0,\"errorText\":\"\",\"errorInfo\":{}},\"result\":{\"a\":1}}";
        inits = cleanups = listNodes = 0;
        headerLists.clear();
        headerTexts.clear();
        uploadSize = -2;
        proxy = "<unset>";
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
            case CURLOPT_WRITEFUNCTION: write = va_arg(args, curl_write_callback); break;
            case CURLOPT_WRITEDATA: writeData = va_arg(args, void*); break;
            case CURLOPT_TIMEOUT_MS: timeout = va_arg(args, long); break;
            case CURLOPT_NOSIGNAL: nosignal = va_arg(args, long); break;
            case CURLOPT_USERNAME: username = va_arg(args, const char*); break;
            case CURLOPT_PASSWORD: password = va_arg(args, const char*); break;
            case CURLOPT_HTTPHEADER: {
                curl_slist* list = va_arg(args, curl_slist*);
                headerLists.push_back(list);
                if (list) headerTexts.clear();
                for (; list; list = list->next) headerTexts.push_back(list->data);
                break;
            }
            case CURLOPT_INFILESIZE_LARGE: uploadSize = va_arg(args, curl_off_t); break;
            case CURLOPT_PROXY: proxy = va_arg(args, const char*); break;
            default: break;
        }
        va_end(args);
        return index == failAt ? CURLE_UNKNOWN_OPTION : CURLE_OK;
    }

    static CURLcode perform(CURL*) {
        if (!body.empty() && write(const_cast<char*>(body.data()), 1, body.size(), writeData) != body.size())
            return CURLE_WRITE_ERROR;
        return CURLE_OK;
    }

    static CURLcode getinfo(CURL*, CURLINFO info, ...) {
        va_list args;
        va_start(args, info);
        if (info == CURLINFO_RESPONSE_CODE) *va_arg(args, long*) = 200;
        va_end(args);
        return getinfoResult;
    }

    // libcurl's own lists, counted.
    static curl_slist* slistAppend(curl_slist* list, const char* text) {
        ++listNodes;
        return CurlApi::system()->slist_append(list, text);
    }
    static void slistFreeAll(curl_slist* list) {
        for (const curl_slist* n = list; n; n = n->next) --listNodes;
        CurlApi::system()->slist_free_all(list);
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

// The options in the order the client sets them, with their names.
#define ZTSD_OPTION(o) std::make_pair(o, #o)
const std::vector<std::pair<CURLoption, const char*>> kOptions = {
    ZTSD_OPTION(CURLOPT_READFUNCTION), ZTSD_OPTION(CURLOPT_WRITEFUNCTION), ZTSD_OPTION(CURLOPT_WRITEDATA),
    ZTSD_OPTION(CURLOPT_READDATA),     ZTSD_OPTION(CURLOPT_UPLOAD),        ZTSD_OPTION(CURLOPT_TIMEOUT_MS),
    ZTSD_OPTION(CURLOPT_NOSIGNAL),     ZTSD_OPTION(CURLOPT_URL),           ZTSD_OPTION(CURLOPT_USERNAME),
    ZTSD_OPTION(CURLOPT_PASSWORD),     ZTSD_OPTION(CURLOPT_HTTPHEADER),    ZTSD_OPTION(CURLOPT_ERRORBUFFER),
    ZTSD_OPTION(CURLOPT_INFILESIZE_LARGE), ZTSD_OPTION(CURLOPT_PROXY),  ZTSD_OPTION(CURLOPT_MAXAGE_CONN),
};
#undef ZTSD_OPTION

}  // namespace

TEST(JoinAddress, JoinsWithExactlyOneSlash) {
    EXPECT_EQ(joinAddress("http://h:1/ztsdwebs", "resources/"), "http://h:1/ztsdwebs/resources/");
    EXPECT_EQ(joinAddress("http://h:1/ztsdwebs/", "/resources/a/b"), "http://h:1/ztsdwebs/resources/a/b");
    EXPECT_EQ(joinAddress("http://h:1//", "//x"), "http://h:1/x");
    EXPECT_EQ(joinAddress("http://h:1", ""), "http://h:1/");
    EXPECT_EQ(joinAddress("http://h:1", "a//b/"), "http://h:1/a//b/");
}

// What the server's side cannot see: signals, credentials, the time-out
// value, the header list detached again after the request (the URL, method
// and headers are checked by the simulated chassis).
TEST_F(CurlClient, SetsEveryOptionInOrderAndReusesItsHandle) {
    {
        tCURL client("m", &Fake::source);
        client.setTimeoutInMS(1234);
        client.setCredentials("user", "secret");
        client.initialize("http://h:1/ztsdwebs/", "/resources/a");
        std::string result;
        client.request(false, "ignored for GET", result);
        EXPECT_EQ(result, "{\"a\":1}");

        std::vector<CURLoption> expected;
        for (const auto& option : kOptions) expected.push_back(option.first);
        expected.push_back(CURLOPT_HTTPHEADER);  // detached again after the request
        EXPECT_EQ(Fake::options, expected);
        EXPECT_EQ(Fake::timeout, 1234);
        EXPECT_EQ(Fake::nosignal, 1);
        EXPECT_EQ(Fake::username, "user");
        EXPECT_EQ(Fake::password, "secret");
        ASSERT_EQ(Fake::headerLists.size(), 2u);
        EXPECT_NE(Fake::headerLists[0], nullptr);
        EXPECT_EQ(Fake::headerLists[1], nullptr);
        EXPECT_EQ(Fake::listNodes, 0);
        // No proxy, whatever the environment says; a GET has no body length.
        EXPECT_EQ(Fake::proxy, "");
        EXPECT_EQ(Fake::uploadSize, -1);
        EXPECT_EQ(Fake::headerTexts, (std::vector<std::string>{"Accept: m", "Content-Type: m"}));

        // A PUT states its body's length and removes libcurl's own Expect.
        client.request(true, "{\"b\":2}", result);
        EXPECT_EQ(Fake::uploadSize, 7);
        EXPECT_EQ(Fake::headerTexts, (std::vector<std::string>{"Accept: m", "Content-Type: m", "Expect:"}));

        client.request(false, "", result);
        EXPECT_EQ(Fake::inits, 1);
        EXPECT_EQ(Fake::cleanups, 0);
    }
    EXPECT_EQ(Fake::cleanups, 1);
}

TEST_F(CurlClient, EachFailingOptionRaisesTheInternalErrorNamingItsCall) {
    tCURL client("m", &Fake::source);
    client.initialize("http://h", "r");
    for (int i = 0; i < static_cast<int>(kOptions.size()); ++i) {
        SCOPED_TRACE(kOptions[i].second);
        Fake::options.clear();
        Fake::failAt = i;
        std::string result = "before";
        const Raised r = captureRaise([&] { client.request(false, "", result); });
        EXPECT_EQ(r.code, -411350);
        EXPECT_EQ(r.text("error_constant"), "kInternalSoftwareError");
        EXPECT_NE(r.detail(kDebug, "function").find(std::string(", ") + kOptions[i].second + ", "), std::string::npos)
            << r.json;
        EXPECT_EQ(r.number(kDebug, "CURLcode"), CURLE_UNKNOWN_OPTION);
        EXPECT_EQ(result, "before");
        EXPECT_EQ(Fake::listNodes, 0);
    }
    Fake::failAt = -1;
    std::string result;
    client.request(false, "", result);  // still usable
    EXPECT_EQ(result, "{\"a\":1}");
}

TEST_F(CurlClient, InfoAndHandleFailuresHaveTheirCodes) {
    tCURL client("m", &Fake::source);
    client.initialize("http://h", "r");
    std::string result;
    Fake::getinfoResult = CURLE_BAD_FUNCTION_ARGUMENT;
    const Raised info = captureRaise([&] { client.request(false, "", result); });
    ztsdtest::expectReport(info, -411350, R"({"message":"A libcurl call failed.","function":"curl_easy_getinfo(_connection, )"
                                          R"x(CURLINFO_RESPONSE_CODE, &responseCode)","CURLcode":)x" +
                                              std::to_string(CURLE_BAD_FUNCTION_ARGUMENT) + "}");
    EXPECT_EQ(Fake::listNodes, 0);

    Fake::reset();
    Fake::initFails = true;
    tCURL noHandle("m", &Fake::source);
    const Raised init = captureRaise([&] { noHandle.initialize("http://h", "r"); });
    ztsdtest::expectReport(init, -411351, R"({"message":"HTTP client is not ready for a request.","check failed":"_connection"})");
}
