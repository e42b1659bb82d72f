// The cJSON layer: owning documents, type checks, strings, printing and array
// iteration.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "json/arrayIterator.h"
#include "json/cjsonUtils.h"
#include "json/cppJson.h"
#include "unit/support/raisedError.h"

using ztsdtest::captureRaise;
using ztsdtest::Raised;

namespace {

void expectJsonSite(const Raised& r, int code, const char* constant, const char* file, int line) {
    ztsdtest::expectSite(r, code, constant, file, line);
    EXPECT_FALSE(r.detail("ztsync_debug", "message").empty()) << r.json;
}

}  // namespace

TEST(CppJson, ParsesValidTextAndRefusesMalformedOrMissingText) {
    ztjsonlh::CppJson doc = ztjsonlh::parse(" {\"a\": [1, 2], \"b\": \"x\"} ");
    ASSERT_TRUE(doc);
    EXPECT_TRUE(cJSON_IsObject(doc.get()));

    for (const char* bad : {"", "{\"a\":}", "[1,]"}) {
        SCOPED_TRACE(bad);
        const Raised r = captureRaise([&] { ztjsonlh::parse(bad); });
        expectJsonSite(r, -52005, "jsonErrorsInvalidJSON", "ztjsonlh\\CppJson", 34);
    }
    const Raised nullText = captureRaise([] { ztjsonlh::parse(static_cast<const char*>(nullptr)); });
    expectJsonSite(nullText, -52005, "jsonErrorsInvalidJSON", "ztjsonlh\\CppJson", 34);
}

// A string with an escaped NUL cannot become a C string whole: the text is
// refused with the escape's offset (each case's second; -1: none, it parses),
// never read cut at the NUL; an escaped backslash before "u0000" is no escape.
TEST(CppJson, AnEscapedNulInAnyStringIsRefusedNeverCut) {
    const std::pair<const char*, long long> cases[] = {
        {"\"a\\u0000b\"", 2},           {"{\"k\\u0000\":1}", 3},       {"[\"x\",\"\\\\\\u0000\"]", 8},
        {"\"\\\\u0000\"", -1},          {"\"\\\\\\\\u0000\"", -1},     {"\"\\u0001 u0000\"", -1},
        {"{\"uri\":\"/a/b\\u0000\"}", 12},
    };
    for (const auto& [text, nulAt] : cases) {
        SCOPED_TRACE(text);
        const char* found = ztjsonlh::findEscapedNul(text);
        EXPECT_EQ(found ? found - text : -1, nulAt);
        if (nulAt < 0) {
            EXPECT_TRUE(ztjsonlh::parse(text));
            continue;
        }
        const Raised r = captureRaise([t = text] { ztjsonlh::parse(t); });
        expectJsonSite(r, -52005, "jsonErrorsInvalidJSON", "ztjsonlh\\CppJson", 34);
        EXPECT_NE(r.detail("ztsync_debug", "message").find("escaped NUL"), std::string::npos) << r.json;
        const cJSON* offset = cJSON_GetObjectItem(r.debug("ztsync_debug"), "offset");
        EXPECT_EQ(offset ? offset->valuedouble : -1, nulAt) << r.json;
    }
}

TEST(CppJson, NestingBeyondTheReaderLimitIsACleanParseErrorEvenAMillionDeep) {
    const std::string within = std::string(900, '[') + std::string(900, ']');
    EXPECT_TRUE(ztjsonlh::parse(within));

    const std::size_t depth = 1000000;
    const std::string deep = std::string(depth, '[') + std::string(depth, ']');
    const Raised r = captureRaise([&] { ztjsonlh::parse(deep); });
    EXPECT_EQ(r.code, -52005);
    EXPECT_EQ(r.text("error_constant"), "jsonErrorsInvalidJSON");
}

// A lost or twice-deleted tree is a sanitizer report.
TEST(CppJson, OwnershipMovesResetsAndReleases) {
    ztjsonlh::CppJson a = ztjsonlh::parse("[1]");
    cJSON* root = a.get();
    ztjsonlh::CppJson b(std::move(a));
    EXPECT_EQ(a.get(), nullptr);
    ztjsonlh::CppJson c = ztjsonlh::parse("{}");
    c = std::move(b);  // the old tree of c is deleted
    EXPECT_EQ(c.get(), root);
    c.reset();
    c.reset();  // a second reset is a no-op
    EXPECT_FALSE(c);

    ztjsonlh::CppJson d = ztjsonlh::parse("[true]");
    cJSON_Delete(d.release());
    EXPECT_EQ(d.get(), nullptr);
}

