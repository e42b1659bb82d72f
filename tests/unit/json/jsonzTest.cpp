#include <gtest/gtest.h>

#include <cstddef>
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

}  // namespace

// Known answers: a few rows per error number, each pinning the byte the error
// points at. The conformance corpus below judges accept/refuse only; these
// rows pin which error and where, as callers see them in reports.
TEST(JsonzValidate, ReportsTheErrorAndTheByteWhereTheTextGoesWrong) {
    expectValidate({
        // Accepted: every escape, lone surrogate escapes (nothing decodes
        // them), numbers of any size, opaque bytes >= 0x80 inside strings,
        // duplicate keys, whitespace between all tokens.
        {"-0.0e-0", jsonz::errorNone, kAtEnd},
        {"123456789012345678901234567890e999999", jsonz::errorNone, kAtEnd},
        {"\"\\\"\\\\\\/\\b\\f\\n\\r\\t\\u00e9\\uABCD\"", jsonz::errorNone, kAtEnd},
        {"\"\\uD800\\uDFFF\\uDC00\\uD800\"", jsonz::errorNone, kAtEnd},
        {"\"\x80\xC3\xFF\xE2\x41\xED\xA0\x80\x7F\"", jsonz::errorNone, kAtEnd},
        {"{\"a\":1,\"a\":2}", jsonz::errorNone, kAtEnd},

        {"", jsonz::errorValueExpected, 0},
        {"   ", jsonz::errorValueExpected, 3},
        {"+1", jsonz::errorValueExpected, 0},
        {"-", jsonz::errorValueExpected, 1},
        {"1.", jsonz::errorValueExpected, 2},
        {"1e+", jsonz::errorValueExpected, 3},
        {"01", jsonz::errorValueExpected, 1},
        {"123abc", jsonz::errorValueExpected, 3},
        {"tru", jsonz::errorValueExpected, 3},
        {"falsey", jsonz::errorValueExpected, 5},
        {"[}", jsonz::errorValueExpected, 1},
        {"[1,,2]", jsonz::errorValueExpected, 3},
        {"{\"a\":}", jsonz::errorValueExpected, 5},
        {"{\"a\":1,\"b\"::2}", jsonz::errorValueExpected, 11},
        {"[\xC3]", jsonz::errorValueExpected, 1},

        {"{1:2}", jsonz::errorDoubleQuoteExpected, 1},
        {"{\"a\":1, b:2}", jsonz::errorDoubleQuoteExpected, 8},
        {"{\"a\":1,]", jsonz::errorDoubleQuoteExpected, 7},
        {"\"abc", jsonz::errorDoubleQuoteExpected, 4},
        {"\"\xC3", jsonz::errorDoubleQuoteExpected, 2},

        {"{", jsonz::errorCurlyBracketExpected, 1},
        {"{\"a\":", jsonz::errorCurlyBracketExpected, 5},
        {"{\"a\":1,", jsonz::errorCurlyBracketExpected, 7},
        {"{\"a\":1]", jsonz::errorCurlyBracketExpected, 6},
        {"[{\"a\":[]", jsonz::errorCurlyBracketExpected, 8},

        {"[", jsonz::errorSquareBracketExpected, 1},
        {"[1,", jsonz::errorSquareBracketExpected, 3},
        {"[1}", jsonz::errorSquareBracketExpected, 2},
        {"{\"a\":[{}", jsonz::errorSquareBracketExpected, 8},

        {"{\"a\" 1}", jsonz::errorColonExpected, 5},
        {"{\"a\"}", jsonz::errorColonExpected, 4},

        {"[1 2]", jsonz::errorCommaExpected, 3},
        {"[1:2]", jsonz::errorCommaExpected, 2},
        {"{\"a\":1 \"b\":2}", jsonz::errorCommaExpected, 7},
        {"{\"a\":1\xA0}", jsonz::errorCommaExpected, 6},

        {"\"\\x\"", jsonz::errorInvalidStringSequence, 2},
        {"\"\\u12G4\"", jsonz::errorInvalidStringSequence, 5},
        {"\"\\", jsonz::errorInvalidStringSequence, 2},
        {"{\"k\x1F\":1}", jsonz::errorInvalidStringSequence, 3},

        {"[1,]", jsonz::errorTrailingComma, 3},
        {"{\"a\":1 , }", jsonz::errorTrailingComma, 9},
        {"[[1,],2]", jsonz::errorTrailingComma, 4},

        {"{} x", jsonz::errorTrailingChar, 3},
        {"[]]", jsonz::errorTrailingChar, 2},
        {"null,", jsonz::errorTrailingChar, 4},
        {"[1]\n\n#", jsonz::errorTrailingChar, 5},
    });
}

// Raw control bytes are refused in strings and their \u escapes accepted;
// every other ASCII byte but '"' and '\\' stands for itself.
TEST(JsonzValidate, EveryRawControlByteIsRefusedAndItsEscapeAccepted) {
    static const char hex[] = "0123456789ABCDEF";
    for (int c = 1; c < 0x80; ++c) {
        if (c == '"' || c == '\\') continue;
        const std::string raw = std::string("[\"a") + static_cast<char>(c) + "\"]";
        if (c >= 0x20) {
            expectResult(jsonz::validate, {raw, jsonz::errorNone, kAtEnd});
            continue;
        }
        expectResult(jsonz::validate, {raw, jsonz::errorInvalidStringSequence, 3});
        expectResult(jsonz::validate, {std::string("[\"a\\u00") + hex[c >> 4] + hex[c & 15] + "\"]",
                                       jsonz::errorNone, kAtEnd});
    }
}

