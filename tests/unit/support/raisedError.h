// Capturing the library's error exception in tests and reading its report.
#pragma once

#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "errors/exception.h"
#include "unit/support/statusFixture.h"

namespace ztsdtest {

// The library's own diagnostic object in its reports.
inline constexpr const char* kDebug = "ztsyncdomain_debug";

// What one raise left behind: its code and its parsed report.
struct Raised {
    bool raised = false;
    std::int32_t code = 0;
    std::string json;
    CJsonPtr doc;

    // A top-level member of the report, or null.
    const cJSON* member(const char* key) const {
        return doc ? cJSON_GetObjectItemCaseSensitive(doc.get(), key) : nullptr;
    }
    std::string text(const char* key) const { return textOf(member(key)); }
    // The top-level member names of the report, in order.
    std::vector<std::string> memberNames() const {
        std::vector<std::string> names;
        for (const cJSON* c = doc ? doc->child : nullptr; c; c = c->next) names.emplace_back(c->string);
        return names;
    }
    // The diagnostic object under debugKey, or null.
    const cJSON* debug(const char* debugKey) const { return member(debugKey); }
    // A string member of the diagnostic object ("" when absent or not a string).
    std::string detail(const char* debugKey, const char* key) const {
        const cJSON* d = debug(debugKey);
        return d ? textOf(cJSON_GetObjectItemCaseSensitive(d, key)) : std::string();
    }
    // A number member of the diagnostic object (NaN-free: -1e300 when absent).
    double number(const char* debugKey, const char* key) const {
        const cJSON* d = debug(debugKey);
        const cJSON* n = d ? cJSON_GetObjectItemCaseSensitive(d, key) : nullptr;
        return cJSON_IsNumber(n) ? n->valuedouble : -1e300;
    }
    double number(const char* key) const { return number(kDebug, key); }
    std::string message() const { return detail(kDebug, "message"); }
    // The member names of the diagnostic object, in order.
    std::vector<std::string> detailKeys(const char* debugKey) const {
        std::vector<std::string> keys;
        const cJSON* d = debug(debugKey);
        for (const cJSON* c = d ? d->child : nullptr; c; c = c->next) keys.emplace_back(c->string);
        return keys;
    }

    // The diagnostic object as one unformatted text, members in order ("" when absent).
    std::string debugText(const char* debugKey = kDebug) const {
        char* text = debug(debugKey) ? cJSON_PrintUnformatted(debug(debugKey)) : nullptr;
        const std::string result = text ? text : "";
        cJSON_free(text);
        return result;
    }

    static std::string textOf(const cJSON* node) {
        return cJSON_IsString(node) && node->valuestring ? node->valuestring : "";
    }
    // A report handed back by code and text (a status record, an exception).
    static Raised fromReport(std::int32_t code, const char* json) {
        const std::string text = json ? json : "";
        return Raised{true, code, text, parseJson(text)};
    }
};

// The site a report names; line < 0 leaves the line unchecked.
inline void expectSite(const Raised& r, int code, const char* constant, const char* file, int line = -1) {
    EXPECT_EQ(r.code, code) << r.json;
    EXPECT_EQ(r.text("error_constant"), constant);
    EXPECT_EQ(r.text("file"), file);
    if (line >= 0) {
        EXPECT_EQ(r.member("line") ? r.member("line")->valueint : -1, line);
    }
    EXPECT_EQ(r.text("component"), "ztsdlib");
}

// A text as the JSON string a parsed report prints it (up to a NUL, where cJSON stops).
inline std::string jsonString(const std::string& text) {
    cJSON* item = cJSON_CreateString(text.c_str());
    char* printed = cJSON_PrintUnformatted(item);
    const std::string result = printed;
    cJSON_free(printed);
    cJSON_Delete(item);
    return result;
}

// The code and the whole diagnostic object of a report, compared at once
// (which also pins the members' order and that there are no others).
inline void expectReport(const Raised& r, int code, const std::string& debugText, const char* debugKey = kDebug) {
    EXPECT_EQ(r.code, code) << r.json;
    EXPECT_EQ(r.debugText(debugKey), debugText) << r.json;
}

// The whole report but for where it was raised ("file" and "line", at every
// depth) and the members named `unpinned` (texts of other libraries that
// differ between systems), compared at once.
inline void expectWholeReport(const Raised& r, int code, const std::string& json,
                              std::vector<const char*> unpinned = {}) {
    unpinned.insert(unpinned.end(), {"file", "line"});
    EXPECT_EQ(r.code, code) << r.json;
    CJsonPtr copy = parseJson(r.json);
    std::vector<cJSON*> objects{copy.get()};
    while (!objects.empty()) {
        cJSON* object = objects.back();
        objects.pop_back();
        for (const char* key : unpinned) cJSON_DeleteItemFromObjectCaseSensitive(object, key);
        for (cJSON* c = object ? object->child : nullptr; c; c = c->next) objects.push_back(c);
    }
    char* text = copy ? cJSON_PrintUnformatted(copy.get()) : nullptr;
    EXPECT_EQ(text ? std::string(text) : std::string(), json) << r.json;
    cJSON_free(text);
}

// Runs f and captures the zterr::Exception it throws; a report that is not
// strictly valid JSON, or no exception at all, fails the test.
template <typename F>
Raised captureRaise(F&& f) {
    Raised r;
    try {
        f();
    } catch (const zterr::Exception& e) {
        r.raised = true;
        r.code = e.code();
        r.json = e.what();
        r.doc = parseJson(r.json);
        EXPECT_TRUE(strictlyValid(r.json.c_str())) << r.json;
        EXPECT_NE(r.doc, nullptr) << r.json;
        return r;
    }
    ADD_FAILURE() << "no zterr::Exception was raised";
    return r;
}

}  // namespace ztsdtest
