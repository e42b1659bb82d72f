#include "json/jsonChecks.h"

#include <cstdint>

#include "errors/exception.h"
#include "json/jsonKeyGetters.h"
#include "json/jsonz.h"

namespace ztsdtools {

namespace {
constexpr std::uint32_t kMaxSupportedVersion = 1;
}

void validateJsonString(const std::string& json, const std::string& message, const std::string& source) {
    const char* text = json.c_str();
    const char* end = text + json.size();
    ztsdlib::jsonz::Result result = ztsdlib::jsonz::validate(text);
    // The validator stops at the first NUL; one before the string's end means
    // the text goes on past its JSON value.
    if (result.error == ztsdlib::jsonz::errorNone && result.position != end)
        result.error = ztsdlib::jsonz::errorTrailingChar;
    if (result.error == ztsdlib::jsonz::errorNone) return;

    const char* position = result.position && result.position >= text && result.position <= end ? result.position : end;
    zterr::raise(ZTERR_SITE_AT("ztsdtools_json\\jsonHelperFunctions", 38, zterr::name::ztapalerr_invalidParameter),
                 zterr::code::ztapalerr_invalidParameter, "ztsyncdomain_debug",
                 {{"message", message},
                  {"jsonzError", ztsdlib::jsonz::errorName(result.error)},
                  {"position", std::string(position, end)},
                  {"jsonString", json},
                  {"source", source}});
}

void throwMissingJsonKey(const std::string& uri, const std::string& key, const std::string& message) {
    zterr::raise(ZTERR_SITE_AT("ztsdtools_json/jsonHelperFunctions", 27, zterr::name::ztapalerr_invalidParameter),
                 zterr::code::ztapalerr_invalidParameter, "ztsyncdomain_debug",
                 {{"message", message}, {"JsonKey", key}, {"uri", uri}});
}

void checkRemoteApiVersion(const std::string& uri, const std::string& json, const std::string& missingMessage,
                           const std::string& mismatchMessage) {
    checkRemoteApiVersion(uri, ztsynctools::ParsedJson(json), missingMessage, mismatchMessage);
}

void checkRemoteApiVersion(const std::string& uri, const ztsynctools::ParsedJson& json,
                           const std::string& missingMessage, const std::string& mismatchMessage) {
    std::uint32_t version = 0;
    if (!json.getUInt32("version", version)) throwMissingJsonKey(uri, "version", missingMessage);
    if (version == 0 || version == 1) return;
    zterr::raise(ZTERR_SITE_AT("ztsdtools_json\\jsonHelperFunctions", 58, zterr::name::ztapalerr_featureUnsupported),
                 zterr::code::ztapalerr_featureUnsupported, "ztsyncdomain_debug",
                 {{"message", mismatchMessage},
                  {"remoteVersion", version},
                  {"maxSupportedVersion", kMaxSupportedVersion},
                  {"uri", uri}});
}

}  // namespace ztsdtools
