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

// Parses, looks up, and hands a present, non-null member to read.
template <typename Read>
bool getMember(const std::string& json, const std::string& key, Read&& read) {
    ztjsonlh::CppJson document = ztjsonlh::parse(json);
    const cJSON* item = cJSON_GetObjectItem(document.get(), key.c_str());
    if (!item) return false;
    if (cJSON_IsNull(item)) return true;
    readTyped(json, key, item, read);
    return true;
}

}  // namespace

bool getUInt32FromJsonString(const std::string& json, const std::string& key, std::uint32_t& value) {
    return getMember(json, key, [&](const cJSON* item) {
        ztjsonlh::checkIsNumber(item);
        const double d = item->valuedouble;
        if (d <= -1.0) throw NegativeOverflow();
        if (d >= 4294967296.0) throw PositiveOverflow();
        value = static_cast<std::uint32_t>(d < 0.0 ? std::ceil(d) : std::floor(d));
    });
}

bool getStringFromJsonString(const std::string& json, const std::string& key, std::string& value) {
    return getMember(json, key, [&](const cJSON* item) { value = ztjsonlh::getString(item); });
}

bool getBoolFromJsonString(const std::string& json, const std::string& key, bool& value) {
    return getMember(json, key, [&](const cJSON* item) {
        ztjsonlh::checkIsBool(item);
        value = cJSON_IsTrue(item) != 0;
    });
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
