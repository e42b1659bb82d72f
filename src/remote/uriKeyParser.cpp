#include "remote/uriKeyParser.h"

#include <cstdint>

#include "errors/exception.h"

namespace ztsdtools {

namespace {

constexpr const char* kFile = "source\\ztsdtools\\uriKeyParser";

[[noreturn]] void refuse(int line, const char* message, const std::string& uri, std::size_t keyCount) {
    zterr::raise(ZTERR_SITE_AT(kFile, line, zterr::name::ztapalerr_invalidParameter),
                 zterr::code::ztapalerr_invalidParameter, "ztsyncdomain_debug",
                 {{"message", message}, {"uri", uri}, {"uriKeys.size()", static_cast<std::uint64_t>(keyCount)}});
}

}  // namespace

void parseUriKeys(const std::string& uri, const std::vector<std::string>& keys,
                  std::unordered_map<std::string, std::string>& parts) {
    if (uri.empty() || keys.empty())
        refuse(__LINE__, "Failed to parse URI; URI is empty or was not provided URI keys.", uri, keys.size());

    const std::size_t begin = uri[0] == '/' ? 1 : 0;

    // Split first, so a malformed URI inserts nothing.
    std::vector<std::string> pieces;
    if (begin < uri.size()) {
        std::size_t start = begin;
        for (;;) {
            const std::size_t slash = uri.find('/', start);
            if (slash == std::string::npos) {
                pieces.emplace_back(uri, start);
                break;
            }
            if (slash == start)
                refuse(__LINE__, "Failed to parse URI; encountered contiguous delimiters.", uri, keys.size());
            pieces.emplace_back(uri, start, slash - start);
            start = slash + 1;
        }
    }

    std::size_t i = 0;
    for (; i < pieces.size() && i < keys.size(); ++i) parts.emplace(keys[i], pieces[i]);
    if (i < pieces.size()) refuse(__LINE__, "Failed to parse URI; more URI parts than keys.", uri, keys.size());
    if (i < keys.size()) refuse(__LINE__, "Failed to parse URI; more keys than URI parts.", uri, keys.size());
}

}  // namespace ztsdtools
