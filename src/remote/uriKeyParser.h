// Splits a resource URI into named parts.
//
//   parseUriKeys("/127.0.0.1:41234/ztsdwebs/resources/ztsd/syncableDevices/chassis0",
//                {"remoteHost", "webService", "resource", "plugin", "type", "name"}, parts);
//   // parts["remoteHost"] == "127.0.0.1:41234", ..., parts["name"] == "chassis0"
//
// Rules:
//  - One leading "/" is skipped before splitting, so "/a/b" and "a/b" give the
//    same parts. Only one: "//a" is two delimiters in a row.
//  - The rest is split at every "/": n delimiters give n + 1 parts. Two
//    delimiters in a row are refused. A trailing "/" gives an empty last part
//    (it is counted like any other part).
//  - Parts and keys are paired in order and inserted into `parts`; a key that
//    is already in the map keeps its old value (insert, not assign). Leftover
//    parts or leftover keys are refused.
// Every refusal raises -52005 "ztapalerr_invalidParameter" with the details
// "message", "uri" and "uriKeys.size()". Pairs inserted before a refusal for
// leftover parts or keys stay in the map; nothing is inserted when the URI is
// empty, has no keys, or has contiguous delimiters.
#pragma once

#include <string>
#include <unordered_map>
#include <vector>

namespace ztsdtools {

void parseUriKeys(const std::string& uri, const std::vector<std::string>& keys,
                  std::unordered_map<std::string, std::string>& parts);

}  // namespace ztsdtools
