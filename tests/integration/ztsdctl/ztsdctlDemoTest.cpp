// ztsdctl demo, the README's first command: it must run from start to
// summary without an error and say what it showed.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <string>

#include "integration/ztsdctl/ztsdctlTestSupport.h"

using ctltest::at;
using ctltest::num;
using ctltest::str;

namespace {

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

}  // namespace

TEST(ZtsdctlDemo, RunsFromStartToSummaryWithoutAnError) {
    ZTSDCTL_REQUIRED();
    const ctltest::Run result = ctltest::run({"demo"}, 30000);
    EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
    for (const char* step : {"[1/5]", "[2/5]", "[3/5]", "[4/5]", "[5/5]", "domain coherent after",
                             "detected: ", "summary", "all as expected"})
        EXPECT_NE(result.out.find(step), std::string::npos) << step << "\n" << result.out;
    EXPECT_EQ(lower(result.out + result.err).find("error"), std::string::npos) << result.out << result.err;
    EXPECT_EQ(result.err.find("unexpected"), std::string::npos) << result.err;
}

TEST(ZtsdctlDemo, JsonSummaryRecordsWhatTheDemoShowed) {
    ZTSDCTL_REQUIRED();
    const ctltest::Run result = ctltest::run({"demo", "--json"}, 30000);
    ASSERT_EQ(result.exitStatus, 0) << result.out << result.err;
    const ctltest::Json summary = ctltest::parse(result.out);
    ASSERT_TRUE(summary) << result.out;
    EXPECT_EQ(num(at(summary.get(), "chassis")), 3);
    // The devices come into sync 300 ms apart, so the start waits about 900 ms.
    EXPECT_GE(num(at(summary.get(), "coherentAfter_ms")), 850);
    EXPECT_NE(str(at(summary.get(), "lossInjectedOn")).find("/syncableDevices/chassis1"), std::string::npos);
    EXPECT_EQ(num(at(summary.get(), "lossDetectedAtCheck")), 2);
    EXPECT_TRUE(cJSON_IsTrue(at(summary.get(), "recoveredNextCheck")));
    EXPECT_EQ(num(at(summary.get(), "problems")), 0);
    EXPECT_EQ(str(at(at(at(summary.get(), "correlation"), "correlator"), "type")), "linear");
    EXPECT_LT(num(at(summary.get(), "elapsed_ms")), 30000);
}
