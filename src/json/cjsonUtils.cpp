#include "json/cjsonUtils.h"

#include "errors/exception.h"

namespace ztjsonlh {

namespace {

constexpr const char* kFile = "ztjsonlh\\cJSONUtils";
constexpr const char* kHeaderFile = "ztjsonlh/cJSONUtils";

[[noreturn]] void typeMismatch(const cJSON* node, const char* expected) {
    zterr::raise(ZTERR_SITE_AT(kHeaderFile, 305, zterr::name::jsonErrorsTypeMismatch),
                 zterr::code::jsonErrorsTypeMismatch, "ztsync_debug",
                 {{"message", "JSON value is not of the expected type."},
                  {"expectedType", expected},
                  {"type", typeName(node)}});
}

}  // namespace

const char* typeName(const cJSON* node) noexcept {
    if (!node) return "none";
    switch (node->type & 0xFF) {
        case cJSON_False: return "false";
        case cJSON_True: return "true";
        case cJSON_NULL: return "null";
        case cJSON_Number: return "number";
        case cJSON_String: return "string";
        case cJSON_Array: return "array";
        case cJSON_Object: return "object";
        case cJSON_Raw: return "raw";
        default: return "none";
    }
}

void checkIsObject(const cJSON* node) {
    if (cJSON_IsObject(node)) return;
    zterr::raise(ZTERR_SITE_AT(kFile, 78, zterr::name::jsonErrorsNotAnObject), zterr::code::jsonErrorsNotAnObject,
                 "ztsync_debug", {{"message", "JSON value is not an object."}, {"type", typeName(node)}});
}

void checkIsArray(const cJSON* node) {
    if (cJSON_IsArray(node)) return;
    zterr::raise(ZTERR_SITE_AT(kFile, 83, zterr::name::jsonErrorsNotAnArray), zterr::code::jsonErrorsNotAnArray,
                 "ztsync_debug", {{"message", "JSON value is not an array."}, {"type", typeName(node)}});
}

void checkIsString(const cJSON* node) {
    if (!cJSON_IsString(node)) typeMismatch(node, "string");
}

void checkIsBool(const cJSON* node) {
    if (!cJSON_IsBool(node)) typeMismatch(node, "bool");
}

void checkIsNumber(const cJSON* node) {
    if (!cJSON_IsNumber(node)) typeMismatch(node, "number");
}

cJSON* getObjectItem(const cJSON* object, const std::string& key) {
    checkIsObject(object);
    cJSON* item = cJSON_GetObjectItem(object, key.c_str());
    if (!item) {
        zterr::raise(ZTERR_SITE_AT(kFile, 92, zterr::name::jsonErrorsObjectItemNotFound),
                     zterr::code::jsonErrorsObjectItemNotFound, "ztsync_debug",
                     {{"message", "JSON object has no member of that name."}, {"key", key}});
    }
    return item;
}

std::string getString(const cJSON* node) {
    checkIsString(node);
    return node->valuestring ? std::string(node->valuestring) : std::string();
}

std::string printUnformatted(const cJSON* node) {
    char* printed = cJSON_PrintBuffered(node, 256, false);
    if (!printed) throw BadAllocation();
    struct Free {
        char* p;
        ~Free() { cJSON_free(p); }
    } release{printed};
    return std::string(printed);
}

cJSON* createArray() {
    cJSON* array = cJSON_CreateArray();
    if (!array) throw BadAllocation();
    return array;
}

}  // namespace ztjsonlh
