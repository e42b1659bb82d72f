#include "json/jsonz.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace ztsdlib {
namespace jsonz {

namespace {

using Byte = unsigned char;

// Byte classes, looked up once per byte in the hot loops.
struct ByteTables {
    // Bytes a string may hold as they are and that need no further look:
    // printable ASCII other than '"' and '\\'.
    std::array<bool, 256> stringPlain{};
    // Bytes that may follow a backslash on their own.
    std::array<bool, 256> simpleEscape{};
    std::array<bool, 256> hexDigit{};
    // Bytes that would glue onto a number or literal and make it a longer,
    // malformed token ("01", "1.2.3", "truex").
    std::array<bool, 256> tokenChar{};
};

constexpr ByteTables makeByteTables() {
    ByteTables t{};
    // Bytes >= 0x80 pass as they are: the report writer copies them unchanged too.
    for (int c = 0x20; c < 0x100; ++c) t.stringPlain[c] = c != '"' && c != '\\';
    for (const char c : {'"', '\\', '/', 'b', 'f', 'n', 'r', 't'}) t.simpleEscape[static_cast<Byte>(c)] = true;
    for (int c = '0'; c <= '9'; ++c) t.hexDigit[c] = t.tokenChar[c] = true;
    for (int c = 'a'; c <= 'f'; ++c) t.hexDigit[c] = t.hexDigit[c - 'a' + 'A'] = true;
    for (int c = 'a'; c <= 'z'; ++c) t.tokenChar[c] = t.tokenChar[c - 'a' + 'A'] = true;
    for (const char c : {'.', '+', '-', '_'}) t.tokenChar[static_cast<Byte>(c)] = true;
    return t;
}

constexpr ByteTables kTables = makeByteTables();

inline bool isDigit(Byte c) noexcept { return c >= '0' && c <= '9'; }

inline const Byte* skipWhitespace(const Byte* p) noexcept {
    while (*p == ' ' || *p == '\n' || *p == '\r' || *p == '\t') ++p;
    return p;
}

// Outcome of scanning one token: on success `p` is just past it, on failure it
// is the offending byte.
struct Scan {
    const Byte* p;
    int error;
};

// A string starting at its opening quote.
Scan scanString(const Byte* p) noexcept {
    ++p;
    for (;;) {
        // Four bytes per round; each is read only once the one before it has
        // been found plain (and therefore not the NUL).
        for (;;) {
            if (!kTables.stringPlain[p[0]]) break;
            if (!kTables.stringPlain[p[1]]) { p += 1; break; }
            if (!kTables.stringPlain[p[2]]) { p += 2; break; }
            if (!kTables.stringPlain[p[3]]) { p += 3; break; }
            p += 4;
        }
        const Byte c = *p;
        if (c == '"') return {p + 1, errorNone};
        if (c == '\\') {
            const Byte e = p[1];
            if (kTables.simpleEscape[e]) {
                p += 2;
                continue;
            }
            if (e != 'u') return {p + 1, errorInvalidStringSequence};
            // The digits are checked one by one, so a NUL among them ends the scan.
            for (int i = 2; i < 6; ++i) {
                if (!kTables.hexDigit[p[i]]) return {p + i, errorInvalidStringSequence};
            }
            p += 6;
            continue;
        }
        if (c == '\0') return {p, errorDoubleQuoteExpected};
        return {p, errorInvalidStringSequence};  // raw control byte
    }
}

Scan scanNumber(const Byte* p) noexcept {
    if (*p == '-') ++p;
    if (*p == '0') {
        ++p;
    } else if (*p >= '1' && *p <= '9') {
        do ++p; while (isDigit(*p));
    } else {
        return {p, errorValueExpected};
    }
    if (*p == '.') {
        ++p;
        if (!isDigit(*p)) return {p, errorValueExpected};
        do ++p; while (isDigit(*p));
    }
    if (*p == 'e' || *p == 'E') {
        ++p;
        if (*p == '+' || *p == '-') ++p;
        if (!isDigit(*p)) return {p, errorValueExpected};
        do ++p; while (isDigit(*p));
    }
    if (kTables.tokenChar[*p]) return {p, errorValueExpected};
    return {p, errorNone};
}

// true, false or null; the first mismatching byte (possibly the NUL) stops it.
Scan scanLiteral(const Byte* p, const char* word) noexcept {
    for (; *word != '\0'; ++word, ++p) {
        if (*p != static_cast<Byte>(*word)) return {p, errorValueExpected};
    }
    if (kTables.tokenChar[*p]) return {p, errorValueExpected};
    return {p, errorNone};
}

// An object member up to its value: key, whitespace, ':', whitespace.
// `p` is where the key must start (whitespace already skipped).
Scan scanMemberHead(const Byte* p) noexcept {
    if (*p != '"') return {p, *p == '\0' ? errorCurlyBracketExpected : errorDoubleQuoteExpected};
    const Scan key = scanString(p);
    if (key.error != errorNone) return key;
    p = skipWhitespace(key.p);
    if (*p != ':') return {p, *p == '\0' ? errorCurlyBracketExpected : errorColonExpected};
    return {skipWhitespace(p + 1), errorNone};
}

// The kinds of the open containers, one bit per level (1 = object). The first
// kInlineWords * 64 levels live in the object itself, so ordinary documents
// never allocate; deeper nesting moves the bits to a vector that doubles.
class NestingStack {
public:
    NestingStack() noexcept = default;
    NestingStack(const NestingStack&) = delete;
    NestingStack& operator=(const NestingStack&) = delete;

