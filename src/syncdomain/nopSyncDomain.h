// A sync domain that keeps members and a running flag but never talks to a
// device and never uses a pool: always coherent while it runs. No lock; used
// from one caller thread at a time.
#pragma once

#include <string>
#include <vector>

#include "syncdomain/syncDomainInterface.h"
#include "time/timescaleInterface.h"

namespace ztsdlib {

class NopSyncDomain : public SyncDomainInterface {
public:
    NopSyncDomain(std::string uri, TimescaleInterface& timescale);

    bool isMember(const std::string& deviceUri) const override;
    void addSyncableDevice(SyncableDeviceInterface* device) override;
    bool isCoherent() override;
    bool isCoherentSinceLastChecked() override { return isCoherent(); }
    bool isRunning() const override { return isDomainRunning; }
    bool start(std::uint32_t timeout_s) override;
    // The three arguments are not looked at.
    void startV2(bool waitToBecomeCoherent, bool saveInitialCoherency, std::uint32_t timeout_s) override;
    void stop() override { isDomainRunning = isCoherentFlag = false; }
    // Its start never waits, so there is never one to end.
    bool cancelStart() override { return false; }
    const std::string& getTimescaleUri() const override { return requiredTimescaleUri; }
    const std::string& getUri() const override { return uri; }
    std::string toJson() override;

private:
    std::string uri;
    std::string requiredTimescaleUri;
    std::vector<SyncableDeviceInterface*> members;
    bool isDomainRunning = false;
    bool isCoherentFlag = false;
};

}  // namespace ztsdlib
