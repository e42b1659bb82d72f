// Whole-text checks: strict validation, the missing-key error and the remote
// API version check.
#include <gtest/gtest.h>

#include <boost/numeric/conversion/converter_policies.hpp>

#include <string>
#include <vector>

#include "json/jsonChecks.h"
#include "unit/support/raisedError.h"

using ztsdtest::captureRaise;
using ztsdtest::expectReport;
using ztsdtest::expectSite;
using ztsdtest::Raised;

TEST(ValidateJsonString, AcceptsOneValueAndReportsTheValidatorErrorWithTheRestOfTheText) {
    for (const char* ok : {" \r\n{}\t \n", "\"x\""}) EXPECT_NO_THROW(ztsdtools::validateJsonString(ok, "m", "s")) << ok;

    struct Case {
        std::string text;
        const char* error;
        std::string position;
    };
    // Which error the validator finds where is its own tests' business; these
    // rows check that its name and position come through, at the start, in
    // the middle and at the end of the text, and past a NUL.
    const std::vector<Case> cases = {
        {"{} x", "jsonz_errorTrailingChar", "x"},
        {"\f{}", "jsonz_errorValueExpected", "\f{}"},
        {"{\"a\" 1}", "jsonz_errorColonExpected", "1}"},
        {"[1", "jsonz_errorSquareBracketExpected", ""},
        {std::string("{}\0{}", 5), "jsonz_errorTrailingChar", std::string("\0{}", 3)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        const Raised r = captureRaise([&] { ztsdtools::validateJsonString(c.text, "the message", "the source"); });
        expectSite(r, -52005, "ztapalerr_invalidParameter", "ztsdtools_json\\jsonHelperFunctions", 38);
        expectReport(r, -52005, R"({"message":"the message","jsonzError":")" + std::string(c.error) +
                                    R"(","position":)" + ztsdtest::jsonString(c.position) + R"(,"jsonString":)" +
                                    ztsdtest::jsonString(c.text) + R"(,"source":"the source"})");
        // cJSON stops strings at a NUL, so past one the report's own text is read.
        if (c.position.find('\0') != std::string::npos)
            EXPECT_NE(r.json.find("\"position\":\"\\u0000{}\""), std::string::npos) << r.json;
    }
}

// The text form hands its text to the parsed form (ParsedJson), so one form
// is tested; a missing "version" is raised by throwMissingJsonKey.
TEST(CheckRemoteApiVersion, AcceptsZeroOneAndNullAndRefusesTheRest) {
    for (const char* ok : {"{\"version\":1}", "{\"version\":0}", "{\"version\":null}", "{\"Version\":1.7}"})
        EXPECT_NO_THROW(ztsdtools::checkRemoteApiVersion("/u", ok, "missing", "mismatch")) << ok;

    const Raised two = captureRaise([] { ztsdtools::checkRemoteApiVersion("/u", "{\"version\":2}", "missing", "mismatch"); });
    expectSite(two, -52002, "ztapalerr_featureUnsupported", "ztsdtools_json\\jsonHelperFunctions", 58);
    expectReport(two, -52002, R"({"message":"mismatch","remoteVersion":2,"maxSupportedVersion":1,"uri":"/u"})");

    const Raised absent = captureRaise([] { ztsdtools::checkRemoteApiVersion("/h/x", "{}", "No version.", "m"); });
    expectSite(absent, -52005, "ztapalerr_invalidParameter", "ztsdtools_json/jsonHelperFunctions", 27);
    expectReport(absent, -52005, R"({"message":"No version.","JsonKey":"version","uri":"/h/x"})");

    EXPECT_THROW(ztsdtools::checkRemoteApiVersion("/u", "{\"version\":-1}", "m", "m"), boost::numeric::negative_overflow);
    EXPECT_EQ(captureRaise([] { ztsdtools::checkRemoteApiVersion("/u", "{\"version\":\"1\"}", "m", "m"); })
                  .text("error_constant"),
              "errCode");
    EXPECT_EQ(captureRaise([] { ztsdtools::checkRemoteApiVersion("/u", "{\"version\":", "m", "m"); }).code, -52005);
}
