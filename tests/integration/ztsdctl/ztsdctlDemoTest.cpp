// ztsdctl demo, the README's first command: it must run from start to
// summary without an error and say what it showed, in both output forms.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <string>

#include "integration/ztsdctl/ztsdctlTestSupport.h"

using ctltest::at;
using ctltest::num;
using ctltest::str;

TEST(ZtsdctlDemo, RunsFromStartToSummaryWithoutAnError) {
    ZTSDCTL_REQUIRED();
    const ctltest::Run human = ctltest::run({"demo"}, 30000);
    EXPECT_EQ(human.exitStatus, 0) << human.out << human.err;
    for (const char* step : {"[1/5]", "[2/5]", "[3/5]", "[4/5]", "[5/5]", "domain coherent after", "detected: ",
                             "accuracy     offset within +/- ", "within its stated accuracy bound", "summary",
                             "all as expected"})
        EXPECT_NE(human.out.find(step), std::string::npos) << step << "\n" << human.out;
    std::string all = human.out + human.err;
    std::transform(all.begin(), all.end(), all.begin(), [](unsigned char c) { return std::tolower(c); });
    EXPECT_EQ(all.find("error"), std::string::npos) << all;
    EXPECT_EQ(all.find("unexpected"), std::string::npos) << all;

    const ctltest::Run json = ctltest::run({"demo", "--json"}, 30000);
    ASSERT_EQ(json.exitStatus, 0) << json.out << json.err;
    const ctltest::Json summary = ctltest::parse(json.out);
    ASSERT_TRUE(summary) << json.out;
    EXPECT_EQ(num(at(summary.get(), "chassis")), 3);
    // The devices come into sync 300 ms apart, so the start waits about 900 ms.
    EXPECT_GE(num(at(summary.get(), "coherentAfter_ms")), 850);
    EXPECT_NE(str(at(summary.get(), "lossInjectedOn")).find("/syncableDevices/chassis1"), std::string::npos);
    EXPECT_EQ(num(at(summary.get(), "lossDetectedAtCheck")), 2);
    EXPECT_TRUE(cJSON_IsTrue(at(summary.get(), "recoveredNextCheck")));
    EXPECT_EQ(num(at(summary.get(), "problems")), 0);
    EXPECT_EQ(str(at(at(at(summary.get(), "correlation"), "correlator"), "type")), "linear");
    EXPECT_TRUE(cJSON_IsTrue(at(summary.get(), "offsetWithinBound")));
    EXPECT_GT(num(at(at(at(summary.get(), "correlation"), "quality"), "offsetBound_ns")), 0);
}
