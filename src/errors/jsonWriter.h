// The in-place JSON writer of status records.
//
// A status buffer holds the JSON text, its NUL, zero bytes, and the sentinel
// 'J' in its last byte. The writer inserts members straight into that buffer:
// it measures the member, finds the free room between the NUL and the
// sentinel, moves the tail once and writes the text in place. When the room
// is short, the cursor's grow function asks the record's callback for about
// twice the capacity and the insertion is retried.
//
// Every append takes the position to insert at (a closing '}' or ']' to
// append at the end, an opening '{' or '[' to insert as first member) and
// returns the position just behind what it wrote, or null when no room could
// be made. A null position in gives null out, so a chain of appends stops
// quietly at the first failure. Keys and string values are escaped so that
// any bytes produce valid JSON; raw values are copied verbatim.
#pragma once

#include <cstddef>
#include <cstdint>

#include "ztsdlib/ztsdlib.h"

struct zterr_JsonCursor {
    char* position;                                  // where the next member goes
    char* (*grow)(char* position, void* context);    // makes room; returns the moved position or null
    void* context;                                   // the zterr_Status being written
};

namespace zterr {

// A cursor at the closing brace of the record's top-level object. Asks the
// callback for 4 bytes first when the buffer is smaller; position is null
// when no buffer could be had.
zterr_JsonCursor beginAppend(zterr_Status* status);

// The standard grow function: capacity 2c - 2, same offset in the new buffer.
char* growStatusBuffer(char* position, void* context);

char* appendString(char* position, const char* key, const char* value, zterr_JsonCursor* cursor);
char* appendString(char* position, const char* key, const char* value, std::size_t valueLength,
                   zterr_JsonCursor* cursor);
char* appendInt32(char* position, const char* key, std::int32_t value, zterr_JsonCursor* cursor);
char* appendUInt32(char* position, const char* key, std::uint32_t value, zterr_JsonCursor* cursor);
char* appendInt64(char* position, const char* key, std::int64_t value, zterr_JsonCursor* cursor);
char* appendUInt64(char* position, const char* key, std::uint64_t value, zterr_JsonCursor* cursor);
char* appendBool(char* position, const char* key, bool value, zterr_JsonCursor* cursor);
char* appendRaw(char* position, const char* key, const char* rawJson, zterr_JsonCursor* cursor);
// Write "{}" / "[]"; step the returned position back by one to fill it.
char* appendEmptyObject(char* position, const char* key, zterr_JsonCursor* cursor);
char* appendEmptyArray(char* position, const char* key, zterr_JsonCursor* cursor);
// The member "line" with a signed 32-bit value.
char* appendLine(char* position, std::int32_t line, zterr_JsonCursor* cursor);

// Length of the text that escaping `length` bytes of `text` produces.
std::size_t escapedLength(const char* text, std::size_t length);

// Rewrites the buffer's layout behind its text: zero bytes up to the last
// byte and the sentinel there. Used after every text placement and regrowth.
void restoreSentinel(zterr_Status* status);

// Start of the value of the top-level member `key` of a JSON object text,
// or null when there is none.
const char* findTopLevelMember(const char* json, const char* key);
// The closing bracket or brace matching the opening one at `open`, or null.
const char* findMatchingClose(const char* open);

}  // namespace zterr
