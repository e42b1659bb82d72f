// The HTTP client's reply handling without a transfer: the status check and
// the envelope reader, on a status taken from the first two bytes and the
// rest as the body.
//
// What must hold:
//  - checkResponseStatus raises exactly for 202, 400..498 and 500..598, and
//    only zterr::Exception with a valid report;
//  - readReplyEnvelope lets only zterr::Exception out, with a valid report;
//    a body the strict validator refuses, or one it accepts but the reader
//    cannot read, is -411360 "kInvalidJSONResponseFromServer";
//  - it returns normally only for a body that the strict validator accepts,
//    and never when some "error" member of the body (any letter case, as the
//    reader looks members up) is an object whose "success" member (any
//    letter case) is false: a failure is never taken for a success, however
//    the body repeats or spells its members;
//  - what it returns is "" or one JSON value the strict validator accepts
//    (callers validate it again before reading it).
#include <cjson/cJSON.h>

#include <cctype>
#include <cstdint>
#include <string>

#include "fuzzSupport.h"
#include "remote/curlClient.h"

namespace {

using ztsdfuzz::fail;
using ztsdfuzz::require;

// cJSON's member lookup: ASCII letters compare without case.
bool sameName(const char* a, const char* b) {
    if (!a) return false;
    while (*a && std::tolower(static_cast<unsigned char>(*a)) == std::tolower(static_cast<unsigned char>(*b))) ++a, ++b;
    return std::tolower(static_cast<unsigned char>(*a)) == std::tolower(static_cast<unsigned char>(*b));
}

// The whole body, NUL bytes included, is one valid JSON text.
bool wholeBodyValid(const std::string& body) {
    return body.find('\0') == std::string::npos && ztsdfuzz::validatesStrictly(body);
}

// Whether any member named "error" of the root holds a "success" member that
// is false, looking at every duplicate.
bool someEnvelopeSaysFailure(const std::string& body) {
    cJSON* root = cJSON_Parse(body.c_str());
    bool failure = false;
    for (const cJSON* e = root ? root->child : nullptr; e && cJSON_IsObject(root); e = e->next) {
        if (!sameName(e->string, "error") || !cJSON_IsObject(e)) continue;
        for (const cJSON* m = e->child; m; m = m->next)
            if (sameName(m->string, "success") && cJSON_IsFalse(m)) failure = true;
    }
    cJSON_Delete(root);
    return failure;
}

void checkStatus(long code) {
    const bool raises = code == 202 || (code >= 400 && code <= 498) || (code >= 500 && code <= 598);
    try {
        zt::vela::shared::checkResponseStatus(code);
        require(!raises, "status went on to the body", std::to_string(code));
    } catch (const zterr::Exception& e) {
        require(raises, "status raised", std::to_string(code));
        ztsdfuzz::requireValidReport(e.what(), "status report");
        require((code == 202) == (e.code() > 0), "only 202 is a warning", e.what());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    checkStatus(static_cast<long>(data[0] | (data[1] << 8)) % 1000);
    const std::string body(reinterpret_cast<const char*>(data + 2), size - 2);
    try {
        const std::string result = zt::vela::shared::readReplyEnvelope(body);
        require(wholeBodyValid(body), "a body the validator refuses was read");
        if (someEnvelopeSaysFailure(body)) fail("an envelope that says success:false returned normally", body);
        if (!result.empty() && !ztsdfuzz::validatesStrictly(result)) fail("result text is not valid JSON", result);
    } catch (const zterr::Exception& e) {
        ztsdfuzz::requireValidReport(e.what(), "envelope report");
        if (!wholeBodyValid(body) && e.code() != -411360) fail("invalid body not -411360", e.what());
    }
    return 0;
}