TEST(JsonzWhitespace, OnlySpaceTabLineFeedAndCarriageReturnSeparateTokens) {
    // Form feed, vertical tab, NBSP (as Latin-1 and as UTF-8), byte order mark,
    // and the other ASCII controls are not whitespace.
    for (const std::string w : {"\f", "\v", "\xA0", "\xC2\xA0", "\xEF\xBB\xBF", "\x1C", "\x85"}) {
        expectValidate({
            {w + "1", jsonz::errorValueExpected, 0},
            {"[1" + w + "]", jsonz::errorCommaExpected, 2},
            {"{\"a\"" + w + ":1}", jsonz::errorColonExpected, 4},
            {"1" + w, jsonz::errorTrailingChar, 1},
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
        {"1 ", jsonz::errorNone, 1},
        {"[ 1 ]  ", jsonz::errorNone, 5},
        {"\"a\"b", jsonz::errorNone, 3},
        {"123abc", jsonz::errorValueExpected, 3},
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
        }
    }
}

// A million levels of mixed kinds, far past the inline part of the stack
// (4096 levels): nothing recurses, and every closer must match the kind opened
// at its level, also after the stack shrank and grew again.
TEST(JsonzNesting, AMillionMixedLevelsAreRememberedWithoutRecursion) {
    const std::size_t depth = 1000000;
    auto isObject = [](std::size_t i) { return ((i * 2654435761u) >> 13) & 1u; };
    auto closerError = [&](std::size_t level) {
        return isObject(level) ? jsonz::errorCurlyBracketExpected : jsonz::errorSquareBracketExpected;
    };
    std::string branch;
    for (std::size_t i = 0; i < depth; ++i) branch += isObject(i) ? "{\"k\":" : "[";
    // Cut at its deepest point, the innermost container decides the error.
    expectResult(jsonz::validate, {"[" + branch, closerError(depth - 1), kAtEnd});
    expectResult(jsonz::validate,
                 {"[" + branch + "x", jsonz::errorValueExpected, static_cast<std::ptrdiff_t>(1 + branch.size())});
    branch += "0";
    std::vector<std::size_t> closerOffset(depth);  // relative to the start of a branch
    for (std::size_t i = depth; i-- > 0;) {
        if (i % 5 == 0) branch += isObject(i) ? ",\"m\":[]" : ",1";
        closerOffset[i] = branch.size();
        branch += isObject(i) ? '}' : ']';
    }
    const std::string text = "[" + branch + "," + branch + "]";
    expectResult(jsonz::validate, {text, jsonz::errorNone, kAtEnd});
    expectResult(jsonz::validate, {text.substr(0, text.size() - 1), jsonz::errorSquareBracketExpected, kAtEnd});

    // A wrong closer at a shallow, a middle and a deep level, in either branch.
    for (const std::size_t level : {std::size_t{3}, std::size_t{5000}, depth - 10}) {
        for (const std::size_t branchStart : {std::size_t{1}, 2 + branch.size()}) {
            std::string broken = text;
            const std::size_t at = branchStart + closerOffset[level];
            broken[at] = isObject(level) ? ']' : '}';
            expectResult(jsonz::validate, {broken, closerError(level), static_cast<std::ptrdiff_t>(at)});
        }
    }
}

// The public conformance corpus: every y_ file accepted, every n_ file
// refused; i_ files may go either way (they are still read, so a fault on
// them shows under the sanitizers). Where the verdict lands (position, error
// number) on arbitrary bytes is the fuzz target's business, seeded from this
// corpus.
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

    std::size_t judged = 0, listedSeen = 0;
    std::string mismatches;
    for (const auto& entry : fs::directory_iterator(dir)) {
        const std::string name = entry.path().filename().string();
        if (!entry.is_regular_file() || entry.path().extension() != ".json") continue;
        std::ifstream in(entry.path(), std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        const jsonz::Result r = jsonz::validate(bytes.c_str());
        const bool accepted = r.error == jsonz::errorNone;
        if (name.rfind("i_", 0) == 0) continue;
        if (name.rfind("y_", 0) != 0 && name.rfind("n_", 0) != 0) {
            mismatches += "\n  " + name + " (unknown prefix)";
            continue;
        }
        ++judged;
        bool expected = name[0] == 'y';
        const auto listed = truncatedVerdicts.find(name);
        if (listed != truncatedVerdicts.end()) {
            ++listedSeen;
            expected = listed->second;
        } else if (bytes.find('\0') != std::string::npos) {
            mismatches += "\n  " + name + " (holds a NUL but has no judged verdict)";
            continue;
        }
        if (accepted != expected) {
            mismatches += "\n  " + name + (accepted ? " (accepted)" : std::string(" (refused: ") +
                                                                 jsonz::errorName(r.error) + " at byte " +
                                                                 std::to_string(r.position - bytes.c_str()) + ")");
        }
    }
    EXPECT_TRUE(mismatches.empty()) << "mismatching file(s):" << mismatches;
    EXPECT_GE(judged, 280u) << "the corpus in " << dir << " is missing or incomplete";
    EXPECT_EQ(listedSeen, truncatedVerdicts.size()) << "a file listed for its NUL byte is gone from the corpus";
}
