// Exports of the syncable device family.
#include <string>

#include "api/exportFrame.h"
#include "syncdomain/syncableDeviceProxy.h"

using ztsdlib::SyncableDeviceInterface;
using ztsdlib::api::handleOf;
using ztsdlib::api::objectOf;

namespace {
SyncableDeviceInterface* deviceOf(ztsdlib_SyncableDevice* handle) {
    return objectOf<SyncableDeviceInterface>(handle);
}
}  // namespace

extern "C" {

ZTSDLIB_API ztsdlib_SyncableDevice* ztsdlib_SyncableDeviceProxy_create(const char* uri, zterr_Status* status) {
    return ZTSD_EXPORT(status, nullptr, ({{"uri", uri}}), [&] {
        SyncableDeviceInterface* device = new ztsdlib::SyncableDeviceProxy(std::string(uri));
        return handleOf<ztsdlib_SyncableDevice>(device);
    });
}

ZTSDLIB_API void ztsdlib_SyncableDevice_setCoherencyRequirements(ztsdlib_SyncableDevice* handle,
                                                                 const char* syncDomainUri,
                                                                 const char* jsonRequirements, zterr_Status* status) {
    ZTSD_EXPORT_VOID(status, ({{"handle", handle}, {"syncDomainUri", syncDomainUri}, {"jsonRequirements", jsonRequirements}}),
                     [&] { deviceOf(handle)->setCoherencyRequirements(jsonRequirements, syncDomainUri); });
}

ZTSDLIB_API void ztsdlib_SyncableDevice_clearCoherencyRequirements(ztsdlib_SyncableDevice* handle,
                                                                   const char* syncDomainUri, zterr_Status* status) {
    ZTSD_EXPORT_VOID(status, ({{"handle", handle}, {"syncDomainUri", syncDomainUri}}),
                     [&] { deviceOf(handle)->clearCoherencyRequirements(syncDomainUri); });
}

ZTSDLIB_API bool ztsdlib_SyncableDevice_isCoherent(ztsdlib_SyncableDevice* handle, uint32_t* coherencyLossCount,
                                                   zterr_Status* status) {
    return ZTSD_EXPORT(status, false, ({{"handle", handle}, {"coherencyLossCount", coherencyLossCount}}),
                       [&] { return deviceOf(handle)->isCoherent(coherencyLossCount); });
}

ZTSDLIB_API const char* ztsdlib_SyncableDevice_getUri(ztsdlib_SyncableDevice* handle, zterr_Status* status) {
    return ZTSD_EXPORT(status, nullptr, ({{"handle", handle}}), [&] { return deviceOf(handle)->getUri().c_str(); });
}

ZTSDLIB_API char* ztsdlib_SyncableDevice_toJson(ztsdlib_SyncableDevice* handle, zterr_Status* status) {
    return ZTSD_EXPORT(status, nullptr, ({{"handle", handle}}),
                       [&] { return ztsdlib::api::duplicateForCaller(deviceOf(handle)->toJson()); });
}

}  // extern "C"
