#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "json/jsonz.h"

namespace jsonz = ztsdlib::jsonz;

namespace {

// Offset meaning "the terminating NUL".
constexpr std::ptrdiff_t kAtEnd = -1;

struct Case {
    std::string text;
    int error;
    std::ptrdiff_t offset;  // where Result::position must point, kAtEnd for the NUL
};

// Makes bytes readable in failure messages.
std::string printable(const std::string& text) {
    std::string out;
    for (const unsigned char c : text) {
        if (c >= 0x20 && c < 0x7F) {
            out += static_cast<char>(c);
        } else {
            static const char hex[] = "0123456789ABCDEF";
            out += "\\x";
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    }
    return out;
}

void expectResult(jsonz::Result (*fn)(const char*), const Case& c) {
    const char* text = c.text.c_str();
    const std::ptrdiff_t expectedOffset =
        c.offset == kAtEnd ? static_cast<std::ptrdiff_t>(std::strlen(text)) : c.offset;
    const jsonz::Result r = fn(text);
    EXPECT_EQ(r.error, c.error) << "text: " << printable(c.text) << "  got " << jsonz::errorName(r.error);
    EXPECT_EQ(r.position - text, expectedOffset) << "text: " << printable(c.text);
}

void expectValidate(const std::vector<Case>& cases) {
    for (const Case& c : cases) expectResult(jsonz::validate, c);
}

std::string repeat(const std::string& piece, std::size_t count) {
    std::string out;
    out.reserve(piece.size() * count);
    for (std::size_t i = 0; i < count; ++i) out += piece;
    return out;
}

}  // namespace

TEST(JsonzErrorName, NamesEveryErrorAndNothingElse) {
    EXPECT_STREQ(jsonz::errorName(1), "jsonz_errorValueExpected");
    EXPECT_STREQ(jsonz::errorName(2), "jsonz_errorDoubleQuoteExpected");
    EXPECT_STREQ(jsonz::errorName(3), "jsonz_errorCurlyBracketExpected");
    EXPECT_STREQ(jsonz::errorName(4), "jsonz_errorSquareBracketExpected");
    EXPECT_STREQ(jsonz::errorName(5), "jsonz_errorColonExpected");
    EXPECT_STREQ(jsonz::errorName(6), "jsonz_errorCommaExpected");
    EXPECT_STREQ(jsonz::errorName(7), "jsonz_errorInvalidStringSequence");
    EXPECT_STREQ(jsonz::errorName(8), "jsonz_errorTrailingComma");
    EXPECT_STREQ(jsonz::errorName(9), "jsonz_errorTrailingChar");
    EXPECT_STREQ(jsonz::errorName(0), "unknown");
    EXPECT_STREQ(jsonz::errorName(10), "unknown");
    EXPECT_STREQ(jsonz::errorName(-1), "unknown");
}

TEST(JsonzValidate, AcceptsWellFormedTexts) {
    expectValidate({
        {"0", jsonz::errorNone, kAtEnd},
        {"-0", jsonz::errorNone, kAtEnd},
        {"-0.0e-0", jsonz::errorNone, kAtEnd},
        {"1E+2", jsonz::errorNone, kAtEnd},
        {"1e-007", jsonz::errorNone, kAtEnd},
        {"10.25", jsonz::errorNone, kAtEnd},
        {"123456789012345678901234567890e999999", jsonz::errorNone, kAtEnd},
        {"true", jsonz::errorNone, kAtEnd},
        {"false", jsonz::errorNone, kAtEnd},
        {"null", jsonz::errorNone, kAtEnd},
        {"\"\"", jsonz::errorNone, kAtEnd},
        {"\"\\\"\\\\\\/\\b\\f\\n\\r\\t\\u00e9\\uABCD\"", jsonz::errorNone, kAtEnd},
        // Lone and reversed surrogate escapes are grammatical; nothing decodes them.
        {"\"\\uD800\\uDFFF\\uDC00\\uD800\"", jsonz::errorNone, kAtEnd},
        {"\"\x7F ~\"", jsonz::errorNone, kAtEnd},
        {"[]", jsonz::errorNone, kAtEnd},
        {"{}", jsonz::errorNone, kAtEnd},
        {"[[],{},[[]],{\"\":{}}]", jsonz::errorNone, kAtEnd},
        {" [ 1 , { \"a\" : [ ] } , \"x\" ] ", jsonz::errorNone, kAtEnd},
        {"{\"a\":1,\"a\":2}", jsonz::errorNone, kAtEnd},
        {"\t\r\n true \t\r\n", jsonz::errorNone, kAtEnd},
        {"[-1,0.5,1e3,true,false,null,\"s\"]", jsonz::errorNone, kAtEnd},
        {"{\"a\":[{\"b\":null}],\"c\":{\"d\":[1,[2,[3]]]}}", jsonz::errorNone, kAtEnd},
    });
}

// One group per error number; each case pins the byte the error points at.
TEST(JsonzValidate, ValueExpectedForMissingOrMalformedValues) {
    expectValidate({
        {"", jsonz::errorValueExpected, 0},
        {"   ", jsonz::errorValueExpected, 3},
        {"+1", jsonz::errorValueExpected, 0},
        {".5", jsonz::errorValueExpected, 0},
        {"'a'", jsonz::errorValueExpected, 0},
        {"NaN", jsonz::errorValueExpected, 0},
        {"Infinity", jsonz::errorValueExpected, 0},
        {"-Infinity", jsonz::errorValueExpected, 1},
        {"-", jsonz::errorValueExpected, 1},
        {"- 1", jsonz::errorValueExpected, 1},
        {"1.", jsonz::errorValueExpected, 2},
        {"1.e3", jsonz::errorValueExpected, 2},
        {"1e", jsonz::errorValueExpected, 2},
        {"1e+", jsonz::errorValueExpected, 3},
        {"1E-x", jsonz::errorValueExpected, 3},
        {"01", jsonz::errorValueExpected, 1},
        {"-01", jsonz::errorValueExpected, 2},
        {"00.5", jsonz::errorValueExpected, 1},
        {"1.2.3", jsonz::errorValueExpected, 3},
        {"1-2", jsonz::errorValueExpected, 1},
        {"1e2e3", jsonz::errorValueExpected, 3},
        {"123abc", jsonz::errorValueExpected, 3},
        {"[0x1]", jsonz::errorValueExpected, 2},
        {"tru", jsonz::errorValueExpected, 3},
        {"trUe", jsonz::errorValueExpected, 2},
        {"truex", jsonz::errorValueExpected, 4},
        {"nul", jsonz::errorValueExpected, 3},
        {"[nulll]", jsonz::errorValueExpected, 5},
        {"falsey", jsonz::errorValueExpected, 5},
        {"[,1]", jsonz::errorValueExpected, 1},
        {"[1,,2]", jsonz::errorValueExpected, 3},
        {"[1,}", jsonz::errorValueExpected, 3},
        {"[}", jsonz::errorValueExpected, 1},
        {"{\"a\":}", jsonz::errorValueExpected, 5},
        {"{\"a\":,1}", jsonz::errorValueExpected, 5},
    });
}

TEST(JsonzValidate, DoubleQuoteExpectedForBadKeysAndUnterminatedStrings) {
    expectValidate({
        {"{1:2}", jsonz::errorDoubleQuoteExpected, 1},
        {"{'a':1}", jsonz::errorDoubleQuoteExpected, 1},
        {"{ a:1}", jsonz::errorDoubleQuoteExpected, 2},
        {"{\"a\":1, b:2}", jsonz::errorDoubleQuoteExpected, 8},
        {"{\"a\":1,]", jsonz::errorDoubleQuoteExpected, 7},
        {"\"abc", jsonz::errorDoubleQuoteExpected, 4},
        {"[\"abc", jsonz::errorDoubleQuoteExpected, 5},
        {"{\"ab", jsonz::errorDoubleQuoteExpected, 4},
        {"{\"a\":\"\\n", jsonz::errorDoubleQuoteExpected, 8},
    });
}

TEST(JsonzValidate, CurlyBracketExpectedWhenAnObjectIsLeftOpen) {
    expectValidate({
        {"{", jsonz::errorCurlyBracketExpected, 1},
        {"{ \t", jsonz::errorCurlyBracketExpected, 3},
        {"{\"a\"", jsonz::errorCurlyBracketExpected, 4},
        {"{\"a\" ", jsonz::errorCurlyBracketExpected, 5},
        {"{\"a\":", jsonz::errorCurlyBracketExpected, 5},
        {"{\"a\":1", jsonz::errorCurlyBracketExpected, 6},
        {"{\"a\":1,", jsonz::errorCurlyBracketExpected, 7},
        {"{\"a\":1]", jsonz::errorCurlyBracketExpected, 6},
        {"[{\"a\":1]", jsonz::errorCurlyBracketExpected, 7},
        {"[{\"a\":[]", jsonz::errorCurlyBracketExpected, 8},
    });
}

TEST(JsonzValidate, SquareBracketExpectedWhenAnArrayIsLeftOpen) {
    expectValidate({
        {"[", jsonz::errorSquareBracketExpected, 1},
        {"[\n", jsonz::errorSquareBracketExpected, 2},
        {"[1", jsonz::errorSquareBracketExpected, 2},
        {"[1,", jsonz::errorSquareBracketExpected, 3},
        {"[1}", jsonz::errorSquareBracketExpected, 2},
        {"[[]", jsonz::errorSquareBracketExpected, 3},
        {"{\"a\":[1}", jsonz::errorSquareBracketExpected, 7},
        {"{\"a\":[{}", jsonz::errorSquareBracketExpected, 8},
    });
}

TEST(JsonzValidate, ColonExpectedAfterAKey) {
    expectValidate({
        {"{\"a\" 1}", jsonz::errorColonExpected, 5},
        {"{\"a\",1}", jsonz::errorColonExpected, 4},
        {"{\"a\"=1}", jsonz::errorColonExpected, 4},
        {"{\"a\"}", jsonz::errorColonExpected, 4},
        {"{\"a\":1,\"b\"::2}", jsonz::errorValueExpected, 11},
        {"{\"a\":1,\"b\" 2}", jsonz::errorColonExpected, 11},
    });
}

TEST(JsonzValidate, CommaExpectedBetweenElements) {
    expectValidate({
        {"[1 2]", jsonz::errorCommaExpected, 3},
        {"[true false]", jsonz::errorCommaExpected, 6},
        {"[\"a\"\"b\"]", jsonz::errorCommaExpected, 4},
        {"[[] {}]", jsonz::errorCommaExpected, 4},
        {"[1:2]", jsonz::errorCommaExpected, 2},
        {"[1;2]", jsonz::errorCommaExpected, 2},
        {"{\"a\":1 \"b\":2}", jsonz::errorCommaExpected, 7},
        {"{\"a\":1:2}", jsonz::errorCommaExpected, 6},
        {"[1] ", jsonz::errorNone, kAtEnd},
    });
}

TEST(JsonzValidate, InvalidStringSequenceForEscapesAndControlBytes) {
    expectValidate({
        {"\"\\x\"", jsonz::errorInvalidStringSequence, 2},
        {"\"\\'\"", jsonz::errorInvalidStringSequence, 2},
        {"\"\\U0041\"", jsonz::errorInvalidStringSequence, 2},
        {"\"\\u12G4\"", jsonz::errorInvalidStringSequence, 5},
        {"\"\\u12\"", jsonz::errorInvalidStringSequence, 5},
        {"\"\\u123x\"", jsonz::errorInvalidStringSequence, 6},
        {"\"\\u\"", jsonz::errorInvalidStringSequence, 3},
        {"\"\\u00", jsonz::errorInvalidStringSequence, 5},
        {"\"\\", jsonz::errorInvalidStringSequence, 2},
        {"[\"a\\", jsonz::errorInvalidStringSequence, 4},
        {"\"a\tb\"", jsonz::errorInvalidStringSequence, 2},
        {"\"a\nb\"", jsonz::errorInvalidStringSequence, 2},
        {"{\"k\x1F\":1}", jsonz::errorInvalidStringSequence, 3},
        // Bytes >= 0x80 are opaque inside strings, well-formed UTF-8 or not,
        // but never stand outside one.
        {"\"\x80\xC3\xFF\xE2\x41\xED\xA0\x80\"", jsonz::errorNone, kAtEnd},
        {"\"\xC2\x80\xF4\x8F\xBF\xBF\"", jsonz::errorNone, kAtEnd},
        {"\"\xC3", jsonz::errorDoubleQuoteExpected, 2},
        {"[\xC3]", jsonz::errorValueExpected, 1},
        {"{\"a\":1\xA0}", jsonz::errorCommaExpected, 6},
    });
}

TEST(JsonzValidate, EveryRawControlByteIsRefusedAndItsEscapeAccepted) {
    static const char hex[] = "0123456789ABCDEF";
    for (int c = 1; c < 0x20; ++c) {
        expectResult(jsonz::validate, {std::string("[\"a") + static_cast<char>(c) + "\"]",
                                       jsonz::errorInvalidStringSequence, 3});
        expectResult(jsonz::validate, {std::string("[\"a\\u00") + hex[c >> 4] + hex[c & 15] + "\"]",
                                       jsonz::errorNone, kAtEnd});
    }
    for (int c = 0x20; c < 0x80; ++c) {
        if (c == '"' || c == '\\') continue;
        expectResult(jsonz::validate, {std::string("\"") + static_cast<char>(c) + "\"", jsonz::errorNone, kAtEnd});
    }
}

TEST(JsonzValidate, TrailingCommaPointsAtTheClosingBracket) {
    expectValidate({
        {"[1,]", jsonz::errorTrailingComma, 3},
        {"[1, \n]", jsonz::errorTrailingComma, 5},
        {"{\"a\":1,}", jsonz::errorTrailingComma, 7},
        {"{\"a\":1 , }", jsonz::errorTrailingComma, 9},
        {"[[1,],2]", jsonz::errorTrailingComma, 4},
        {"{\"a\":{\"b\":[],}}", jsonz::errorTrailingComma, 13},
    });
}

TEST(JsonzValidate, TrailingCharAfterTheValue) {
    expectValidate({
        {"{} x", jsonz::errorTrailingChar, 3},
        {"1 2", jsonz::errorTrailingChar, 2},
        {"[]]", jsonz::errorTrailingChar, 2},
        {"{}}", jsonz::errorTrailingChar, 2},
        {"[],", jsonz::errorTrailingChar, 2},
        {"\"a\"\"b\"", jsonz::errorTrailingChar, 3},
        {"null,", jsonz::errorTrailingChar, 4},
        {"true /* c */", jsonz::errorTrailingChar, 5},
        {"[1]\n\n#", jsonz::errorTrailingChar, 5},
    });
}

TEST(JsonzWhitespace, OnlySpaceTabLineFeedAndCarriageReturnSeparateTokens) {
    // Form feed, vertical tab, NBSP (as Latin-1 and as UTF-8), byte order mark,
    // and the other ASCII controls are not whitespace.
    std::vector<std::string> refused = {"\f", "\v", "\xA0", "\xC2\xA0", "\xEF\xBB\xBF", "\x1C", "\x85"};
    for (const std::string& w : refused) {
        expectValidate({
            {w + "1", jsonz::errorValueExpected, 0},
            {" " + w + "[]", jsonz::errorValueExpected, 1},
            {"[" + w + "1]", jsonz::errorValueExpected, 1},
            {"[1" + w + "]", jsonz::errorCommaExpected, 2},
            {"{" + w + "\"a\":1}", jsonz::errorDoubleQuoteExpected, 1},
            {"{\"a\"" + w + ":1}", jsonz::errorColonExpected, 4},
            {"{\"a\":" + w + "1}", jsonz::errorValueExpected, 5},
            {"1" + w, jsonz::errorTrailingChar, 1},
            {"[1]" + w + " ", jsonz::errorTrailingChar, 3},
        });
    }
    for (const std::string w : {" ", "\t", "\n", "\r", " \t\n\r\r\n"}) {
        expectResult(jsonz::validate, {w + "[" + w + "1" + w + "," + w + "{" + w + "\"a\"" + w + ":" + w + "2" + w +
                                           "}" + w + "]" + w,
                                       jsonz::errorNone, kAtEnd});
    }
}

TEST(JsonzParseValue, ReadsExactlyOneValueAndNoSurroundingWhitespace) {
    const std::vector<Case> cases = {
        {" 1", jsonz::errorValueExpected, 0},
        {"\n{}", jsonz::errorValueExpected, 0},
        {"1 ", jsonz::errorNone, 1},
        {"[1] x", jsonz::errorNone, 3},
        {"[ 1 ]  ", jsonz::errorNone, 5},
        {"\"a\"b", jsonz::errorNone, 3},
        {"{}}", jsonz::errorNone, 2},
        {"12,", jsonz::errorNone, 2},
        {"true]", jsonz::errorNone, 4},
        {"-3.5e2 ", jsonz::errorNone, 6},
        {"123abc", jsonz::errorValueExpected, 3},
        {"", jsonz::errorValueExpected, 0},
    };
    for (const Case& c : cases) expectResult(jsonz::parseValue, c);
}

// Every proper prefix of a valid document is unfinished, so it must fail
// exactly at its terminating NUL. Each prefix sits in a heap block of exactly
// its size, so a read past the NUL is caught by AddressSanitizer.
TEST(JsonzBounds, EveryPrefixFailsAtItsNulWithoutReadingPastIt) {
    const std::vector<std::string> documents = {
        "[1,-2.5e+3,\"a\\u00e9\\n\xC3\xA9\xF0\x9F\x98\x80\",{\"k\":[true,false,null]},{},0]",
        "{\"a\":{\"b\":[[],[{}]]},\"c\":\"\\\"\\\\\",\"d\":-0.0E-1}",
        "\"\\uD834\\uDD1E \xE2\x82\xAC\"",
        "false",
    };
    for (const std::string& doc : documents) {
        ASSERT_EQ(jsonz::validate(doc.c_str()).error, jsonz::errorNone) << printable(doc);
        for (std::size_t len = 0; len < doc.size(); ++len) {
            std::unique_ptr<char[]> buffer(new char[len + 1]);
            std::memcpy(buffer.get(), doc.data(), len);
            buffer[len] = '\0';
            const jsonz::Result v = jsonz::validate(buffer.get());
            EXPECT_NE(v.error, jsonz::errorNone) << printable(doc.substr(0, len));
            EXPECT_EQ(v.position, buffer.get() + len) << printable(doc.substr(0, len));
            const jsonz::Result p = jsonz::parseValue(buffer.get());
            EXPECT_EQ(p.error, v.error) << printable(doc.substr(0, len));
            EXPECT_EQ(p.position, v.position) << printable(doc.substr(0, len));
        }
    }
}

TEST(JsonzNesting, AMillionOpenArraysOrObjectsAreReportedWithoutRecursion) {
    const std::size_t depth = 1000000;
    std::string text(depth, '[');
    expectResult(jsonz::validate, {text, jsonz::errorSquareBracketExpected, static_cast<std::ptrdiff_t>(depth)});
    expectResult(jsonz::validate, {text + "x", jsonz::errorValueExpected, static_cast<std::ptrdiff_t>(depth)});
    text += std::string(depth, ']');
    expectResult(jsonz::validate, {text, jsonz::errorNone, kAtEnd});
    // One closer short: the outermost array is left open.
    text.pop_back();
    expectResult(jsonz::validate, {text, jsonz::errorSquareBracketExpected, kAtEnd});

    std::string objects = repeat("{\"a\":", depth);
    expectResult(jsonz::validate, {objects, jsonz::errorCurlyBracketExpected, kAtEnd});
    objects += "0" + std::string(depth, '}');
    expectResult(jsonz::validate, {objects, jsonz::errorNone, kAtEnd});
}

// Mixed kinds deep enough to leave the inline part of the stack: every closer
// must match the kind opened at its level, before and after the bits move to
// the heap, and after the stack shrinks and grows again.
TEST(JsonzNesting, RemembersTheKindOfEveryLevel) {
    const std::size_t depth = 20000;
    std::vector<bool> isObject(depth);
    std::uint32_t seed = 12345;
    for (std::size_t i = 0; i < depth; ++i) {
        seed = seed * 1103515245u + 12345u;
        isObject[i] = (seed >> 16) & 1u;
    }
    // Builds a branch and records where each level's closer lands, relative
    // to the start of the branch.
    std::vector<std::size_t> closerOffset(depth);
    std::string branch;
    for (std::size_t i = 0; i < depth; ++i) branch += isObject[i] ? "{\"k\":" : "[";
    branch += "0";
    for (std::size_t i = depth; i-- > 0;) {
        if (!isObject[i] && i % 7 == 0) branch += ",1";
        if (isObject[i] && i % 5 == 0) branch += ",\"m\":[]";
        closerOffset[i] = branch.size();
        branch += isObject[i] ? '}' : ']';
    }
    const std::string text = "[" + branch + "," + branch + "]";
    expectResult(jsonz::validate, {text, jsonz::errorNone, kAtEnd});

    // A wrong closer at a shallow and at a deep level, in the first branch and
    // in the second (after the stack shrank and grew again).
    for (const std::size_t level : {std::size_t{3}, std::size_t{5000}, std::size_t{19990}}) {
        for (const std::size_t branchStart : {std::size_t{1}, 2 + branch.size()}) {
            std::string broken = text;
            const std::size_t at = branchStart + closerOffset[level];
            broken[at] = isObject[level] ? ']' : '}';
            expectResult(jsonz::validate,
                         {broken,
                          isObject[level] ? jsonz::errorCurlyBracketExpected : jsonz::errorSquareBracketExpected,
                          static_cast<std::ptrdiff_t>(at)});
        }
    }
}

TEST(JsonzLarge, ValidatesATenMebibyteArrayToTheEnd) {
    const std::string element =
        "{\"id\":123456,\"name\":\"sensor \\u00e9 caf\xC3\xA9 \\\"x\\\"\",\"values\":[1.5,-2e10,0,true,false,null],"
        "\"nested\":{\"a\":[],\"b\":{}}},\n";
    std::string text = "[";
    while (text.size() < 10u * 1024u * 1024u) text += element;
    text.resize(text.size() - 2);  // drop the last ",\n"
    text += "]";
    ASSERT_GE(text.size(), 10u * 1024u * 1024u);
    expectResult(jsonz::validate, {text, jsonz::errorNone, kAtEnd});

    // A fault in the very last element is still found where it is.
    std::string broken = text;
    broken.insert(broken.size() - 1, ",");
    expectResult(jsonz::validate,
                 {broken, jsonz::errorTrailingComma, static_cast<std::ptrdiff_t>(broken.size() - 1)});
}

// The public conformance corpus. y_ files must be accepted, n_ files refused,
// i_ files may go either way but must be handled safely.
TEST(JsonzCorpus, AcceptsEveryYAndRefusesEveryNFile) {
    namespace fs = std::filesystem;
    const fs::path dir = fs::path(ZTSD_TEST_DATA_DIR) / "json-test-suite" / "test_parsing";
    ASSERT_TRUE(fs::is_directory(dir)) << dir;

    // Files holding a NUL byte. The validator reads NUL-terminated text, so only
    // the bytes before the first NUL count, and the expectation is judged on
    // those bytes; each such file is listed with the verdict for that text.
    const std::map<std::string, bool> truncatedVerdicts = {
        // "123": a complete number, valid text on its own.
        {"n_multidigit_number_then_00.json", true},
        // ["\ : the escape and the array are cut off.
        {"n_string_backslash_00.json", false},
        // ["a : the string and the array are cut off.
        {"n_string_unescaped_ctrl_char.json", false},
        // [ : an array left open.
        {"n_structure_null-byte-outside-string.json", false},
    };

    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(dir)) {
        if (entry.is_regular_file() && entry.path().extension() == ".json") files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    ASSERT_GE(files.size(), 300u) << "the corpus in " << dir << " is missing or incomplete";

    std::size_t yCount = 0, nCount = 0, iCount = 0, iAccepted = 0, listedSeen = 0;
    std::vector<std::string> mismatches;
    for (const fs::path& path : files) {
        const std::string name = path.filename().string();
        std::ifstream in(path, std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        const bool hasNul = bytes.find('\0') != std::string::npos;
        const char* text = bytes.c_str();
        const jsonz::Result r = jsonz::validate(text);
        const bool accepted = r.error == jsonz::errorNone;

        // Whatever the verdict, the position lies within the text it was given.
        const std::size_t length = std::strlen(text);
        if (r.position < text || r.position > text + length) {
            mismatches.push_back(name + " (position outside the text)");
            continue;
        }
        if (accepted && r.position != text + length) {
            mismatches.push_back(name + " (accepted but did not end at the NUL)");
            continue;
        }

        const auto listed = truncatedVerdicts.find(name);
        if (listed != truncatedVerdicts.end()) ++listedSeen;
        bool expected;
        if (name.rfind("i_", 0) == 0) {
            ++iCount;
            iAccepted += accepted ? 1 : 0;
            continue;
        } else if (name.rfind("y_", 0) == 0) {
            ++yCount;
            expected = true;
        } else if (name.rfind("n_", 0) == 0) {
            ++nCount;
            expected = false;
        } else {
            mismatches.push_back(name + " (unknown prefix)");
            continue;
        }
        if (hasNul) {
            if (listed == truncatedVerdicts.end()) {
                mismatches.push_back(name + " (holds a NUL but has no judged verdict)");
                continue;
            }
            expected = listed->second;
        }
        if (accepted != expected) {
            mismatches.push_back(name + (accepted ? " (accepted)" : std::string(" (refused: ") +
                                                                       jsonz::errorName(r.error) + " at byte " +
                                                                       std::to_string(r.position - text) + ")"));
        }
    }

    std::string report;
    for (const std::string& m : mismatches) report += "\n  " + m;
    EXPECT_TRUE(mismatches.empty()) << mismatches.size() << " mismatching file(s):" << report;
    EXPECT_EQ(listedSeen, truncatedVerdicts.size()) << "a file listed for its NUL byte is gone from the corpus";
    EXPECT_GT(yCount, 0u);
    EXPECT_GT(nCount, 0u);
    std::printf("corpus: %zu y_, %zu n_, %zu i_ (%zu i_ accepted)\n", yCount, nCount, iCount, iAccepted);
}
