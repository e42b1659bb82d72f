// TimescaleProxy over a session stand-in: what it reports about itself, and
// that failures pass through. Readers side by side are tested against the
// daemon (integration/timestampservice/timescaleProxyConcurrencyTest.cpp).
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>

#include "timestampservice/timescaleProxy.h"
#include "unit/support/raisedError.h"

namespace {

using ztsdlib::TimescaleProxy;

// Counts readings (its siblings' too) and fails them on demand.
class CountingSession : public ztsdlib::TimescaleProxySessionInterface {
public:
    std::string uri = "/h/ztsdwebs/resources/ztsd/timescales/GM";
    std::string localUri = "/localhost/ztsds/timescales/GM";
    std::shared_ptr<std::atomic<int>> readings = std::make_shared<std::atomic<int>>(0);
    std::shared_ptr<std::atomic<bool>> fail = std::make_shared<std::atomic<bool>>(false);

    void getTime(ztsdlib_Timestamp& timestamp) override {
        const int n = ++*readings;
        if (*fail) {
            zterr::raise(ZTERR_SITE("test", "ztapalerr_resourceRemoved"), -52020, "ztsyncdomain_debug",
                         {{"message", "gone"}});
        }
        timestamp = ztsdlib_Timestamp{static_cast<std::uint64_t>(n), 0, 0, false};
    }
    std::int32_t getServerApiVersion() const override { return 2; }
    const std::string& getThisTimescaleUri() const override { return uri; }
    const std::string& getExpectedLocalUri() const override { return localUri; }
    std::unique_ptr<ztsdlib::TimescaleProxySessionInterface> makeSibling(
        std::shared_ptr<ztsdlib::ReadInterruption>) const override {
        auto sibling = std::make_unique<CountingSession>();
        sibling->readings = readings;
        sibling->fail = fail;
        return sibling;
    }
};

// The document's layout is pinned against the real daemon
// (TimescaleProxyExportTest.CreateReadDescribeDelete); here quotes, backslashes and control bytes,
// which no reachable daemon's names carry, cannot break it.
TEST(TimescaleProxyUnit, DescribesItselfAsValidJson) {
    const std::string oddUri = "/a\"b\\c/\x01\t\x7f/\xc3\xa9";
    TimescaleProxy odd(oddUri, "host\"\n", 4294967295u, std::make_unique<CountingSession>());
    const std::string json = odd.toJson();
    ASSERT_TRUE(ztsdtest::strictlyValid(json.c_str())) << json;
    const auto doc = ztsdtest::parseJson(json);
    ASSERT_NE(doc, nullptr);
    EXPECT_EQ(std::string(cJSON_GetObjectItemCaseSensitive(doc.get(), "uri")->valuestring), oddUri);
    EXPECT_EQ(std::string(cJSON_GetObjectItemCaseSensitive(doc.get(), "host")->valuestring), "host\"\n");
    EXPECT_EQ(cJSON_GetObjectItemCaseSensitive(doc.get(), "port")->valuedouble, 4294967295.0);
    EXPECT_EQ(odd.getUri(), oddUri);
}

TEST(TimescaleProxyUnit, ReadingFailuresPassThroughWithoutTouchingTheStatus) {
    auto owned = std::make_unique<CountingSession>();
    CountingSession* session = owned.get();
    TimescaleProxy proxy("/u", "h", 1, std::move(owned));
    ztsdtest::OwnedStatus status;
    ztsdlib_Timestamp t{};
    proxy.getTime(t, &status);
    EXPECT_EQ(t.seconds, 1u);
    *session->fail = true;
    EXPECT_EQ(ztsdtest::captureRaise([&] { proxy.getTime(t, &status); }).code, -52020);
    EXPECT_EQ(status.s.code, 0);
    EXPECT_EQ(status.s.json, nullptr);
}

}  // namespace
