#include "json/cppJson.h"

#include <cstdint>
#include <cstring>

#include "errors/exception.h"

namespace ztjsonlh {

CppJson& CppJson::operator=(CppJson&& other) noexcept {
    if (this != &other) {
        reset();
        root_ = other.root_;
        other.root_ = nullptr;
    }
    return *this;
}

void CppJson::reset() noexcept {
    if (root_) {
        cJSON_Delete(root_);
        root_ = nullptr;
    }
}

cJSON* CppJson::release() noexcept {
    cJSON* root = root_;
    root_ = nullptr;
    return root;
}

const char* findEscapedNul(const char* text) noexcept {
    if (!text) return nullptr;
    for (const char* p = std::strstr(text, "\\u0000"); p; p = std::strstr(p + 1, "\\u0000")) {
        std::size_t backslashesBefore = 0;
        while (p - backslashesBefore > text && *(p - backslashesBefore - 1) == '\\') ++backslashesBefore;
        if (backslashesBefore % 2 == 0) return p;
    }
    return nullptr;
}

CppJson parse(const char* text) {
    static constexpr const char* kFile = "ztjsonlh\\CppJson";
    if (!text) {
        zterr::raise(ZTERR_SITE_AT(kFile, 34, zterr::name::jsonErrorsInvalidJSON), zterr::code::jsonErrorsInvalidJSON,
                     "ztsync_debug", {{"message", "No JSON text was given."}});
    }
    const std::size_t length = std::strlen(text);
    const char* end = nullptr;
    cJSON* root = cJSON_ParseWithLengthOpts(text, length + 1, &end, false);
    if (!root) {
        const std::uint64_t offset = end && end >= text ? static_cast<std::uint64_t>(end - text) : 0;
        zterr::raise(ZTERR_SITE_AT(kFile, 34, zterr::name::jsonErrorsInvalidJSON), zterr::code::jsonErrorsInvalidJSON,
                     "ztsync_debug", {{"message", "Unable to parse JSON text."}, {"offset", offset}});
    }
    CppJson document(root);
    if (const char* nul = findEscapedNul(text)) {
        zterr::raise(ZTERR_SITE_AT(kFile, 34, zterr::name::jsonErrorsInvalidJSON), zterr::code::jsonErrorsInvalidJSON,
                     "ztsync_debug",
                     {{"message", "JSON text holds a string with an escaped NUL (\\u0000), which a C string cannot "
                                  "hold."},
                      {"offset", static_cast<std::uint64_t>(nul - text)}});
    }
    return document;
}

}  // namespace ztjsonlh
