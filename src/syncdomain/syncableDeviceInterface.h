// A remote device whose clock a sync domain disciplines.
#pragma once

#include <cstdint>
#include <string>

#include "core/exportedObject.h"

namespace ztsdlib {

class SyncableDeviceInterface : public ExportedObject {
public:
    ~SyncableDeviceInterface() override = default;
    // Places a domain's requirements document on the device.
    virtual void setCoherencyRequirements(const std::string& jsonRequirements, const std::string& syncDomainUri) = 0;
    // Forgets one domain's claim; sends nothing.
    virtual void clearCoherencyRequirements(const std::string& syncDomainUri) = 0;
    // Asks the device; writes its loss count through the pointer.
    virtual bool isCoherent(std::uint32_t* coherencyLossCount) = 0;
    virtual const std::string& getUri() const = 0;
    virtual std::string toJson() = 0;
};

}  // namespace ztsdlib