TEST(CjsonUtils, EachTypeCheckPassesOnlyForItsTypes) {
    ztjsonlh::CppJson doc =
        ztjsonlh::parse("{\"o\":{},\"a\":[],\"s\":\"x\",\"t\":true,\"f\":false,\"n\":1.5,\"z\":null}");
    const cJSON* root = doc.get();
    auto item = [&](const char* k) { return cJSON_GetObjectItem(root, k); };

    struct Check {
        const char* name;
        void (*fn)(const cJSON*);
        std::vector<std::string> passes;
        const char* constant;
        const char* file;
        int line;
    };
    const std::vector<Check> checks = {
        {"object", ztjsonlh::checkIsObject, {"o"}, "jsonErrorsNotAnObject", "ztjsonlh\\cJSONUtils", 78},
        {"array", ztjsonlh::checkIsArray, {"a"}, "jsonErrorsNotAnArray", "ztjsonlh\\cJSONUtils", 83},
        {"string", ztjsonlh::checkIsString, {"s"}, "jsonErrorsTypeMismatch", "ztjsonlh/cJSONUtils", 305},
        {"bool", ztjsonlh::checkIsBool, {"t", "f"}, "jsonErrorsTypeMismatch", "ztjsonlh/cJSONUtils", 305},
        {"number", ztjsonlh::checkIsNumber, {"n"}, "jsonErrorsTypeMismatch", "ztjsonlh/cJSONUtils", 305},
    };
    const std::vector<std::string> all = {"o", "a", "s", "t", "f", "n", "z"};
    for (const Check& c : checks) {
        for (const std::string& k : all) {
            SCOPED_TRACE(std::string(c.name) + " on " + k);
            const bool shouldPass = std::find(c.passes.begin(), c.passes.end(), k) != c.passes.end();
            if (shouldPass) {
                EXPECT_NO_THROW(c.fn(item(k.c_str())));
            } else {
                const Raised r = captureRaise([&] { c.fn(item(k.c_str())); });
                expectJsonSite(r, -52004, c.constant, c.file, c.line);
            }
        }
        SCOPED_TRACE(std::string(c.name) + " on a missing node");
        const Raised none = captureRaise([&] { c.fn(nullptr); });
        EXPECT_EQ(none.code, -52004);
        EXPECT_EQ(none.detail("ztsync_debug", "type"), "none");
    }
}

TEST(CjsonUtils, MemberLookupIgnoresCaseAndReportsWhatIsMissing) {
    ztjsonlh::CppJson doc = ztjsonlh::parse("{\"Version\":1,\"version\":2,\"name\":\"x\"}");
    const cJSON* v = ztjsonlh::getObjectItem(doc.get(), "VERSION");
    ASSERT_TRUE(cJSON_IsNumber(v));
    EXPECT_EQ(v->valueint, 1);  // the first match

    const Raised missing = captureRaise([&] { ztjsonlh::getObjectItem(doc.get(), "absent"); });
    expectJsonSite(missing, -52006, "jsonErrorsObjectItemNotFound", "ztjsonlh\\cJSONUtils", 92);
    EXPECT_EQ(missing.detail("ztsync_debug", "key"), "absent");

    ztjsonlh::CppJson array = ztjsonlh::parse("[{\"version\":1}]");
    const Raised notObject = captureRaise([&] { ztjsonlh::getObjectItem(array.get(), "version"); });
    EXPECT_EQ(notObject.text("error_constant"), "jsonErrorsNotAnObject");
    EXPECT_EQ(notObject.detail("ztsync_debug", "type"), "array");
}

TEST(CjsonUtils, StringsAreDecodedAndPrintingIsCompact) {
    ztjsonlh::CppJson doc = ztjsonlh::parse("{ \"u\":\"\\u00e9\\\"\", \"p\" : [ 1 , 2.5 , 0.1, 1e300, {} ] }");
    EXPECT_EQ(ztjsonlh::getString(cJSON_GetObjectItem(doc.get(), "u")), "\xC3\xA9\"");
    EXPECT_EQ(captureRaise([&] { ztjsonlh::getString(cJSON_GetObjectItem(doc.get(), "p")); }).text("error_constant"),
              "jsonErrorsTypeMismatch");

    EXPECT_EQ(ztjsonlh::printUnformatted(cJSON_GetObjectItem(doc.get(), "p")), "[1,2.5,0.1,1e+300,{}]");
    // Larger than the initial print buffer.
    const std::string big = "[\"" + std::string(5000, 'q') + "\"]";
    ztjsonlh::CppJson bigDoc = ztjsonlh::parse(big);
    EXPECT_EQ(ztjsonlh::printUnformatted(bigDoc.get()), big);

    ztjsonlh::CppJson created(ztjsonlh::createArray());
    ASSERT_TRUE(cJSON_IsArray(created.get()));
    EXPECT_EQ(ztjsonlh::printUnformatted(created.get()), "[]");
}

TEST(ArrayIterator, WalksElementsInOrderAndGuardsItsEnds) {
    ztjsonlh::CppJson doc = ztjsonlh::parse("{\"a\":[1,\"two\",{\"three\":3}],\"e\":[],\"o\":{\"x\":1}}");
    std::vector<std::string> seen;
    for (cJSON* element : ztjsonlh::elementsOf(cJSON_GetObjectItem(doc.get(), "a")))
        seen.push_back(ztjsonlh::printUnformatted(element));
    EXPECT_EQ(seen, (std::vector<std::string>{"1", "\"two\"", "{\"three\":3}"}));

    const cJSON* empty = cJSON_GetObjectItem(doc.get(), "e");
    EXPECT_TRUE(ztjsonlh::ArrayIterator::begin(empty) == ztjsonlh::ArrayIterator::end(empty));

    auto it = ztjsonlh::ArrayIterator::begin(empty);
    expectJsonSite(captureRaise([&] { *it; }), -52006, "jsonErrorsArrayItemOutOfBounds", "ztjsonlh/ArrayIterator", 102);
    ++it;  // advancing at the end stays there
    EXPECT_TRUE(it == ztjsonlh::ArrayIterator::end(empty));

    const cJSON* object = cJSON_GetObjectItem(doc.get(), "o");
    EXPECT_EQ(captureRaise([&] { ztjsonlh::ArrayIterator::begin(object); }).text("error_constant"),
              "jsonErrorsNotAnArray");
}
