// A named source of time that can be read on demand. Implementations: the
// host's clock (HostTimescale) and a remote target's clock read through its
// timestamp daemon.
#pragma once

#include <memory>
#include <string>

#include "core/exportedObject.h"
#include "ztsdlib/ztsdlib.h"

namespace ztsdlib {

// The URI of the host's own clock.
constexpr const char* kHostTimescaleUri = "/localhost/ztsds/timescales/system";

// Reads one timescale for one thread (a correlator's sampling task), while
// another thread may interrupt it.
class TimescaleReader {
public:
    virtual ~TimescaleReader() = default;
    // As TimescaleInterface::getTime.
    virtual void getTime(ztsdlib_Timestamp& timestamp, zterr_Status* status) = 0;
    // From any thread: a reading under way ends (it fails) and later ones
    // fail at once. Never throws.
    virtual void interrupt() noexcept = 0;
};

class TimescaleInterface : public ExportedObject {
public:
    ~TimescaleInterface() override = default;
    // The URI given at creation; valid while the object lives.
    virtual const std::string& getUri() const = 0;
    // Fills timestamp with the current time; failures go to status or are thrown.
    virtual void getTime(ztsdlib_Timestamp& timestamp, zterr_Status* status) = 0;
    // {"uri":"<uri>"} and whatever else the timescale describes itself with.
    virtual std::string toJson() const = 0;
    // A reader for one thread. This one reads through this object and has
    // nothing to interrupt, which suits a clock read without waiting; a
    // timescale that waits on a peer gives a reader that does not refer to
    // this object (it may be deleted once the reader is no longer read) and
    // whose waits interrupt() ends.
    virtual std::unique_ptr<TimescaleReader> makeReader() {
        class Direct : public TimescaleReader {
        public:
            explicit Direct(TimescaleInterface& timescale) : timescale(timescale) {}
            void getTime(ztsdlib_Timestamp& timestamp, zterr_Status* status) override {
                timescale.getTime(timestamp, status);
            }
            void interrupt() noexcept override {}

        private:
            TimescaleInterface& timescale;
        };
        return std::make_unique<Direct>(*this);
    }
};

}  // namespace ztsdlib
