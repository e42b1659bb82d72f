// Exports of the sync domain family and of the library's thread pool.
#include <string>

#include "api/exportFrame.h"
#include "errors/exception.h"
#include "syncdomain/libraryThreadPool.h"
#include "syncdomain/nopSyncDomain.h"
#include "syncdomain/syncDomain.h"

using ztsdlib::SyncableDeviceInterface;
using ztsdlib::SyncDomainInterface;
using ztsdlib::TimescaleInterface;
using ztsdlib::api::handleOf;
using ztsdlib::api::objectOf;

namespace {
SyncDomainInterface* domainOf(ztsdlib_SyncDomain* handle) { return objectOf<SyncDomainInterface>(handle); }
}  // namespace

extern "C" {

ZTSDLIB_API void* ztsdlib_ThreadPool_create(uint32_t threadCount, zterr_Status* status) {
    return ZTSD_EXPORT(status, nullptr, ({}), [&]() -> void* {
        if (threadCount == 0) {
            zterr::raise(ZTERR_SITE_AT(ztsdlib::api::kExportFile, __LINE__, zterr::name::ztapalerr_invalidParameter),
                         zterr::code::ztapalerr_invalidParameter, "ztsyncdomain_debug",
                         {{"message", "A thread pool needs at least one thread."}, {"threadCount", threadCount}});
        }
        ztsdlib::ThreadPoolInterface* pool = new ztsdlib::LibraryThreadPool(threadCount);
        return pool;
    });
}

ZTSDLIB_API void ztsdlib_ThreadPool_delete(void* pool) { delete static_cast<ztsdlib::ThreadPoolInterface*>(pool); }

ZTSDLIB_API ztsdlib_SyncDomain* ztsdlib_SyncDomain_create(const char* uri, ztsdlib_Timescale* timescale,
                                                          uint32_t maxOffset_ns, uint32_t minSyncDuration_ms,
                                                          void* threadPool, zterr_Status* status) {
    return ZTSD_EXPORT(status, nullptr, ({{"uri", uri}, {"timescale", timescale}, {"threadPool", threadPool}}), [&] {
        SyncDomainInterface* domain =
            new ztsdlib::SyncDomain(std::string(uri), *objectOf<TimescaleInterface>(timescale), maxOffset_ns,
                                    minSyncDuration_ms, static_cast<ztsdlib::ThreadPoolInterface*>(threadPool));
        return handleOf<ztsdlib_SyncDomain>(domain);
    });
}

ZTSDLIB_API ztsdlib_SyncDomain* ztsdlib_NopSyncDomain_create(const char* uri, ztsdlib_Timescale* timescale,
                                                             zterr_Status* status) {
    return ZTSD_EXPORT(status, nullptr, ({{"uri", uri}, {"timescale", timescale}}), [&] {
        SyncDomainInterface* domain =
            new ztsdlib::NopSyncDomain(std::string(uri), *objectOf<TimescaleInterface>(timescale));
        return handleOf<ztsdlib_SyncDomain>(domain);
    });
}

ZTSDLIB_API bool ztsdlib_SyncDomain_isMember(ztsdlib_SyncDomain* handle, const char* syncableDeviceUri,
                                             zterr_Status* status) {
    return ZTSD_EXPORT(status, false, ({{"handle", handle}, {"syncableDeviceUri", syncableDeviceUri}}),
                       [&] { return domainOf(handle)->isMember(syncableDeviceUri); });
}

ZTSDLIB_API void ztsdlib_SyncDomain_addSyncableDevice(ztsdlib_SyncDomain* handle, ztsdlib_SyncableDevice* device,
                                                      zterr_Status* status) {
    ZTSD_EXPORT_VOID(status, ({{"handle", handle}, {"device", device}}), [&] {
        domainOf(handle)->addSyncableDevice(objectOf<SyncableDeviceInterface>(device));
    });
}

ZTSDLIB_API bool ztsdlib_SyncDomain_isCoherent(ztsdlib_SyncDomain* handle, zterr_Status* status) {
    return ZTSD_EXPORT(status, false, ({{"handle", handle}}), [&] { return domainOf(handle)->isCoherent(); });
}

ZTSDLIB_API bool ztsdlib_SyncDomain_isCoherentSinceLastChecked(ztsdlib_SyncDomain* handle, zterr_Status* status) {
    return ZTSD_EXPORT(status, false, ({{"handle", handle}}),
                       [&] { return domainOf(handle)->isCoherentSinceLastChecked(); });
}

ZTSDLIB_API bool ztsdlib_SyncDomain_isRunning(ztsdlib_SyncDomain* handle, zterr_Status* status) {
    return ZTSD_EXPORT(status, false, ({{"handle", handle}}), [&] { return domainOf(handle)->isRunning(); });
}

ZTSDLIB_API bool ztsdlib_SyncDomain_start(ztsdlib_SyncDomain* handle, uint32_t timeout_s, zterr_Status* status) {
    return ZTSD_EXPORT(status, false, ({{"handle", handle}}), [&] { return domainOf(handle)->start(timeout_s); });
}

ZTSDLIB_API void ztsdlib_SyncDomain_startV2(ztsdlib_SyncDomain* handle, bool waitToBecomeCoherent,
                                            bool saveInitialCoherency, uint32_t timeout_s, zterr_Status* status) {
    ZTSD_EXPORT_VOID(status, ({{"handle", handle}}), [&] {
        domainOf(handle)->startV2(waitToBecomeCoherent, saveInitialCoherency, timeout_s);
    });
}

ZTSDLIB_API void ztsdlib_SyncDomain_stop(ztsdlib_SyncDomain* handle, zterr_Status* status) {
    ZTSD_EXPORT_VOID(status, ({{"handle", handle}}), [&] { domainOf(handle)->stop(); });
}

ZTSDLIB_API bool ztsdlib_SyncDomain_cancelStart(ztsdlib_SyncDomain* handle, zterr_Status* status) {
    return ZTSD_EXPORT(status, false, ({{"handle", handle}}), [&] { return domainOf(handle)->cancelStart(); });
}

ZTSDLIB_API const char* ztsdlib_SyncDomain_getTimescaleUri(ztsdlib_SyncDomain* handle, zterr_Status* status) {
    return ZTSD_EXPORT(status, nullptr, ({{"handle", handle}}),
                       [&] { return domainOf(handle)->getTimescaleUri().c_str(); });
}

ZTSDLIB_API const char* ztsdlib_SyncDomain_getUri(ztsdlib_SyncDomain* handle, zterr_Status* status) {
    return ZTSD_EXPORT(status, nullptr, ({{"handle", handle}}), [&] { return domainOf(handle)->getUri().c_str(); });
}

ZTSDLIB_API char* ztsdlib_SyncDomain_toJson(ztsdlib_SyncDomain* handle, zterr_Status* status) {
    return ZTSD_EXPORT(status, nullptr, ({{"handle", handle}}),
                       [&] { return ztsdlib::api::duplicateForCaller(domainOf(handle)->toJson()); });
}

}  // extern "C"
