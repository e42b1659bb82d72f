// The strict JSON validator on arbitrary bytes.
//
// For every input:
//  - validate() reads the text (up to its first NUL) in an exact-size copy,
//    so a read past the terminator is an AddressSanitizer report;
//  - the error number is 0..9 and the position lies inside the text; on
//    success it is the terminating NUL;
//  - the position is where the text stops being the beginning of a valid
//    JSON text: the text cut just before it is either valid or fails only at
//    its end (never earlier), and the text cut just after it fails the same
//    way at the same byte;
//  - parseValue() agrees with validate() on where the first value ends;
//  - what the validator accepts, the cJSON layer reads too, except for the
//    two documented limits of that reader (nesting deeper than 1000 levels,
//    and \u escapes naming a lone UTF-16 surrogate, which the validator's
//    grammar allows); and what it reads prints back as text the validator
//    accepts (the HTTP client hands such printed texts on to code that
//    validates them again).
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "fuzzSupport.h"
#include "json/cjsonUtils.h"
#include "json/cppJson.h"
#include "json/jsonz.h"

namespace {

using ztsdfuzz::ExactText;
using ztsdfuzz::fail;
using ztsdfuzz::require;
namespace jsonz = ztsdlib::jsonz;

// The deepest nesting of brackets outside strings (for a valid text).
std::size_t nestingDepth(const char* p) {
    std::size_t depth = 0, deepest = 0;
    bool inString = false;
    for (; *p; ++p) {
        const char c = *p;
        if (inString) {
            if (c == '\\' && p[1]) ++p;
            else if (c == '"') inString = false;
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > deepest) deepest = depth;
        } else if (c == ']' || c == '}') {
            --depth;
        }
    }
    return deepest;
}

unsigned hexValue(const char* p) {
    unsigned v = 0;
    for (int i = 0; i < 4; ++i) {
        const char c = p[i];
        v = v * 16 + static_cast<unsigned>(c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10);
    }
    return v;
}

// Whether a string of a valid text holds a \u escape of a UTF-16 surrogate
// that is not part of a high-low pair (nul: or of the NUL character, which
// the reader refuses because a C string cannot hold it).
bool hasLoneSurrogate(const char* p, bool nul = false) {
    bool inString = false;
    for (; *p; ++p) {
        if (!inString) {
            inString = *p == '"';
            continue;
        }
        if (*p == '"') {
            inString = false;
        } else if (*p == '\\') {
            if (p[1] != 'u') {
                ++p;
                continue;
            }
            const unsigned unit = hexValue(p + 2);
            if (nul && unit == 0) return true;
            if (unit >= 0xDC00 && unit <= 0xDFFF) return true;
            if (unit >= 0xD800 && unit <= 0xDBFF) {
                if (p[6] != '\\' || p[7] != 'u') return true;
                const unsigned low = hexValue(p + 8);
                if (low < 0xDC00 || low > 0xDFFF) return true;
                p += 6;
            }
            p += 5;
        }
    }
    return false;
}

std::string describe(const jsonz::Result& r, const char* text) {
    return std::string(jsonz::errorName(r.error)) + " at " + std::to_string(r.position - text);
}

void checkPosition(const ExactText& input) {
    const char* text = input.c_str();
    const std::size_t length = std::strlen(text);
    const jsonz::Result r = jsonz::validate(text);

    require(r.error >= jsonz::errorNone && r.error <= jsonz::errorTrailingChar, "error number out of range");
    require(r.position >= text && r.position <= text + length, "position outside the text");
    require(std::strncmp(jsonz::errorName(r.error), r.error ? "jsonz_" : "unknown", 6) == 0, "error name");
    if (r.error == jsonz::errorNone) {
        require(r.position == text + length, "success must end at the NUL", describe(r, text));
        return;
    }

    const std::size_t at = static_cast<std::size_t>(r.position - text);
    // Cut before the offending byte: still the beginning of a valid text.
    const ExactText before(text, at);
    const jsonz::Result b = jsonz::validate(before.c_str());
    if (b.error != jsonz::errorNone && b.position != before.c_str() + at)
        fail("the text before the reported position already fails earlier",
             describe(r, text) + " / prefix: " + describe(b, before.c_str()));
    // Cut after it: the same error at the same byte.
    if (at < length) {
        const ExactText through(text, at + 1);
        const jsonz::Result t = jsonz::validate(through.c_str());
        if (t.error != r.error || t.position != through.c_str() + at)
            fail("the text through the reported position fails differently",
                 describe(r, text) + " / prefix: " + describe(t, through.c_str()));
    }
}

void checkParseValue(const ExactText& input) {
    const char* text = input.c_str();
    const char* start = text;
    while (*start == ' ' || *start == '\t' || *start == '\n' || *start == '\r') ++start;
    const jsonz::Result whole = jsonz::validate(text);
    const jsonz::Result value = jsonz::parseValue(start);
    require(value.position >= start && value.position <= text + std::strlen(text), "parseValue position outside");
    if (whole.error == jsonz::errorNone) {
        require(value.error == jsonz::errorNone, "parseValue refuses what validate accepts");
    } else if (value.error == jsonz::errorNone) {
        // The value was fine, so validate can only have objected to what follows it.
        require(whole.error == jsonz::errorTrailingChar, "validate fails inside a value parseValue accepts",
                describe(whole, text));
        require(whole.position >= value.position, "trailing character before the value's end");
    } else {
        require(whole.error == value.error && whole.position == value.position,
                "validate and parseValue disagree on a broken value",
                describe(whole, text) + " / " + describe(value, text));
    }
}

void checkAgainstReader(const ExactText& input) {
    const char* text = input.c_str();
    if (jsonz::validate(text).error != jsonz::errorNone) return;
    try {
        const ztjsonlh::CppJson document = ztjsonlh::parse(text);
        const std::string printed = ztjsonlh::printUnformatted(document.get());
        if (!ztsdfuzz::validatesStrictly(printed)) fail("the reader prints text the validator refuses", printed);
    } catch (const zterr::Exception& e) {
        if (nestingDepth(text) > 1000 || hasLoneSurrogate(text, true)) return;
        fail("the reader refuses a text the validator accepts", e.what());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const ExactText input(reinterpret_cast<const char*>(data), size);
    checkPosition(input);
    checkParseValue(input);
    checkAgainstReader(input);
    return 0;
}
