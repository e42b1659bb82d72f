// The JSON key getters and the remote API version check on arbitrary text.
//
// Input: one byte picks the operation, a short key follows (a known key or
// fuzz bytes up to a NUL), the rest is the JSON text.
//
// What may come out, and nothing else:
//  - a normal return: false leaves the output as it was; true with a value
//    writes a value of the asked type (an object getter's text is one JSON
//    object by the strict validator, an array getter's texts all are);
//  - zterr::Exception with its report valid JSON, of the documented codes:
//    -52005 "jsonErrorsInvalidJSON" (the text does not parse), -52004
//    "errCode" (the member has another type) or, for the array getter, -52004
//    "jsonErrorsNotAnObject" (an element is not an object); the version check
//    adds -52005 "ztapalerr_invalidParameter" (no "version") and -52002
//    "ztapalerr_featureUnsupported" (a version other than 0 or 1);
//  - the two numeric-cast failures of the 32-bit reads (documented to pass
//    through to the export frame), which the frame's translation must turn
//    into a valid report.
// The version check returns normally only when the text's "version" (first
// match, any letter case) is null or a number that truncates to 0 or 1.
#include <cjson/cJSON.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzzSupport.h"
#include "json/jsonChecks.h"
#include "json/jsonKeyGetters.h"

namespace {

using ztsdfuzz::fail;
using ztsdfuzz::require;

const char* const kKnownKeys[] = {"version", "uri", "isCoherent", "coherencyLossCount", "resources", "a", ""};

void checkError(const zterr::Exception& e, bool versionCheck, bool arrayGetter) {
    const std::string constant = ztsdfuzz::errorConstantOf(e.what());
    ztsdfuzz::requireLibraryError(e, {-52005, -52004, -52002}, "getter error");
    const bool documented =
        (e.code() == -52005 && (constant == "jsonErrorsInvalidJSON" || (versionCheck && constant == "ztapalerr_invalidParameter"))) ||
        (e.code() == -52004 && (constant == "errCode" || (arrayGetter && constant == "jsonErrorsNotAnObject"))) ||
        (e.code() == -52002 && versionCheck && constant == "ztapalerr_featureUnsupported");
    if (!documented) fail("undocumented error constant for its code", e.what());
}

// Whether the version check may pass this text: the first member named
// "version" (cJSON's case-insensitive lookup) is null or a number in (-1, 2).
bool versionAcceptable(const std::string& json) {
    cJSON* root = cJSON_Parse(json.c_str());
    const cJSON* v = root ? cJSON_GetObjectItem(root, "version") : nullptr;
    const bool ok = v && (cJSON_IsNull(v) || (cJSON_IsNumber(v) && v->valuedouble > -1.0 && v->valuedouble < 2.0));
    cJSON_Delete(root);
    return ok;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    const int operation = data[0] % 6;
    std::string key;
    std::size_t rest = 2;
    if (data[1] < 0x80) {
        key = kKnownKeys[data[1] % (sizeof kKnownKeys / sizeof kKnownKeys[0])];
    } else {  // fuzz bytes up to a NUL
        const void* nul = std::memchr(data + 2, 0, size - 2);
        const std::size_t end = nul ? static_cast<std::size_t>(static_cast<const std::uint8_t*>(nul) - data) : size;
        key.assign(reinterpret_cast<const char*>(data + 2), end - 2);
        rest = end < size ? end + 1 : size;
    }
    const std::string json(reinterpret_cast<const char*>(data + rest), size - rest);

    try {
        switch (operation) {
            case 0: {
                std::uint32_t value = 0xDEADBEEF;
                if (!ztsynctools::getUInt32FromJsonString(json, key, value))
                    require(value == 0xDEADBEEF, "absent key changed the output");
                break;
            }
            case 1: {
                std::string value = "untouched";
                if (!ztsynctools::getStringFromJsonString(json, key, value))
                    require(value == "untouched", "absent key changed the output");
                break;
            }
            case 2: {
                bool value = true;
                ztsynctools::getBoolFromJsonString(json, key, value);
                break;
            }
            case 3: {
                std::string value = "untouched";
                const bool present = ztsynctools::getObjectFromJsonString(json, key, value);
                if (!present) require(value == "untouched", "absent key changed the output");
                if (present && value != "untouched") ztsdfuzz::requireJsonObject(value.c_str(), "object getter output");
                break;
            }
            case 4: {
                std::vector<std::string> values{"untouched"};
                const bool present = ztsynctools::getObjectArrayFromJsonString(json, key, values);
                if (!present) require(values.size() == 1 && values[0] == "untouched", "absent key changed the output");
                if (present && !(values.size() == 1 && values[0] == "untouched"))
                    for (const std::string& v : values) ztsdfuzz::requireJsonObject(v.c_str(), "array getter element");
                break;
            }
            default:
                ztsdtools::checkRemoteApiVersion("/fuzz/uri", json, "missing version", "unsupported version");
                if (!versionAcceptable(json)) fail("version check passed an unacceptable version", json);
                break;
        }
    } catch (const zterr::Exception& e) {
        checkError(e, operation == 5, operation == 4);
    } catch (const ztsynctools::NegativeOverflow&) {
        require(operation == 0 || operation == 5, "negative overflow from a getter that reads no number");
        ztsdfuzz::requireTranslatedReport("negative overflow");
    } catch (const ztsynctools::PositiveOverflow&) {
        require(operation == 0 || operation == 5, "positive overflow from a getter that reads no number");
        ztsdfuzz::requireTranslatedReport("positive overflow");
    }
    return 0;
}
