// A group of syncable devices held to common coherency requirements.
#pragma once

#include <cstdint>
#include <string>

#include "core/exportedObject.h"
#include "syncdomain/syncableDeviceInterface.h"

namespace ztsdlib {

class SyncDomainInterface : public ExportedObject {
public:
    ~SyncDomainInterface() override = default;
    virtual bool isMember(const std::string& deviceUri) const = 0;
    virtual void addSyncableDevice(SyncableDeviceInterface* device) = 0;
    virtual bool isCoherent() = 0;
    virtual bool isCoherentSinceLastChecked() = 0;
    virtual bool isRunning() const = 0;
    virtual bool start(std::uint32_t timeout_s) = 0;
    virtual void startV2(bool waitToBecomeCoherent, bool saveInitialCoherency, std::uint32_t timeout_s) = 0;
    virtual void stop() = 0;
    // Ends a start running on another thread; false when none is under way.
    // The only member that may be called while another thread is inside one.
    virtual bool cancelStart() = 0;
    virtual const std::string& getTimescaleUri() const = 0;
    virtual const std::string& getUri() const = 0;
    virtual std::string toJson() = 0;
};

}  // namespace ztsdlib
