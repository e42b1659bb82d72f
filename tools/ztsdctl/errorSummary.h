// A library error as a person reads it: one line with the innermost message
// of the report's chain of nested errors, where it happened (the member or
// chassis the command was working on, host:port of the failed request), the
// HTTP status when there was one, and the library's constant and code.
#pragma once

#include <string>
#include <vector>

#include "libraryCalls.h"

namespace ztsdctl {

struct ErrorSummary {
    std::string message;    // the innermost message ("Server answered 404 Not Found.")
    std::string hostPort;   // of the failed request, "" when the report names none
    int httpStatus = 0;     // 0 when there was no HTTP answer
    std::string member;     // what the command was working on (LibraryError::context)
};

// The daemon the command named (LibraryError::daemon) stands for host:port
// when the report names no request URL.
ErrorSummary summarize(const LibraryError& error);

// The first request URL a report names ("" when none).
std::string failedUrl(const std::string& report);
// The URI among uris ("/<remoteHost>/<path>") served at url
// ("http://<remoteHost>/<path>"); "" when none is.
std::string memberOfUrl(const std::string& url, const std::vector<std::string>& uris);

// "ztsdctl: <member>: <host:port>: <message> (HTTP <n>) [<constant> <code>]"
std::string summaryLine(const LibraryError& error);

// {"error":{"code":..,"constant":..,"message":..,"member":..,"hostPort":..,"httpStatus":..,"report":{..}}}
std::string summaryJson(const LibraryError& error);

}  // namespace ztsdctl