    bool empty() const noexcept { return depth == 0; }

    bool topIsObject() const noexcept {
        const std::size_t top = depth - 1;
        return (words[top >> 6] >> (top & 63)) & 1u;
    }

    // False when the bits could not be given more memory.
    bool push(bool isObject) noexcept {
        const std::size_t word = depth >> 6;
        if (word == capacityWords && !grow()) return false;
        const std::uint64_t mask = std::uint64_t{1} << (depth & 63);
        if (isObject) words[word] |= mask;
        else words[word] &= ~mask;
        ++depth;
        return true;
    }

    void pop() noexcept { --depth; }

private:
    static constexpr std::size_t kInlineWords = 64;

    bool grow() noexcept {
        try {
            if (heapWords.empty()) heapWords.assign(inlineWords, inlineWords + kInlineWords);
            heapWords.resize(capacityWords * 2);
        } catch (...) {
            return false;
        }
        words = heapWords.data();
        capacityWords = heapWords.size();
        return true;
    }

    std::uint64_t inlineWords[kInlineWords];  // written before read, left uninitialised on purpose
    std::vector<std::uint64_t> heapWords;
    std::uint64_t* words = inlineWords;
    std::size_t capacityWords = kInlineWords;
    std::size_t depth = 0;
};

inline Result fail(int error, const Byte* p) noexcept {
    return {error, reinterpret_cast<const char*>(p)};
}

}  // namespace

Result parseValue(const char* text) noexcept {
    const Byte* p = reinterpret_cast<const Byte*>(text);
    NestingStack stack;
    for (;;) {
        // A value must start at p. Containers open here and loop back for their
        // first element; every other value is scanned whole.
        Scan s;
        switch (*p) {
            case '"':
                s = scanString(p);
                break;
            case '[': {
                const Byte* open = p;
                p = skipWhitespace(p + 1);
                if (*p == ']') {
                    s = {p + 1, errorNone};
                    break;
                }
                if (!stack.push(false)) return fail(errorValueExpected, open);
                continue;
            }
            case '{': {
                const Byte* open = p;
                p = skipWhitespace(p + 1);
                if (*p == '}') {
                    s = {p + 1, errorNone};
                    break;
                }
                if (!stack.push(true)) return fail(errorValueExpected, open);
                s = scanMemberHead(p);
                if (s.error != errorNone) return fail(s.error, s.p);
                p = s.p;
                continue;
            }
            case 't':
                s = scanLiteral(p, "true");
                break;
            case 'f':
                s = scanLiteral(p, "false");
                break;
            case 'n':
                s = scanLiteral(p, "null");
                break;
            case '-':
            case '0': case '1': case '2': case '3': case '4':
            case '5': case '6': case '7': case '8': case '9':
                s = scanNumber(p);
                break;
            case '\0':
                // The text ended where a value was due: inside a container
                // that container is what remains unfinished.
                if (!stack.empty()) {
                    return fail(stack.topIsObject() ? errorCurlyBracketExpected : errorSquareBracketExpected, p);
                }
                return fail(errorValueExpected, p);
            default:
                return fail(errorValueExpected, p);
        }
        if (s.error != errorNone) return fail(s.error, s.p);
        p = s.p;

        // A value ended at p: close as many containers as the text closes, then
        // either move on to the next element or finish.
        for (;;) {
            if (stack.empty()) return {errorNone, reinterpret_cast<const char*>(p)};
            p = skipWhitespace(p);
            const bool inObject = stack.topIsObject();
            const Byte c = *p;
            if (c == ',') {
                p = skipWhitespace(p + 1);
                if (*p == (inObject ? '}' : ']')) return fail(errorTrailingComma, p);
                if (inObject) {
                    s = scanMemberHead(p);
                    if (s.error != errorNone) return fail(s.error, s.p);
                    p = s.p;
                }
                break;
            }
            if (c == (inObject ? '}' : ']')) {
                ++p;
                stack.pop();
                continue;
            }
            if (c == '\0' || c == '}' || c == ']') {
                return fail(inObject ? errorCurlyBracketExpected : errorSquareBracketExpected, p);
            }
            return fail(errorCommaExpected, p);
        }
    }
}

Result validate(const char* text) noexcept {
    const Byte* p = skipWhitespace(reinterpret_cast<const Byte*>(text));
    const Result value = parseValue(reinterpret_cast<const char*>(p));
    if (value.error != errorNone) return value;
    p = skipWhitespace(reinterpret_cast<const Byte*>(value.position));
    if (*p != '\0') return fail(errorTrailingChar, p);
    return {errorNone, reinterpret_cast<const char*>(p)};
}

const char* errorName(int error) noexcept {
    switch (error) {
        case errorValueExpected: return "jsonz_errorValueExpected";
        case errorDoubleQuoteExpected: return "jsonz_errorDoubleQuoteExpected";
        case errorCurlyBracketExpected: return "jsonz_errorCurlyBracketExpected";
        case errorSquareBracketExpected: return "jsonz_errorSquareBracketExpected";
        case errorColonExpected: return "jsonz_errorColonExpected";
        case errorCommaExpected: return "jsonz_errorCommaExpected";
        case errorInvalidStringSequence: return "jsonz_errorInvalidStringSequence";
        case errorTrailingComma: return "jsonz_errorTrailingComma";
        case errorTrailingChar: return "jsonz_errorTrailingChar";
        default: return "unknown";
    }
}

}  // namespace jsonz
}  // namespace ztsdlib
