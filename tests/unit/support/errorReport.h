// Reads library error reports (from a thrown zterr::Exception or a status
// record) back with an independent JSON parser, for assertions on code,
// constant, file and the "ztsyncdomain_debug" details.
#pragma once

#include <cjson/cJSON.h>

#include <cstdint>
#include <string>
#include <utility>

#include "errors/exception.h"
#include "unit/support/statusFixture.h"

namespace ztsdtest {

struct ErrorReport {
    bool present = false;  // an error was thrown / the status holds a report
    std::int32_t code = 0;
    std::string errorConstant;
    std::string file;
    std::string message;  // ztsyncdomain_debug.message
    std::string text;     // the whole JSON text
    CJsonPtr document;

    // A member of the "ztsyncdomain_debug" object, or null.
    const cJSON* detail(const char* key) const {
        if (!document) return nullptr;
        const cJSON* debug = cJSON_GetObjectItemCaseSensitive(document.get(), "ztsyncdomain_debug");
        return cJSON_GetObjectItemCaseSensitive(debug, key);
    }
    // A numeric detail, or -1 when missing.
    double number(const char* key) const {
        const cJSON* item = detail(key);
        return cJSON_IsNumber(item) ? item->valuedouble : -1.0;
    }
};

inline ErrorReport readReport(std::int32_t code, const char* json) {
    ErrorReport r;
    r.present = true;
    r.code = code;
    r.text = json ? json : "";
    r.document = parseJson(r.text);
    if (!r.document) return r;
    auto text = [&](const cJSON* parent, const char* key) {
        const char* s = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(parent, key));
        return std::string(s ? s : "");
    };
    r.errorConstant = text(r.document.get(), "error_constant");
    r.file = text(r.document.get(), "file");
    r.message = text(cJSON_GetObjectItemCaseSensitive(r.document.get(), "ztsyncdomain_debug"), "message");
    return r;
}

inline ErrorReport readReport(const zterr_Status& status) {
    if (status.code == 0) return ErrorReport{};
    return readReport(status.code, status.json);
}

// Runs f; the report of the zterr::Exception it throws (present false when
// it returns normally; other exceptions pass on).
template <typename F>
ErrorReport catchReport(F&& f) {
    try {
        std::forward<F>(f)();
    } catch (const zterr::Exception& e) {
        return readReport(e.code(), e.status().json);
    }
    return ErrorReport{};
}

}  // namespace ztsdtest
