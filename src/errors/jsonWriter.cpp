#include "errors/jsonWriter.h"

#include <charconv>
#include <cstring>

namespace zterr {
namespace {

constexpr char kSentinel = 'J';

bool isJsonSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// One value to write: either text to escape and quote, or text copied as is.
struct Piece {
    const char* data;
    std::size_t length;
    bool quoted;
};

char hexDigit(unsigned v) { return "0123456789abcdef"[v & 0xF]; }

char* writeEscaped(char* out, const char* text, std::size_t length) {
    for (std::size_t i = 0; i < length; ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        switch (c) {
            case 0x08: *out++ = '\\'; *out++ = 'b'; break;
            case 0x09: *out++ = '\\'; *out++ = 't'; break;
            case 0x0A: *out++ = '\\'; *out++ = 'n'; break;
            case 0x0C: *out++ = '\\'; *out++ = 'f'; break;
            case 0x0D: *out++ = '\\'; *out++ = 'r'; break;
            case '"':  *out++ = '\\'; *out++ = '"'; break;
            case '\\': *out++ = '\\'; *out++ = '\\'; break;
            default:
                if (c < 0x20 || c == 0x7F) {
                    *out++ = '\\'; *out++ = 'u'; *out++ = '0'; *out++ = '0';
                    *out++ = hexDigit(c >> 4); *out++ = hexDigit(c);
                } else {
                    *out++ = static_cast<char>(c);
                }
        }
    }
    return out;
}

// Whether `needed` bytes of free room follow the text's NUL: zero bytes
// between the NUL and the sentinel. The scan starts after the NUL and stops
// as soon as enough room is seen (or at the first non-zero byte), so a short
// append does not walk the whole buffer; it never passes the buffer's last
// byte, so a buffer whose layout a caller disturbed yields less room, never
// an overrun.
bool hasFreeRoom(const zterr_Status* status, const char* nul, std::size_t needed) {
    const char* last = status->json + status->capacity - 1;
    const char* p = nul + 1;
    if (p > last || static_cast<std::size_t>(last - p) < needed) return false;
    const char* end = p + needed;  // the room must be zero and end before the last byte
    while (p + 8 <= end) {
        std::uint64_t word;
        std::memcpy(&word, p, sizeof word);
        if (word != 0) return false;
        p += 8;
    }
    while (p < end) {
        if (*p != 0) return false;
        ++p;
    }
    return true;
}

char* insertMember(char* position, const char* key, const Piece& value, zterr_JsonCursor* cursor) {
    if (!cursor) return nullptr;
    const std::size_t keyLength = key ? std::strlen(key) : 0;
    const std::size_t keyRoom = key ? escapedLength(key, keyLength) + 3 : 0;
    const std::size_t valueRoom = value.quoted ? escapedLength(value.data, value.length) + 2 : value.length;

    while (position) {
        auto* status = static_cast<zterr_Status*>(cursor->context);
        if (!status || !status->json || status->capacity == 0) return nullptr;
        const char c = *position;
        const bool atClose = c == '}' || c == ']';
        const bool atOpen = c == '{' || c == '[';
        if (!atClose && !atOpen) return nullptr;

        bool empty;
        if (atClose) {
            const char* p = position;
            while (p > status->json && isJsonSpace(p[-1])) --p;
            empty = p > status->json && p[-1] == (c == '}' ? '{' : '[');
        } else {
            const char* p = position + 1;
            while (isJsonSpace(*p)) ++p;
            empty = *p == (c == '{' ? '}' : ']');
        }
        const std::size_t needed = keyRoom + valueRoom + (empty ? 0 : 1);
        char* nul = position + std::strlen(position);
        if (!hasFreeRoom(status, nul, needed)) {
            position = cursor->grow ? cursor->grow(position, cursor->context) : nullptr;
            continue;
        }

        char* at = atClose ? position : position + 1;
        std::memmove(at + needed, at, static_cast<std::size_t>(nul - at) + 1);
        char* out = at;
        if (atClose && !empty) *out++ = ',';
        if (key) {
            *out++ = '"';
            out = writeEscaped(out, key, keyLength);
            *out++ = '"';
            *out++ = ':';
        }
        if (value.quoted) {
            *out++ = '"';
            out = writeEscaped(out, value.data, value.length);
            *out++ = '"';
        } else if (value.length) {
            std::memcpy(out, value.data, value.length);
            out += value.length;
        }
        if (atOpen && !empty) *out++ = ',';
        return at + needed;
    }
    return nullptr;
}

template <typename T>
char* appendNumber(char* position, const char* key, T value, zterr_JsonCursor* cursor) {
    char scratch[64];
    const auto result = std::to_chars(scratch, scratch + sizeof scratch, value);
    const std::size_t length = result.ec == std::errc() ? static_cast<std::size_t>(result.ptr - scratch) : 0;
    return insertMember(position, key, Piece{scratch, length, false}, cursor);
}

const char* skipSpace(const char* p) {
    while (isJsonSpace(*p)) ++p;
    return p;
}

// Past the string whose opening quote is at p.
const char* skipString(const char* p) {
    ++p;
    while (*p && *p != '"') {
        if (*p == '\\' && p[1]) ++p;
        ++p;
    }
    return *p ? p + 1 : p;
}

// Past the value that starts at p.
const char* skipValue(const char* p) {
    if (*p == '"') return skipString(p);
    if (*p == '{' || *p == '[') {
        const char* close = findMatchingClose(p);
        return close ? close + 1 : p + std::strlen(p);
    }
    while (*p && *p != ',' && *p != '}' && *p != ']' && !isJsonSpace(*p)) ++p;
    return p;
}

}  // namespace

std::size_t escapedLength(const char* text, std::size_t length) {
    std::size_t n = 0;
    for (std::size_t i = 0; i < length; ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c == 0x08 || c == 0x09 || c == 0x0A || c == 0x0C || c == 0x0D || c == '"' || c == '\\')
            n += 2;
        else if (c < 0x20 || c == 0x7F)
            n += 6;
        else
            n += 1;
    }
    return n;
}

