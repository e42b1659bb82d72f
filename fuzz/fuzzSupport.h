// Checks shared by the fuzz targets.
//
// A target states what must hold for every input; a broken rule prints what
// was seen and aborts, which libFuzzer records as a crash together with the
// input that caused it.
#pragma once

#include <cjson/cJSON.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>

#include "errors/exception.h"
#include "errors/status.h"
#include "json/jsonz.h"

namespace ztsdfuzz {

[[noreturn]] inline void fail(const char* what, const std::string& seen = std::string()) {
    std::fprintf(stderr, "fuzz check failed: %s\n", what);
    if (!seen.empty()) std::fprintf(stderr, "  seen: %.2000s\n", seen.c_str());
    std::abort();
}

inline void require(bool condition, const char* what, const std::string& seen = std::string()) {
    if (!condition) fail(what, seen);
}

// A copy of `text` in a heap block of exactly its length plus the NUL, so
// that AddressSanitizer reports any read past the terminator.
class ExactText {
public:
    ExactText(const char* data, std::size_t size) : buffer_(new char[size + 1]), size_(size) {
        if (size) std::memcpy(buffer_.get(), data, size);
        buffer_[size] = '\0';
    }
    explicit ExactText(const std::string& text) : ExactText(text.data(), text.size()) {}
    const char* c_str() const noexcept { return buffer_.get(); }
    std::size_t size() const noexcept { return size_; }

private:
    std::unique_ptr<char[]> buffer_;
    std::size_t size_;
};

// Whether the whole text (up to its first NUL) is one JSON value by the
// strict validator; the text is checked in an exact-size copy.
inline bool validatesStrictly(const std::string& text) {
    const ExactText exact(text);
    const ztsdlib::jsonz::Result r = ztsdlib::jsonz::validate(exact.c_str());
    return r.error == ztsdlib::jsonz::errorNone && r.position == exact.c_str() + std::strlen(exact.c_str());
}

// The text must be one JSON object by the strict validator.
inline void requireJsonObject(const char* json, const char* where) {
    require(json != nullptr, where, "no text");
    const std::string text(json);
    if (!validatesStrictly(text)) fail(where, "not valid JSON: " + text);
    const std::size_t i = text.find_first_not_of(" \t\r\n");
    require(i != std::string::npos && text[i] == '{', where, "not an object: " + text);
}

// An error report: one JSON object that names its error constant.
inline void requireValidReport(const char* report, const char* where) {
    requireJsonObject(report, where);
    require(std::strstr(report, "\"error_constant\":") != nullptr, where,
            std::string("report without error_constant: ") + report);
}

// The error constant of a report, read with cJSON ("" when absent).
inline std::string errorConstantOf(const char* report) {
    std::string constant;
    if (cJSON* root = cJSON_Parse(report)) {
        const cJSON* item = cJSON_GetObjectItemCaseSensitive(root, "error_constant");
        if (cJSON_IsString(item) && item->valuestring) constant = item->valuestring;
        cJSON_Delete(root);
    }
    return constant;
}

// Inside a catch handler: the export frame's translation of the exception in
// flight must give an error with a valid report.
inline void requireTranslatedReport(const char* where) {
    zterr_Status status = zterr::makeOwnedStatus();
    zterr::translateCurrentException(&status);
    require(status.code < 0, where, "the translation set no error");
    requireValidReport(status.json, where);
    zterr::releaseStatus(&status);
}

// Checks a caught library exception: a valid report, a code among `codes`.
inline void requireLibraryError(const zterr::Exception& e, std::initializer_list<std::int32_t> codes,
                                const char* where) {
    requireValidReport(e.what(), where);
    for (std::int32_t code : codes)
        if (e.code() == code) return;
    fail(where, "unexpected code " + std::to_string(e.code()) + ": " + e.what());
}

}  // namespace ztsdfuzz
