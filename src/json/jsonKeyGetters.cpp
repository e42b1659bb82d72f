#include "json/jsonKeyGetters.h"

#include <cmath>

#include "errors/exception.h"
#include "json/arrayIterator.h"
#include "json/cjsonUtils.h"
#include "json/cppJson.h"

namespace ztsynctools {

namespace {

// Runs read(item) with the getter's type-mismatch rule: any library error
// with code -52004 becomes the getter's own -52004 report.
template <typename Read>
void readTyped(const std::string& json, const std::string& key, const cJSON* item, Read&& read) {
    try {
        read(item);
    } catch (const zterr::Exception& e) {
        if (e.code() != zterr::code::errCode) throw;
        zterr::raise(ZTERR_SITE_AT("ztsynctools_cjson/jsonHelperFunctions", 50, zterr::name::errCode),
                     zterr::code::errCode, "ztsync_debug",
                     {{"message", "Error parsing: expected data type does not match the parsed value."},
                      {"key", key},
                      {"JSON", json}});
    }
}

// Looks up in a parsed root, and hands a present, non-null member to read.
template <typename Read>
bool readMember(const std::string& json, const cJSON* root, const std::string& key, Read&& read) {
    const cJSON* item = cJSON_GetObjectItem(root, key.c_str());
    if (!item) return false;
    if (cJSON_IsNull(item)) return true;
    readTyped(json, key, item, read);
    return true;
}

void readUInt32(const cJSON* item, std::uint32_t& value) {
    ztjsonlh::checkIsNumber(item);
    const double d = item->valuedouble;
    if (d <= -1.0) throw NegativeOverflow();
    if (d >= 4294967296.0) throw PositiveOverflow();
    value = static_cast<std::uint32_t>(d < 0.0 ? std::ceil(d) : std::floor(d));
}

void readBool(const cJSON* item, bool& value) {
    ztjsonlh::checkIsBool(item);
    value = cJSON_IsTrue(item) != 0;
}

// Parses, looks up, and hands a present, non-null member to read.
template <typename Read>
bool getMember(const std::string& json, const std::string& key, Read&& read) {
    ztjsonlh::CppJson document = ztjsonlh::parse(json);
    return readMember(json, document.get(), key, read);
}

}  // namespace

ParsedJson::ParsedJson(const std::string& json) : json_(json), root_(ztjsonlh::parse(json).release()) {}

ParsedJson::~ParsedJson() { cJSON_Delete(static_cast<cJSON*>(root_)); }

bool ParsedJson::getUInt32(const std::string& key, std::uint32_t& value) const {
    return readMember(json_, static_cast<const cJSON*>(root_), key, [&](const cJSON* item) { readUInt32(item, value); });
}

bool ParsedJson::getString(const std::string& key, std::string& value) const {
    return readMember(json_, static_cast<const cJSON*>(root_), key,
                      [&](const cJSON* item) { value = ztjsonlh::getString(item); });
}

bool ParsedJson::getBool(const std::string& key, bool& value) const {
    return readMember(json_, static_cast<const cJSON*>(root_), key, [&](const cJSON* item) { readBool(item, value); });
}

bool getUInt32FromJsonString(const std::string& json, const std::string& key, std::uint32_t& value) {
    return getMember(json, key, [&](const cJSON* item) { readUInt32(item, value); });
}

bool getStringFromJsonString(const std::string& json, const std::string& key, std::string& value) {
    return getMember(json, key, [&](const cJSON* item) { value = ztjsonlh::getString(item); });
}

bool getBoolFromJsonString(const std::string& json, const std::string& key, bool& value) {
    return getMember(json, key, [&](const cJSON* item) { readBool(item, value); });
}

bool getObjectFromJsonString(const std::string& json, const std::string& key, std::string& value) {
    return getMember(json, key, [&](const cJSON* item) {
        ztjsonlh::checkIsObject(item);
        value = ztjsonlh::printUnformatted(item);
    });
}

bool getObjectArrayFromJsonString(const std::string& json, const std::string& key,
                                  std::vector<std::string>& values) {
    ztjsonlh::CppJson document = ztjsonlh::parse(json);
    const cJSON* item = cJSON_GetObjectItem(document.get(), key.c_str());
    if (!item) return false;
    if (cJSON_IsNull(item)) return true;
    readTyped(json, key, item, [](const cJSON* node) { ztjsonlh::checkIsArray(node); });
    std::vector<std::string> collected;
    for (const cJSON* element : ztjsonlh::elementsOf(item)) {
        ztjsonlh::checkIsObject(element);
        collected.push_back(ztjsonlh::printUnformatted(element));
    }
    values.swap(collected);
    return true;
}

}  // namespace ztsynctools
