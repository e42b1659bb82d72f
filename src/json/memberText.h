// The text of one member of a JSON object, read straight from a text the
// strict validator accepted, without building a tree: the value exactly as
// sent, with the whitespace between its tokens removed (its numbers and
// string escapes are kept as written).
//
// The member is the first of the root object whose name equals key when
// ASCII letters are compared without case, the rule of cJSON's object
// lookup that the rest of the library reads members with. A name written
// with an escape sequence cannot be compared without decoding it; when one
// comes before the match (or is the match) the lookup is Undecided and the
// caller reads the member from a parsed tree instead.
#pragma once

#include <string>

namespace ztjsonlh {

enum class MemberLookup { Found, Absent, Undecided };

// text must be NUL-terminated and strictly valid JSON (jsonz::validate).
// A root that is not an object has no members: Absent.
MemberLookup compactMemberText(const char* text, const char* key, std::string& value);

}  // namespace ztjsonlh
