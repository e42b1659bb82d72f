#include "remote/httpRequests.h"

#include <cstdint>
#include <utility>

#include "errors/exception.h"
#include "errors/status.h"

namespace ztsdtools {

namespace {

constexpr const char* kFile = "source\\ztsdtools\\httpRequests";

void send(const char* callingFn, zt::vela::shared::iCURL& client, const std::string& prefix, const std::string& uri,
          bool upload, const std::string& body, std::string& result) {
    client.setAddress(prefix, uri);
    try {
        client.request(upload, body, result);
        return;
    } catch (zterr::Exception& e) {
        const std::int32_t original = e.code();
        const std::string url = zt::vela::shared::joinAddress(prefix, uri);
        zterr_Status translated;
        if (original == zterr::code::kInvalidEndStationURI || original == zterr::code::kInvalidURIPrefix) {
            translated = zterr::makeReport(
                ZTERR_SITE(kFile, zterr::name::ztapalerr_invalidParameter), zterr::code::ztapalerr_invalidParameter,
                "ztsyncdomain_debug",
                {{"message", "Encountered invalid URI."}, {"callingFn", callingFn}, {"url", url}, {"data", body},
                 {"originalCode", original}});
        } else if (original == zterr::code::kNetworkClientInProgress || (original >= -411371 && original <= -411350)) {
            translated = zterr::makeReport(
                ZTERR_SITE(kFile, zterr::name::ztapalerr_communicationsFault),
                zterr::code::ztapalerr_communicationsFault, "ztsyncdomain_debug",
                {{"callingFn", callingFn}, {"url", url}, {"data", body}, {"originalCode", original}});
        } else {
            throw;
        }
        zterr::attachNestedError(&translated, &e.status());
        throw zterr::Exception(std::move(translated));
    }
}

}  // namespace

void sendGetRequest(zt::vela::shared::iCURL& client, const std::string& prefix, const std::string& uri,
                    std::string& result) {
    send("ztsdtools::sendGetRequest", client, prefix, uri, false, std::string(), result);
}

void sendPutRequest(zt::vela::shared::iCURL& client, const std::string& prefix, const std::string& uri,
                    const std::string& body, std::string& result) {
    send("ztsdtools::sendPutRequest", client, prefix, uri, true, body, result);
}

}  // namespace ztsdtools
