// Checks on whole JSON texts received from outside the library.
//
// Diagnostics of all three go under "ztsyncdomain_debug".
#pragma once

#include <string>

#include "json/jsonKeyGetters.h"

namespace ztsdtools {

// Strict validation of the whole text with the jsonz validator: optional
// whitespace (tab, LF, CR, space), one JSON value, optional whitespace, end.
// A NUL byte inside the string ends the JSON text; anything after it counts
// as a trailing character. On failure raises -52005
// "ztapalerr_invalidParameter" with the details "message" (the caller's),
// "jsonzError" (the validator's error name), "position" (the text from the
// failing byte to the end), "jsonString" (the whole text) and "source".
void validateJsonString(const std::string& json, const std::string& message, const std::string& source);

// Always raises -52005 "ztapalerr_invalidParameter" with the details
// "message", "JsonKey" and "uri", in that order.
[[noreturn]] void throwMissingJsonKey(const std::string& uri, const std::string& key, const std::string& message);

// Reads "version" as a 32-bit unsigned (ztsynctools::getUInt32FromJsonString,
// so its parse, type and overflow failures pass through). Absent: the missing
// key error with missingMessage. 0 (also a null "version") and 1 pass; any
// other value raises -52002 "ztapalerr_featureUnsupported" with the details
// "message" (mismatchMessage), "remoteVersion", "maxSupportedVersion" (1), "uri".
void checkRemoteApiVersion(const std::string& uri, const std::string& json, const std::string& missingMessage,
                           const std::string& mismatchMessage);
// The same check on a text already parsed.
void checkRemoteApiVersion(const std::string& uri, const ztsynctools::ParsedJson& json,
                           const std::string& missingMessage, const std::string& mismatchMessage);

}  // namespace ztsdtools
