#include "errorSummary.h"

#include <cjson/cJSON.h>

#include <memory>

#include "jsonText.h"

namespace ztsdctl {

namespace {

std::string textOf(const cJSON* object, const char* key) {
    const cJSON* item = cJSON_GetObjectItemCaseSensitive(object, key);
    return cJSON_IsString(item) ? item->valuestring : "";
}

// "http://host:port/path" -> "host:port"
std::string hostPortOf(const std::string& url) {
    const std::size_t scheme = url.find("://");
    if (scheme == std::string::npos) return "";
    const std::size_t begin = scheme + 3;
    return url.substr(begin, url.find('/', begin) - begin);
}

}  // namespace

ErrorSummary summarize(const LibraryError& error) {
    ErrorSummary summary;
    summary.member = error.context();
    std::unique_ptr<cJSON, decltype(&cJSON_Delete)> report(cJSON_Parse(error.report().c_str()), cJSON_Delete);
    // Walk the chain of first nested errors; later (deeper) entries win for
    // the message, the first URL and status found are kept. The chain is
    // bounded by the report's own length.
    for (const cJSON* node = report.get(); cJSON_IsObject(node);) {
        const cJSON* debug = cJSON_GetObjectItemCaseSensitive(node, "ztsyncdomain_debug");
        std::string message = textOf(debug, "CURLOPT_ERRORBUFFER");
        if (message.empty()) message = textOf(node, "std_exception_what");
        if (message.empty()) message = textOf(debug, "message");
        if (!message.empty()) summary.message = message;
        if (summary.hostPort.empty()) summary.hostPort = hostPortOf(textOf(debug, "url"));
        const cJSON* status = cJSON_GetObjectItemCaseSensitive(debug, "responseCode");
        if (cJSON_IsNumber(status) && summary.httpStatus == 0) summary.httpStatus = status->valueint;
        if (summary.member.empty()) summary.member = textOf(node, "timescaleUri");
        node = cJSON_GetArrayItem(cJSON_GetObjectItemCaseSensitive(node, "nested_error"), 0);
    }
    if (summary.message.empty()) summary.message = error.constantName().empty() ? error.what() : error.constantName();
    return summary;
}

std::string summaryLine(const LibraryError& error) {
    const ErrorSummary summary = summarize(error);
    std::string line = "ztsdctl: ";
    if (!summary.member.empty()) line += summary.member + ": ";
    if (!summary.hostPort.empty() && summary.member.find(summary.hostPort) == std::string::npos)
        line += summary.hostPort + ": ";
    line += summary.message;
    if (summary.httpStatus != 0) line += " (HTTP " + std::to_string(summary.httpStatus) + ")";
    line += " [";
    if (!error.constantName().empty()) line += error.constantName() + " ";
    return line + std::to_string(error.code()) + "]";
}

std::string summaryJson(const LibraryError& error) {
    const ErrorSummary summary = summarize(error);
    JsonObject object;
    object.addInteger("code", error.code()).addString("constant", error.constantName());
    object.addString("message", summary.message).addString("member", summary.member);
    object.addString("hostPort", summary.hostPort).addInteger("httpStatus", summary.httpStatus);
    object.addRaw("report", error.report().empty() ? "null" : error.report());
    return JsonObject().addRaw("error", object.text()).text();
}

}  // namespace ztsdctl