void restoreSentinel(zterr_Status* status) {
    if (!status || !status->json || status->capacity == 0) return;
    const std::size_t capacity = status->capacity;
    const std::size_t length = strnlen(status->json, capacity);
    if (length >= capacity) {
        status->json[capacity - 1] = '\0';
        return;
    }
    if (length + 1 < capacity) {
        std::memset(status->json + length + 1, 0, capacity - length - 1);
        status->json[capacity - 1] = kSentinel;
    }
}

char* growStatusBuffer(char* position, void* context) {
    auto* status = static_cast<zterr_Status*>(context);
    if (!status || !status->json || !position) return nullptr;
    const std::uint32_t capacity = status->capacity;
    if (static_cast<std::uint32_t>(2u * capacity - 4u) > 0x7FFFFFFDu) return nullptr;
    const std::uint32_t wanted = 2u * capacity - 2u;
    if (wanted <= capacity || !status->reallocate) return nullptr;
    const std::ptrdiff_t offset = position - status->json;
    if (!status->reallocate(status, wanted)) return nullptr;
    // A callback that reports success without growing would retry forever.
    if (!status->json || status->capacity <= capacity) return nullptr;
    restoreSentinel(status);
    return status->json + offset;
}

zterr_JsonCursor beginAppend(zterr_Status* status) {
    zterr_JsonCursor cursor{nullptr, growStatusBuffer, status};
    if (!status) return cursor;
    if (!status->json || status->capacity < 4) {
        const bool hadText = status->json != nullptr;
        if (!status->reallocate || !status->reallocate(status, 4) || !status->json || status->capacity < 4)
            return cursor;
        if (!hadText) status->json[0] = '\0';
        restoreSentinel(status);
    }
    if (status->json[0] == '\0') {
        status->json[0] = '{';
        status->json[1] = '}';
        status->json[2] = '\0';
        restoreSentinel(status);
    }
    char* end = status->json + strnlen(status->json, status->capacity);
    while (end > status->json && isJsonSpace(end[-1])) --end;
    if (end > status->json && end[-1] == '}') cursor.position = end - 1;
    return cursor;
}

