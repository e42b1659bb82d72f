// The timescale of the host's wall clock: seconds and nanoseconds since
// 1601-01-01 00:00:00 UTC at 100 ns resolution. It keeps only its URI, so
// every operation may run on any number of threads at once.
#pragma once

#include <cstdint>
#include <string>

#include "time/timescaleInterface.h"

namespace ztsdlib {

class HostTimescale : public TimescaleInterface {
public:
    explicit HostTimescale(std::string uri);

    const std::string& getUri() const override { return uri; }
    // Never fails and never touches status.
    void getTime(ztsdlib_Timestamp& timestamp, zterr_Status* status) override;
    // {"uri":"<uri>"}, the URI inserted as it stands (not escaped).
    std::string toJson() const override;

    // The record for a count of 100 ns intervals since 1601.
    static ztsdlib_Timestamp fromIntervals100ns(std::uint64_t intervals) noexcept;

private:
    std::string uri;
};

}  // namespace ztsdlib
