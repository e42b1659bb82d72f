#include "syncdomain/domainChecks.h"

#include "errors/exception.h"

namespace ztsdlib {
namespace domainChecks {
namespace {

constexpr const char* kDebug = "ztsyncdomain_debug";

[[noreturn]] void raiseWithOptionalUri(const zterr_ErrorSite& site, std::int32_t code, const char* message,
                                       const zterr::Detail& state, const std::string* syncDomainUri) {
    if (syncDomainUri) zterr::raise(site, code, kDebug, {{"message", message}, state, {"syncDomainUri", *syncDomainUri}});
    zterr::raise(site, code, kDebug, {{"message", message}, state});
}

}  // namespace

void checkCanAddDevice(const char* fileLabel, const SyncableDeviceInterface* device, bool isDomainRunning,
                       const std::string& syncDomainUri) {
    if (!device) {
        zterr::raise(ZTERR_SITE(fileLabel, zterr::name::ztapalerr_invalidParameter),
                     zterr::code::ztapalerr_invalidParameter, kDebug,
                     {{"message", "Encountered missing parameter needed for task completion."}, {"device", "nullptr"}});
    }
    if (isDomainRunning) {
        zterr::raise(ZTERR_SITE(fileLabel, zterr::name::ztapalerr_invalidStateTransition),
                     zterr::code::ztapalerr_invalidStateTransition, kDebug,
                     {{"message", "Syncable devices may only be added when Sync Domain is not running."},
                      {"isDomainRunning", true},
                      {"syncDomainUri", syncDomainUri},
                      {"syncableDeviceUri", device->getUri()}});
    }
}

void checkCanStart(const char* fileLabel, bool isDomainRunning, bool hasMembers, const std::string* syncDomainUri) {
    if (isDomainRunning) {
        raiseWithOptionalUri(ZTERR_SITE(fileLabel, zterr::name::ztapalerr_invalidStateTransition),
                             zterr::code::ztapalerr_invalidStateTransition,
                             "Sync Domain is already running; need to call stop before calling start again.",
                             {"isDomainRunning", true}, syncDomainUri);
    }
    if (!hasMembers) {
        const char* message =
            "Sync Domain cannot start without any members. Please add at least one Syncable Device to the domain "
            "and try again.";
        const zterr_ErrorSite site = ZTERR_SITE(fileLabel, zterr::name::ztapalerr_resourceNotInitialized);
        if (syncDomainUri) {
            zterr::raise(site, zterr::code::ztapalerr_resourceNotInitialized, kDebug,
                         {{"message", message}, {"syncDomainUri", *syncDomainUri}});
        }
        zterr::raise(site, zterr::code::ztapalerr_resourceNotInitialized, kDebug, {{"message", message}});
    }
}

void checkCanQueryCoherency(const char* fileLabel, bool isDomainRunning, const std::string* syncDomainUri) {
    if (isDomainRunning) return;
    raiseWithOptionalUri(ZTERR_SITE(fileLabel, zterr::name::ztapalerr_invalidStateTransition),
                         zterr::code::ztapalerr_invalidStateTransition,
                         "Sync Domain coherency may only be queried if the domain is running.",
                         {"isDomainRunning", false}, syncDomainUri);
}

}  // namespace domainChecks
}  // namespace ztsdlib
