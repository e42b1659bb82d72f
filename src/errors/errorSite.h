// A constant record of one place in the source that raises an error: where it
// is and which error constant it raises. The report writer copies these into
// the "file", "line", "component" and "error_constant" members.
#pragma once

#include <cstdint>

struct zterr_ErrorSite {
    const char* file;           // build-relative path without extension, backslash separated
    std::int32_t line;
    const char* component;      // "ztsdlib", or null for none
    const char* errorConstant;  // symbolic name of the code, e.g. "ztapalerr_invalidParameter"
};

namespace zterr {
constexpr const char* kComponent = "ztsdlib";
}

// An error site at the current line of the file labelled fileLabel.
#define ZTERR_SITE(fileLabel, constantName) \
    (zterr_ErrorSite{(fileLabel), __LINE__, ::zterr::kComponent, (constantName)})
// An error site whose line is fixed (sites that reports are matched against).
#define ZTERR_SITE_AT(fileLabel, lineNumber, constantName) \
    (zterr_ErrorSite{(fileLabel), (lineNumber), ::zterr::kComponent, (constantName)})
