#include "errors/status.h"

#include <cstdlib>
#include <cstring>

#include "errors/jsonWriter.h"

namespace zterr {
namespace {

constexpr std::uint32_t kMaxText = 0x7FFFFFFDu;

// Makes the text "{}", asking for 4 bytes when the buffer is smaller.
bool resetToEmptyObject(zterr_Status* status) noexcept {
    return placeText(status, "{}");
}

}  // namespace

bool takesCode(std::int32_t current, std::int32_t next) noexcept {
    if (current == 0) return next != 0;
    if (current > 0) return next < 0;
    return false;
}

bool placeText(zterr_Status* status, const char* text) noexcept {
    if (!status || !text) return false;
    const std::size_t length = std::strlen(text);
    if (length > kMaxText) return false;
    const std::uint32_t needed = length + 2 < 4 ? 4u : static_cast<std::uint32_t>(length + 2);
    if (!status->json || status->capacity < needed) {
        const bool hadText = status->json != nullptr;
        if (!status->reallocate || !status->reallocate(status, needed)) return false;
        if (!status->json || status->capacity < needed) return false;
        if (!hadText) status->json[0] = '\0';
    }
    std::memcpy(status->json, text, length + 1);
    restoreSentinel(status);
    return true;
}

bool setError(zterr_Status* status, std::int32_t code, const zterr_ErrorSite& site) noexcept {
    if (!status || !takesCode(status->code, code)) return false;
    status->code = code;
    if (!resetToEmptyObject(status)) {
        // No room for a report: the code stands alone. A text left from an
        // earlier warning would describe the wrong code, so drop it.
        if (status->json && status->capacity) status->json[0] = '\0';
        return true;
    }
    zterr_JsonCursor cursor = beginAppend(status);
    char* p = appendString(cursor.position, "error_constant", site.errorConstant, &cursor);
    p = appendString(p, "file", site.file, &cursor);
    p = appendLine(p, site.line, &cursor);
    if (site.component) appendString(p, "component", site.component, &cursor);
    return true;
}

bool mergeStatus(zterr_Status* destination, zterr_Status* source) noexcept {
    if (!destination || !source || destination == source) return false;
    if (!takesCode(destination->code, source->code)) return false;
    destination->code = source->code;
    if (!resetToEmptyObject(destination) && destination->json && destination->capacity)
        destination->json[0] = '\0';

    if (destination->reallocate && destination->reallocate == source->reallocate && source->json) {
        destination->reallocate(destination, 0);
        destination->json = source->json;
        destination->capacity = source->capacity;
        source->json = nullptr;
        source->capacity = 0;
        return true;
    }
    placeText(destination, source->json ? source->json : "{}");
    return true;
}

bool attachNestedError(zterr_Status* outer, const zterr_Status* inner) noexcept {
    if (!outer || !inner) return false;
    zterr_Status copy = makeOwnedStatus();
    if (!placeText(&copy, inner->json && inner->json[0] ? inner->json : "{}")) return false;
    if (!findTopLevelMember(copy.json, "code")) {
        zterr_JsonCursor c = beginAppend(&copy);
        appendInt32(c.position, "code", inner->code, &c);
    }

    bool attached = false;
    zterr_JsonCursor cursor = beginAppend(outer);
    if (cursor.position) {
        const char* array = findTopLevelMember(outer->json, "nested_error");
        if (array && *array == '[') {
            char* close = const_cast<char*>(findMatchingClose(array));
            attached = close && appendRaw(close, nullptr, copy.json, &cursor) != nullptr;
        } else {
            char* p = appendEmptyArray(cursor.position, "nested_error", &cursor);
            attached = p && appendRaw(p - 1, nullptr, copy.json, &cursor) != nullptr;
        }
    }
    releaseStatus(&copy);
    return attached;
}

bool defaultReallocate(zterr_Status* status, std::uint32_t newCapacity) noexcept {
    if (!status) return false;
    if (newCapacity == 0) {
        std::free(status->json);
        status->json = nullptr;
        status->capacity = 0;
        return true;
    }
    if (status->json && newCapacity <= status->capacity) return true;
    if (newCapacity > 0x7FFFFFFFu) return false;
    std::uint32_t size = 512;
    while (size < newCapacity) size <<= 1;

    char* buffer = static_cast<char*>(std::malloc(size));
    if (!buffer) return false;
    const char* old = status->json ? status->json : "{}";
    std::size_t length = strnlen(old, status->json ? status->capacity : 3);
    if (length > size - 2) length = size - 2;
    std::memcpy(buffer, old, length);
    std::memset(buffer + length, 0, size - length - 1);
    buffer[size - 1] = 'J';
    std::free(status->json);
    status->json = buffer;
    status->capacity = size;
    return true;
}

void releaseStatus(zterr_Status* status) noexcept {
    if (!status || !status->json) return;
    if (status->reallocate) status->reallocate(status, 0);
}

}  // namespace zterr
