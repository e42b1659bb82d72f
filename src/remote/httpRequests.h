// GET and PUT of a chassis resource through an HTTP client, with the
// client's failures turned into the library's codes.
//
// The address is joinAddress(prefix, uri) (curlClient.h). The client's
// errors are translated, with the calling function's name
// ("ztsdtools::sendGetRequest" / "ztsdtools::sendPutRequest") in "callingFn":
//   -411352, -411353 (empty uri or prefix)  -> -52005 "ztapalerr_invalidParameter",
//        details "message" = "Encountered invalid URI.", "callingFn", "url", "data", "originalCode";
//   +411369 (202 in progress) and every other code from -411371 to -411350
//        -> -52024 "ztapalerr_communicationsFault", details "callingFn", "url", "data", "originalCode";
//   any other code (the server's own envelope codes, JSON codes) passes unchanged.
// "data" is the request body ("" for a GET). The client's own report is kept
// as the first element of "nested_error", so the HTTP status, the libcurl
// error text and the like stay visible.
#pragma once

#include <string>

#include "remote/curlClient.h"

namespace ztsdtools {

void sendGetRequest(zt::vela::shared::iCURL& client, const std::string& prefix, const std::string& uri,
                    std::string& result);

void sendPutRequest(zt::vela::shared::iCURL& client, const std::string& prefix, const std::string& uri,
                    const std::string& body, std::string& result);

}  // namespace ztsdtools
