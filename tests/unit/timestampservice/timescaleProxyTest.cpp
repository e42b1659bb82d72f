// TimescaleProxy over a session stand-in: what it reports about itself, and
// that readings from many threads reach the session one at a time.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "timestampservice/timescaleProxy.h"
#include "unit/support/raisedError.h"

namespace {

using ztsdlib::TimescaleProxy;

// Counts readings and how many run inside it at once.
class CountingSession : public ztsdlib::TimescaleProxySessionInterface {
public:
    std::string uri = "/h/ztsdwebs/resources/ztsd/timescales/GM";
    std::string localUri = "/localhost/ztsds/timescales/GM";
    std::int32_t version = 2;
    std::atomic<int> inside{0};
    std::atomic<int> mostInside{0};
    std::atomic<int> readings{0};
    bool fail = false;

    void getTime(ztsdlib_Timestamp& timestamp) override {
        const int now = ++inside;
        int seen = mostInside.load();
        while (now > seen && !mostInside.compare_exchange_weak(seen, now)) {
        }
        // Long enough that unserialised callers would meet in here.
        std::this_thread::sleep_for(std::chrono::microseconds(50));
        const int n = ++readings;
        --inside;
        if (fail) {
            zterr::raise(ZTERR_SITE("test", "ztapalerr_resourceRemoved"), -52020, "ztsyncdomain_debug",
                         {{"message", "gone"}});
        }
        timestamp = ztsdlib_Timestamp{static_cast<std::uint64_t>(n), 0, 0, false};
    }
    std::int32_t getServerApiVersion() const override { return version; }
    const std::string& getThisTimescaleUri() const override { return uri; }
    const std::string& getExpectedLocalUri() const override { return localUri; }
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
    session->fail = true;
    EXPECT_EQ(ztsdtest::captureRaise([&] { proxy.getTime(t, &status); }).code, -52020);
    EXPECT_EQ(status.s.code, 0);
    EXPECT_EQ(status.s.json, nullptr);
}

TEST(TimescaleProxyConcurrencyTest, ReadingsFromManyThreadsReachTheSessionOneAtATime) {
    auto owned = std::make_unique<CountingSession>();
    CountingSession* session = owned.get();
    TimescaleProxy proxy("/u", "h", 1, std::move(owned));
    constexpr int kThreads = 8;
    constexpr int kReadings = 40;
    std::atomic<bool> go{false};
    std::atomic<int> bad{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            while (!go) std::this_thread::yield();
            std::uint64_t last = 0;
            for (int k = 0; k < kReadings; ++k) {
                ztsdlib_Timestamp t{};
                proxy.getTime(t, nullptr);
                if (t.seconds <= last) ++bad;  // each thread sees readings in order
                last = t.seconds;
                (void)proxy.toJson();  // lock-free readers meanwhile
            }
        });
    }
    go = true;
    for (auto& t : threads) t.join();
    EXPECT_EQ(session->readings.load(), kThreads * kReadings);
    EXPECT_EQ(session->mostInside.load(), 1);
    EXPECT_EQ(bad.load(), 0);
}

}  // namespace
