// Exports of the timescale family.
#include <string>

#include "api/exportFrame.h"
#include "time/hostTimescale.h"

using ztsdlib::TimescaleInterface;
using ztsdlib::api::handleOf;
using ztsdlib::api::objectOf;

extern "C" {

ZTSDLIB_API ztsdlib_Timescale* ztsdlib_HostTimescale_create(const char* uri, zterr_Status* status) {
    return ZTSD_EXPORT(status, nullptr, ({{"uri", uri}}), [&] {
        TimescaleInterface* object = new ztsdlib::HostTimescale(std::string(uri));
        return handleOf<ztsdlib_Timescale>(object);
    });
}

ZTSDLIB_API const char* ztsdlib_Timescale_getUri(ztsdlib_Timescale* handle, zterr_Status* status) {
    return ZTSD_EXPORT(status, nullptr, ({{"handle", handle}}),
                       [&] { return objectOf<TimescaleInterface>(handle)->getUri().c_str(); });
}

ZTSDLIB_API void ztsdlib_Timescale_getTime(ztsdlib_Timescale* handle, ztsdlib_Timestamp* timestamp,
                                           zterr_Status* status) {
    ZTSD_EXPORT_VOID(status, ({{"handle", handle}, {"timestamp", timestamp}}),
                     [&] { objectOf<TimescaleInterface>(handle)->getTime(*timestamp, status); });
}

ZTSDLIB_API char* ztsdlib_Timescale_toJson(ztsdlib_Timescale* handle, zterr_Status* status) {
    return ZTSD_EXPORT(status, nullptr, ({{"handle", handle}}), [&] {
        return ztsdlib::api::duplicateForCaller(objectOf<TimescaleInterface>(handle)->toJson());
    });
}

}  // extern "C"
