// Checks and accessors over cJSON nodes. Every failure raises the library's
// error exception (or std::bad_alloc for cJSON allocation failures); nothing
// returns an error code.
//
// Codes are shared on purpose: every type error is -52004, every absence
// -52006, malformed text -52005; the error constant in the report tells them
// apart. Each raise carries a "ztsync_debug" object with a "message" and the
// offending node's type ("type": "object", "array", "string", "number",
// "true", "false", "null", "raw" or "none" for a missing node).
#pragma once

#include <cjson/cJSON.h>

#include <new>
#include <string>

namespace ztjsonlh {

// What cJSON allocation failures throw: a std::bad_alloc whose text is
// "bad allocation".
class BadAllocation : public std::bad_alloc {
public:
    const char* what() const noexcept override { return "bad allocation"; }
};

// The node's type name as listed above.
const char* typeName(const cJSON* node) noexcept;

// Type checks: each passes for its type and raises -52004 otherwise
// ("jsonErrorsNotAnObject", "jsonErrorsNotAnArray", or
// "jsonErrorsTypeMismatch" for the scalar checks). A null node fails every check.
void checkIsObject(const cJSON* node);
void checkIsArray(const cJSON* node);
void checkIsString(const cJSON* node);
void checkIsBool(const cJSON* node);    // true or false
void checkIsNumber(const cJSON* node);

// checkIsObject, then cJSON's case-insensitive member lookup (the first
// match). A missing member raises -52006 "jsonErrorsObjectItemNotFound"
// with the detail "key". The result is borrowed from the tree.
cJSON* getObjectItem(const cJSON* object, const std::string& key);

// checkIsString, then the node's text (up to its first NUL, which a tree
// from parse() never holds inside a string).
std::string getString(const cJSON* node);

// cJSON's compact printing (initial buffer 256 bytes). BadAllocation when
// cJSON cannot print.
std::string printUnformatted(const cJSON* node);

// A new, empty array node that the caller owns (attach it to a tree, or wrap
// it in a CppJson). BadAllocation when cJSON cannot allocate.
cJSON* createArray();

}  // namespace ztjsonlh
