#include "syncdomain/nopSyncDomain.h"

#include "errors/exception.h"

namespace ztsdlib {
namespace {
constexpr const char* kFile = "source\\ztsdlib\\nopSyncDomain";
constexpr const char* kDebug = "ztsyncdomain_debug";
}  // namespace

NopSyncDomain::NopSyncDomain(std::string uriText, TimescaleInterface& timescale)
    : uri(std::move(uriText)), requiredTimescaleUri(timescale.getUri()) {}

bool NopSyncDomain::isMember(const std::string& deviceUri) const {
    for (const SyncableDeviceInterface* device : members)
        if (device->getUri() == deviceUri) return true;
    return false;
}

void NopSyncDomain::addSyncableDevice(SyncableDeviceInterface* device) {
    if (!device) {
        zterr::raise(ZTERR_SITE(kFile, zterr::name::ztapalerr_invalidParameter), zterr::code::ztapalerr_invalidParameter,
                     kDebug,
                     {{"message", "Encountered missing parameter needed for task completion."}, {"device", "nullptr"}});
    }
    if (isDomainRunning) {
        zterr::raise(ZTERR_SITE(kFile, zterr::name::ztapalerr_invalidStateTransition),
                     zterr::code::ztapalerr_invalidStateTransition, kDebug,
                     {{"message", "Syncable devices may only be added when Sync Domain is not running."},
                      {"isDomainRunning", true},
                      {"syncDomainUri", uri},
                      {"syncableDeviceUri", device->getUri()}});
    }
    if (isMember(device->getUri())) return;
    members.push_back(device);
}

bool NopSyncDomain::isCoherent() {
    if (!isDomainRunning) {
        zterr::raise(ZTERR_SITE(kFile, zterr::name::ztapalerr_invalidStateTransition),
                     zterr::code::ztapalerr_invalidStateTransition, kDebug,
                     {{"message", "Sync Domain coherency may only be queried if the domain is running."},
                      {"isDomainRunning", false}});
    }
    return isCoherentFlag;
}

bool NopSyncDomain::start(std::uint32_t timeout_s) {
    startV2(true, true, timeout_s);
    return true;
}

void NopSyncDomain::startV2(bool, bool, std::uint32_t) {
    if (isDomainRunning) {
        zterr::raise(ZTERR_SITE(kFile, zterr::name::ztapalerr_invalidStateTransition),
                     zterr::code::ztapalerr_invalidStateTransition, kDebug,
                     {{"message", "Sync Domain is already running; need to call stop before calling start again."},
                      {"isDomainRunning", true}});
    }
    if (members.empty()) {
        zterr::raise(ZTERR_SITE(kFile, zterr::name::ztapalerr_resourceNotInitialized),
                     zterr::code::ztapalerr_resourceNotInitialized, kDebug,
                     {{"message",
                       "Sync Domain cannot start without any members. Please add at least one Syncable Device to the "
                       "domain and try again."}});
    }
    isDomainRunning = isCoherentFlag = true;
}

std::string NopSyncDomain::toJson() {
    std::string json = std::string("{\"type\":\"NopSyncDomain\",\"uri\":\"") + uri +
                       "\",\"isCoherent\":" + (isCoherentFlag ? "true" : "false") +
                       ",\"isRunning\":" + (isDomainRunning ? "true" : "false") + ",\"syncableDevices\":[";
    for (std::size_t i = 0; i < members.size(); ++i) {
        if (i) json += ",";
        json += "\"" + members[i]->getUri() + "\"";
    }
    return json + "]}";
}

}  // namespace ztsdlib