char* appendString(char* position, const char* key, const char* value, zterr_JsonCursor* cursor) {
    if (!value) value = "";
    return insertMember(position, key, Piece{value, std::strlen(value), true}, cursor);
}

char* appendString(char* position, const char* key, const char* value, std::size_t valueLength,
                   zterr_JsonCursor* cursor) {
    if (!value) valueLength = 0;
    return insertMember(position, key, Piece{value ? value : "", valueLength, true}, cursor);
}

char* appendInt32(char* position, const char* key, std::int32_t value, zterr_JsonCursor* cursor) {
    return appendNumber(position, key, value, cursor);
}
char* appendUInt32(char* position, const char* key, std::uint32_t value, zterr_JsonCursor* cursor) {
    return appendNumber(position, key, value, cursor);
}
char* appendInt64(char* position, const char* key, std::int64_t value, zterr_JsonCursor* cursor) {
    return appendNumber(position, key, value, cursor);
}
char* appendUInt64(char* position, const char* key, std::uint64_t value, zterr_JsonCursor* cursor) {
    return appendNumber(position, key, value, cursor);
}
char* appendBool(char* position, const char* key, bool value, zterr_JsonCursor* cursor) {
    return insertMember(position, key, value ? Piece{"true", 4, false} : Piece{"false", 5, false}, cursor);
}
char* appendRaw(char* position, const char* key, const char* rawJson, zterr_JsonCursor* cursor) {
    if (!rawJson) rawJson = "null";
    return insertMember(position, key, Piece{rawJson, std::strlen(rawJson), false}, cursor);
}
char* appendEmptyObject(char* position, const char* key, zterr_JsonCursor* cursor) {
    return insertMember(position, key, Piece{"{}", 2, false}, cursor);
}
char* appendEmptyArray(char* position, const char* key, zterr_JsonCursor* cursor) {
    return insertMember(position, key, Piece{"[]", 2, false}, cursor);
}
char* appendLine(char* position, std::int32_t line, zterr_JsonCursor* cursor) {
    return appendInt32(position, "line", line, cursor);
}

const char* findMatchingClose(const char* open) {
    if (!open || (*open != '{' && *open != '[')) return nullptr;
    int depth = 0;
    for (const char* p = open; *p;) {
        if (*p == '"') {
            p = skipString(p);
            continue;
        }
        if (*p == '{' || *p == '[') {
            ++depth;
        } else if (*p == '}' || *p == ']') {
            if (--depth == 0) return p;
        }
        ++p;
    }
    return nullptr;
}

const char* findTopLevelMember(const char* json, const char* key) {
    if (!json || !key) return nullptr;
    const std::size_t keyLength = std::strlen(key);
    const char* p = skipSpace(json);
    if (*p != '{') return nullptr;
    p = skipSpace(p + 1);
    while (*p == '"') {
        const char* keyStart = p + 1;
        const char* keyEnd = skipString(p);
        const bool match = keyEnd > keyStart && static_cast<std::size_t>(keyEnd - 1 - keyStart) == keyLength &&
                           std::memcmp(keyStart, key, keyLength) == 0;
        p = skipSpace(keyEnd);
        if (*p != ':') return nullptr;
        p = skipSpace(p + 1);
        if (match) return p;
        p = skipSpace(skipValue(p));
        if (*p != ',') return nullptr;
        p = skipSpace(p + 1);
    }
    return nullptr;
}

}  // namespace zterr
