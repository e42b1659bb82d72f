// The two free functions that load a chassis' resources as proxies and name
// the URI roots to drop later. Their arguments are checked here rather than
// by the frame's list, because their report names the argument as the value
// of a "nullptr" member.
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include <cjson/cJSON.h>

#include "api/exportFrame.h"
#include "errors/exception.h"
#include "loading/proxyResourceLoading.h"

namespace {

constexpr const char* kFile = "source\\ztsdlib\\proxyResourceLoading";

void requireArguments(std::initializer_list<ztsdlib::api::Param> params) {
    for (const auto& p : params) {
        if (p.value) continue;
        zterr::raise(ZTERR_SITE(kFile, zterr::name::ztapalerr_invalidParameter), zterr::code::ztapalerr_invalidParameter,
                     "ztsyncdomain_debug",
                     {{"message", "Encountered missing parameter needed for task completion."}, {"nullptr", p.name}});
    }
}

}  // namespace

extern "C" {

ZTSDLIB_API void ztsdlib_loadProxyResources(const char* networkDeviceParamsJson, ztsdlib_SyncableDevice** deviceOut,
                                            ztsdlib_Timescale*** timescalesOut, uint32_t* timescaleCount,
                                            ztsdlib_Allocator allocator, zterr_Status* status) {
    ZTSD_EXPORT_VOID(status, ({}), [&] {
        requireArguments({{"networkDeviceParamsJson", networkDeviceParamsJson},
                          {"deviceOut", deviceOut},
                          {"timescalesOut", timescalesOut},
                          {"timescaleCount", timescaleCount},
                          {"allocator", reinterpret_cast<const void*>(allocator)}});
        const ztsdlib::NetworkDeviceParams params =
            ztsdlib::parseNetworkDeviceParams(networkDeviceParamsJson, "ztsdlib_loadProxyResources");
        ztsdlib::LoadedProxies loaded = ztsdlib::loadProxyResources(params);

        ztsdlib_Timescale** array = nullptr;
        const std::size_t count = loaded.timescales.size();
        if (count) {
            array = static_cast<ztsdlib_Timescale**>(allocator(count * sizeof(ztsdlib_Timescale*)));
            if (!array) {
                zterr::raise(ZTERR_SITE(kFile, zterr::name::ztapalerr_memoryFull), zterr::code::ztapalerr_memoryFull,
                             "ztsyncdomain_debug", {{"message", "Unable to allocate memory for Timescales"}});
            }
        }
        for (std::size_t i = 0; i < count; ++i)
            array[i] = ztsdlib::api::handleOf<ztsdlib_Timescale>(loaded.timescales[i].release());
        *timescalesOut = array;
        *timescaleCount = static_cast<uint32_t>(count);
        *deviceOut = ztsdlib::api::handleOf<ztsdlib_SyncableDevice>(loaded.device.release());
    });
}

ZTSDLIB_API char* ztsdlib_listSyncableDeviceUris(const char* networkDeviceParamsJson, zterr_Status* status) {
    return ZTSD_EXPORT(status, nullptr, ({}), [&]() -> char* {
        requireArguments({{"networkDeviceParamsJson", networkDeviceParamsJson}});
        const ztsdlib::NetworkDeviceParams params =
            ztsdlib::parseNetworkDeviceParams(networkDeviceParamsJson, "ztsdlib_listSyncableDeviceUris");
        std::string text = "[";
        for (const std::string& uri : ztsdlib::listSyncableDeviceUris(params)) {
            // A listed URI is the chassis' text: written as a JSON string, escapes and all.
            const std::unique_ptr<cJSON, void (*)(cJSON*)> item(cJSON_CreateStringReference(uri.c_str()), cJSON_Delete);
            char* quoted = item ? cJSON_PrintUnformatted(item.get()) : nullptr;
            if (!quoted) throw std::bad_alloc();
            if (text.size() > 1) text += ',';
            text += quoted;
            cJSON_free(quoted);
        }
        return ztsdlib::api::duplicateForCaller(text + "]");
    });
}

ZTSDLIB_API void ztsdlib_getProxyResourceUriRootsToUnload(const char* networkDeviceParamsJson, uint32_t bufferSize,
                                                          char* deviceUriRootOut, char* timescaleUriRootOut,
                                                          zterr_Status* status) {
    ZTSD_EXPORT_VOID(status, ({}), [&] {
        requireArguments({{"networkDeviceParamsJson", networkDeviceParamsJson},
                          {"deviceUriRootOut", deviceUriRootOut},
                          {"timescaleUriRootOut", timescaleUriRootOut}});
        const ztsdlib::NetworkDeviceParams params =
            ztsdlib::parseNetworkDeviceParams(networkDeviceParamsJson, "ztsdlib_getProxyResourceUriRootsToUnload");
        const std::string root = ztsdlib::uriRootOf(params.remoteHost);
        if (root.size() + 1 > bufferSize) {
            zterr::raise(ZTERR_SITE(kFile, zterr::name::ztapalerr_bufferTooSmall), zterr::code::ztapalerr_bufferTooSmall,
                         "ztsyncdomain_debug",
                         {{"message", "the uri root buffers is not large enough."},
                          {"remoteHost", params.remoteHost},
                          {"bufferSize", bufferSize}});
        }
        std::snprintf(deviceUriRootOut, bufferSize, "%s", root.c_str());
        std::snprintf(timescaleUriRootOut, bufferSize, "%s", root.c_str());
    });
}

}  // extern "C"
