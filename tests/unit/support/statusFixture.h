// Helpers shared by tests that inspect status records.
#pragma once

#include <cjson/cJSON.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "errors/status.h"
#include "json/jsonz.h"

namespace ztsdtest {

// A status record that frees itself; uses the library's default callback.
// The text an export handed over (freed here); "(null)" when it gave none.
inline std::string takeText(char* text) {
    if (!text) return "(null)";
    std::string copy(text);
    std::free(text);
    return copy;
}

struct OwnedStatus {
    zterr_Status s = zterr::makeOwnedStatus();
    OwnedStatus() = default;
    OwnedStatus(const OwnedStatus&) = delete;
    OwnedStatus& operator=(const OwnedStatus&) = delete;
    ~OwnedStatus() { zterr::releaseStatus(&s); }
    zterr_Status* operator&() { return &s; }
    std::string text() const { return s.json ? s.json : ""; }
};

struct CJsonDeleter {
    void operator()(cJSON* p) const { cJSON_Delete(p); }
};
using CJsonPtr = std::unique_ptr<cJSON, CJsonDeleter>;

// Parses with an independent parser; null when the text is not JSON.
inline CJsonPtr parseJson(const std::string& text) { return CJsonPtr(cJSON_Parse(text.c_str())); }

inline bool strictlyValid(const char* text) {
    return text && ztsdlib::jsonz::validate(text).error == ztsdlib::jsonz::errorNone;
}

// True when the bytes behind the text's NUL are zero up to a final 'J'.
inline bool hasSentinelLayout(const zterr_Status& s) {
    if (!s.json || s.capacity == 0) return false;
    const std::size_t len = strnlen(s.json, s.capacity);
    if (len + 1 >= s.capacity) return false;
    for (std::size_t i = len + 1; i + 1 < s.capacity; ++i)
        if (s.json[i] != 0) return false;
    return s.json[s.capacity - 1] == 'J';
}

// A caller-style callback that allocates exactly what is asked for and
// records every request; can be told to refuse from some request on.
struct RecordingAllocator {
    static inline std::vector<std::uint32_t> requests;
    static inline int refuseAfter = -1;  // number of requests granted before refusing; -1 never
    static void reset() {
        requests.clear();
        refuseAfter = -1;
    }
    static bool reallocate(zterr_Status* s, std::uint32_t n) {
        if (n == 0) {
            std::free(s->json);
            s->json = nullptr;
            s->capacity = 0;
            return true;
        }
        requests.push_back(n);
        if (refuseAfter >= 0 && static_cast<int>(requests.size()) > refuseAfter) return false;
        char* p = static_cast<char*>(std::realloc(s->json, n));
        if (!p) return false;
        s->json = p;
        s->capacity = n;
        return true;
    }
};

inline bool refuseAll(zterr_Status*, std::uint32_t) { return false; }

}  // namespace ztsdtest
