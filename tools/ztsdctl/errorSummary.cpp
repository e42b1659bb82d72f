#include "errorSummary.h"

#include <cjson/cJSON.h>

#include <memory>
#include <vector>

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

// Whether text holds hostPort whole ("127.0.0.1:4" is not in
// "/127.0.0.1:45523/...").
bool namesHostPort(const std::string& text, const std::string& hostPort) {
    for (std::size_t at = text.find(hostPort); at != std::string::npos; at = text.find(hostPort, at + 1)) {
        const std::size_t end = at + hostPort.size();
        const bool whole = (at == 0 || text[at - 1] == '/' || text[at - 1] == ' ') &&
                           (end == text.size() || text[end] == '/' || text[end] == '@');
        if (whole) return true;
    }
    return false;
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
    // A request that reached no web service: the daemon the command named.
    if (summary.hostPort.empty()) summary.hostPort = error.daemon();
    if (summary.message.empty()) summary.message = error.constantName().empty() ? error.what() : error.constantName();
    return summary;
}

std::string failedUrl(const std::string& report) {
    std::unique_ptr<cJSON, decltype(&cJSON_Delete)> root(cJSON_Parse(report.c_str()), cJSON_Delete);
    for (const cJSON* node = root.get(); cJSON_IsObject(node);
         node = cJSON_GetArrayItem(cJSON_GetObjectItemCaseSensitive(node, "nested_error"), 0)) {
        const std::string url = textOf(cJSON_GetObjectItemCaseSensitive(node, "ztsyncdomain_debug"), "url");
        if (!url.empty()) return url;
    }
    return "";
}

std::string memberOfUrl(const std::string& url, const std::vector<std::string>& uris) {
    // A device URI is "/<remoteHost>/<path>", served at http://<remoteHost>/<path>.
    const std::size_t scheme = url.find("://");
    if (scheme == std::string::npos) return "";
    const std::string asUri = "/" + url.substr(scheme + 3);
    for (const std::string& uri : uris) {
        if (uri == asUri) return uri;
    }
    return "";
}

std::string summaryLine(const LibraryError& error) {
    const ErrorSummary summary = summarize(error);
    std::string line = "ztsdctl: ";
    if (!summary.member.empty()) line += summary.member + ": ";
    if (!summary.hostPort.empty() && !namesHostPort(summary.member, summary.hostPort))
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
