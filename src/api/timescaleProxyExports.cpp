// Export of the remote timescale: a timescale read through a target's
// timestamp daemon. The other timescale exports (getUri, getTime, toJson,
// delete) serve it like any timescale.
#include <cstdint>
#include <string>

#include "api/exportFrame.h"
#include "timestampservice/timescaleProxy.h"

using ztsdlib::TimescaleInterface;
using ztsdlib::api::handleOf;

extern "C" {

ZTSDLIB_API ztsdlib_Timescale* ztsdlib_TimescaleProxy_create(const char* uri, const char* host, uint32_t port,
                                                             zterr_Status* status) {
    return ZTSD_EXPORT(status, nullptr, ({{"uri", uri}, {"host", host}}), [&] {
        TimescaleInterface* object = new ztsdlib::TimescaleProxy(std::string(uri), std::string(host), port);
        return handleOf<ztsdlib_Timescale>(object);
    });
}

}  // extern "C"
