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
    return CppJson(root);
}

}  // namespace ztjsonlh
