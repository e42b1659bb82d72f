#include "syncdomain/nopSyncDomain.h"

#include "syncdomain/domainChecks.h"

namespace ztsdlib {
namespace {
constexpr const char* kFile = "source\\ztsdlib\\nopSyncDomain";
}  // namespace

NopSyncDomain::NopSyncDomain(std::string uriText, TimescaleInterface& timescale)
    : uri(std::move(uriText)), requiredTimescaleUri(timescale.getUri()) {}

bool NopSyncDomain::isMember(const std::string& deviceUri) const {
    for (const SyncableDeviceInterface* device : members)
        if (device->getUri() == deviceUri) return true;
    return false;
}

void NopSyncDomain::addSyncableDevice(SyncableDeviceInterface* device) {
    domainChecks::checkCanAddDevice(kFile, device, isDomainRunning, uri);
    if (isMember(device->getUri())) return;
    members.push_back(device);
}

bool NopSyncDomain::isCoherent() {
    domainChecks::checkCanQueryCoherency(kFile, isDomainRunning, nullptr);
    return isCoherentFlag;
}

bool NopSyncDomain::start(std::uint32_t timeout_s) {
    startV2(true, true, timeout_s);
    return true;
}

void NopSyncDomain::startV2(bool, bool, std::uint32_t) {
    domainChecks::checkCanStart(kFile, isDomainRunning, !members.empty(), nullptr);
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
