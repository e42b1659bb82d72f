// A named source of time that can be read on demand. Implementations: the
// host's clock (HostTimescale) and a remote target's clock read through its
// timestamp daemon.
#pragma once

#include <string>

#include "core/exportedObject.h"
#include "ztsdlib/ztsdlib.h"

namespace ztsdlib {

// The URI of the host's own clock.
constexpr const char* kHostTimescaleUri = "/localhost/ztsds/timescales/system";

class TimescaleInterface : public ExportedObject {
public:
    ~TimescaleInterface() override = default;
    // The URI given at creation; valid while the object lives.
    virtual const std::string& getUri() const = 0;
    // Fills timestamp with the current time; failures go to status or are thrown.
    virtual void getTime(ztsdlib_Timestamp& timestamp, zterr_Status* status) = 0;
    // {"uri":"<uri>"} and whatever else the timescale describes itself with.
    virtual std::string toJson() const = 0;
};

}  // namespace ztsdlib
