#include "json/memberText.h"

#include <cstring>

namespace ztjsonlh {
namespace {

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

const char* skipSpace(const char* p) {
    while (isSpace(*p)) ++p;
    return p;
}

// p at an opening quote; returns the position after the closing quote.
const char* skipString(const char* p) {
    for (++p; *p != '"'; ++p) {
        if (*p == '\\') ++p;  // the escaped character, never the end of the text in valid JSON
    }
    return p + 1;
}

// p at the first character of a value; appends it without whitespace (when
// out is set) and returns the position after it.
const char* copyValue(const char* p, std::string* out) {
    int depth = 0;
    do {
        const char c = *p;
        if (c == '"') {
            const char* end = skipString(p);
            if (out) out->append(p, static_cast<std::size_t>(end - p));
            p = end;
        } else if (isSpace(c)) {
            ++p;
        } else {
            if (c == '{' || c == '[') ++depth;
            if (c == '}' || c == ']') --depth;
            if (out) out->push_back(c);
            ++p;
            if (depth == 0 && c != '{' && c != '[' && c != '}' && c != ']') {
                // A scalar: the rest of its characters up to a delimiter.
                while (*p && !isSpace(*p) && *p != ',' && *p != '}' && *p != ']') {
                    if (out) out->push_back(*p);
                    ++p;
                }
            }
        }
    } while (depth > 0);
    return p;
}

bool sameNameIgnoringAsciiCase(const char* name, std::size_t length, const char* key) {
    for (std::size_t i = 0; i < length; ++i, ++key) {
        if (*key == '\0') return false;
        char a = name[i], b = *key;
        if (a >= 'A' && a <= 'Z') a = static_cast<char>(a - 'A' + 'a');
        if (b >= 'A' && b <= 'Z') b = static_cast<char>(b - 'A' + 'a');
        if (a != b) return false;
    }
    return *key == '\0';
}

}  // namespace

MemberLookup compactMemberText(const char* text, const char* key, std::string& value) {
    const char* p = skipSpace(text);
    if (*p != '{') return MemberLookup::Absent;
    p = skipSpace(p + 1);
    while (*p == '"') {
        const char* nameStart = p + 1;
        const char* nameEnd = skipString(p) - 1;
        const std::size_t length = static_cast<std::size_t>(nameEnd - nameStart);
        if (std::memchr(nameStart, '\\', length)) return MemberLookup::Undecided;
        const bool match = sameNameIgnoringAsciiCase(nameStart, length, key);
        p = skipSpace(skipSpace(nameEnd + 1) + 1);  // past the ':'
        if (match) {
            std::string compact;
            copyValue(p, &compact);
            value.swap(compact);
            return MemberLookup::Found;
        }
        p = skipSpace(copyValue(p, nullptr));
        if (*p == ',') p = skipSpace(p + 1);
    }
    return MemberLookup::Absent;
}

}  // namespace ztjsonlh
