// Run-time resolution of libcurl and what a client does without it.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "remote/curlClient.h"
#include "remote/curlLibrary.h"
#include "remote/curlResourceManagerProxy.h"
#include "unit/support/raisedError.h"

using zt::vela::shared::CurlApi;
using ztsdtest::captureRaise;
using ztsdtest::kDebug;
using ztsdtest::Raised;

namespace {

#ifdef _WIN32
// The installation's own libcurl DLL, and a library every system has that is not libcurl.
constexpr const char* kSystemCurl = "libcurl.dll";
constexpr const char* kNotCurl = "kernel32.dll";
#else
constexpr const char* kSystemCurl = "libcurl.so.4";
constexpr const char* kNotCurl = "libm.so.6";
#endif

std::shared_ptr<const CurlApi> absentLibrary() {
    return CurlApi::load({"libztsd-curl-absent.so.4", "libztsd-curl-absent.so"});
}
}  // namespace

// Every HTTP test uses it; here only that it is the versioned name, loaded once.
TEST(CurlLibrary, TheSystemLibraryIsLoadedOnceAndShared) {
    const auto api = CurlApi::system();
    ASSERT_NE(api, nullptr);
    EXPECT_EQ(api->libraryName, kSystemCurl);
    EXPECT_EQ(CurlApi::system(), api);
}

TEST(CurlLibrary, AnUnloadableLibraryFailsInitialisationNamingWhatWasTried) {
    const Raised r = captureRaise([] { absentLibrary(); });
    EXPECT_EQ(r.code, -411351);
    EXPECT_EQ(r.text("error_constant"), "kInternalSoftwareErrorFailedInitialize");
    EXPECT_EQ(r.detail(kDebug, "librariesTried"), "libztsd-curl-absent.so.4, libztsd-curl-absent.so");
    const std::string reasons = r.detail(kDebug, "loaderErrors");
    EXPECT_NE(reasons.find("libztsd-curl-absent.so.4: "), std::string::npos) << reasons;
    EXPECT_NE(reasons.find("libztsd-curl-absent.so: "), std::string::npos) << reasons;

    const Raised wrong = captureRaise([] { CurlApi::load({kNotCurl}); });
    EXPECT_EQ(wrong.code, -411351);
    EXPECT_EQ(wrong.detail(kDebug, "library"), kNotCurl);
    EXPECT_EQ(wrong.detail(kDebug, "missingEntryPoint"), "curl_global_init");
}

TEST(CurlLibrary, ClientsWithoutLibcurlFailWithInitialiseErrorAndNothingElseBreaks) {
    zt::vela::shared::tCURL client(zt::vela::shared::kVelaMediaType, &absentLibrary);
    std::string result = "untouched";
    EXPECT_EQ(captureRaise([&] { client.initialize("http://127.0.0.1:9", "x"); }).code, -411351);
    client.setAddress("http://127.0.0.1:9", "x");
    EXPECT_EQ(captureRaise([&] { client.request(false, "", result); }).code, -411351);
    EXPECT_EQ(result, "untouched");

    EXPECT_EQ(captureRaise([] { zt::syncdomain::CurlResourceManagerProxy p("127.0.0.1:9", 100, &absentLibrary); }).code,
              -411351);
    zt::syncdomain::CurlResourceManagerProxy fine("127.0.0.1:9");  // a client on the real library is unaffected
}
