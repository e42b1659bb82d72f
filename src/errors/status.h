// Operations on the caller-owned status record.
//
// Precedence, used whenever a code is set or merged: a record at 0 takes any
// non-zero code; a warning (> 0) gives way only to an error (< 0); an error is
// never replaced, so the first error wins with its text. A refused code
// leaves the record untouched.
//
// None of these functions throws. When the record's callback cannot supply
// memory the code is still set and the text stays as far as it was written.
// A status record belongs to one call on one thread: nothing here locks.
#pragma once

#include <cstdint>

#include "errors/errorSite.h"
#include "ztsdlib/ztsdlib.h"

namespace zterr {

// Whether a record holding `current` takes `next` by the precedence rule.
bool takesCode(std::int32_t current, std::int32_t next) noexcept;

// Sets the code and rewrites the text to the site's report:
// {"error_constant":..,"file":..,"line":..,"component":..}. True when taken.
bool setError(zterr_Status* status, std::int32_t code, const zterr_ErrorSite& site) noexcept;

// Moves (same callback) or copies the source's code and text into the
// destination, by the precedence rule. True when taken.
bool mergeStatus(zterr_Status* destination, zterr_Status* source) noexcept;

// Appends the inner record's report (with a "code" member added when it has
// none) to the outer report's "nested_error" array, creating the array when
// needed. The outer code is not changed.
bool attachNestedError(zterr_Status* outer, const zterr_Status* inner) noexcept;

// malloc-based callback: 0 frees; otherwise at least 512 bytes, the smallest
// power of two not below the request, the old text (or "{}") kept.
bool defaultReallocate(zterr_Status* status, std::uint32_t newCapacity) noexcept;

// Replaces the record's text by `text`, growing the buffer through the
// callback as needed. False when no room could be had (text then unchanged).
bool placeText(zterr_Status* status, const char* text) noexcept;

// A fresh, empty record that allocates with defaultReallocate.
inline zterr_Status makeOwnedStatus() noexcept { return zterr_Status{0, 0, &defaultReallocate, nullptr}; }

// Frees the record's buffer through its callback (when it has one).
void releaseStatus(zterr_Status* status) noexcept;

// Called inside a catch-all handler: turns the exception in flight into the
// status (library error merged, out of memory -52000, other standard
// exception or unknown -52003).
void translateCurrentException(zterr_Status* status) noexcept;

}  // namespace zterr
