#include "libraryCalls.h"

#include <iostream>

namespace ztsdctl {

LibraryError::LibraryError(std::int32_t code, std::string report)
    : std::runtime_error("library error " + std::to_string(code)), code_(code), report_(std::move(report)) {}

std::string LibraryError::constantName() const {
    // The report is the library's own JSON object; its constant is a plain
    // identifier, so a text search finds it without a parser.
    static const std::string key = "\"error_constant\":\"";
    const std::size_t start = report_.find(key);
    if (start == std::string::npos) return "";
    const std::size_t begin = start + key.size();
    const std::size_t end = report_.find('"', begin);
    return end == std::string::npos ? "" : report_.substr(begin, end - begin);
}

void Status::check(const char* what) const {
    if (record_.code < 0) throw LibraryError(record_.code, report());
    if (record_.code > 0) {
        std::cerr << "ztsdctl: warning " << record_.code << " from " << what;
        if (record_.json != nullptr) std::cerr << ": " << record_.json;
        std::cerr << "\n";
    }
}

std::string hostPortText(const std::string& host, std::uint32_t port) {
    const bool v6 = host.find(':') != std::string::npos && host[0] != '[';
    return (v6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

std::string takeText(char* text) {
    if (text == nullptr) return "";
    std::string copy(text);
    std::free(text);
    return copy;
}

}  // namespace ztsdctl
