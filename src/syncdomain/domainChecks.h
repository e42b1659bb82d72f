// The state and argument checks that every kind of sync domain makes, with
// their codes, messages and details. fileLabel names the raising domain.
#pragma once

#include <string>

#include "syncdomain/syncableDeviceInterface.h"

namespace ztsdlib {
namespace domainChecks {

// No device: -52005 naming "device"; a running domain: -52017.
void checkCanAddDevice(const char* fileLabel, const SyncableDeviceInterface* device, bool isDomainRunning,
                       const std::string& syncDomainUri);

// A running domain: -52017; a domain without members: -52010. The domain URI
// is added to the details when given.
void checkCanStart(const char* fileLabel, bool isDomainRunning, bool hasMembers, const std::string* syncDomainUri);

// A stopped domain cannot be asked about coherency: -52017.
void checkCanQueryCoherency(const char* fileLabel, bool isDomainRunning, const std::string* syncDomainUri);

}  // namespace domainChecks
}  // namespace ztsdlib
