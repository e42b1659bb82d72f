// The tool's side of the library's C interface: a status record that frees
// its report, a call helper that turns an error in the status into a C++
// exception carrying the code and the report, and owning handles that give
// every object back to the library's delete export.
//
// Only the public header is used here: ztsdctl is a client of the shared
// library like any other program.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

#include "ztsdlib/ztsdlib.h"

namespace ztsdctl {

// Codes the tool tells apart (the library's codes never change).
constexpr std::int32_t kOperationTimedOut = -52007;  // ztapalerr_operationTimedOut

// A failure the library reported: its code (< 0) and its JSON report ("" when
// the library wrote none).
class LibraryError : public std::runtime_error {
public:
    LibraryError(std::int32_t code, std::string report);
    std::int32_t code() const { return code_; }
    const std::string& report() const { return report_; }
    // The report's "error_constant", or "" when it has none.
    std::string constantName() const;
    // What the command was working on when the library failed (a chassis
    // address, a device URI); "" when not set.
    const std::string& context() const { return context_; }
    LibraryError& setContext(std::string context) {
        context_ = std::move(context);
        return *this;
    }
    // host:port of the timestamp daemon the failed call addressed, as the
    // command knows it ("" when the call reached no daemon). The library's
    // reports of a daemon's failures do not name it.
    const std::string& daemon() const { return daemon_; }
    LibraryError& setDaemon(std::string hostPort) {
        daemon_ = std::move(hostPort);
        return *this;
    }

private:
    std::int32_t code_;
    std::string report_;
    std::string context_;
    std::string daemon_;
};

// "host:port", an IPv6 address in brackets ("[::1]:9090").
std::string hostPortText(const std::string& host, std::uint32_t port);

// A status record with the library's own allocation callback; releases the
// report text when it goes.
class Status {
public:
    Status() : record_{0, 0, ztsdlib_Status_defaultReallocate, nullptr} {}
    ~Status() {
        if (record_.json != nullptr) record_.reallocate(&record_, 0);
    }
    Status(const Status&) = delete;
    Status& operator=(const Status&) = delete;

    zterr_Status* get() { return &record_; }
    std::int32_t code() const { return record_.code; }
    std::string report() const { return record_.json != nullptr ? record_.json : ""; }
    // Throws LibraryError when the code is an error; prints a warning (code
    // > 0) to stderr and goes on.
    void check(const char* what) const;

private:
    zterr_Status record_;
};

// Runs one export with a fresh status and checks it. `what` names the call
// in warnings.
template <typename Call>
auto call(const char* what, Call&& export_) {
    Status status;
    if constexpr (std::is_void_v<decltype(export_(status.get()))>) {
        export_(status.get());
        status.check(what);
    } else {
        auto result = export_(status.get());
        status.check(what);
        return result;
    }
}

// Text from a toJson export, released with free() as the library asks.
std::string takeText(char* text);

struct TimescaleDeleter {
    void operator()(ztsdlib_Timescale* handle) const { ztsdlib_Timescale_delete(handle); }
};
struct CorrelatorDeleter {
    void operator()(ztsdlib_TimestampCorrelator* handle) const { ztsdlib_TimestampCorrelator_delete(handle); }
};
struct DeviceDeleter {
    void operator()(ztsdlib_SyncableDevice* handle) const { ztsdlib_SyncableDevice_delete(handle); }
};
struct DomainDeleter {
    void operator()(ztsdlib_SyncDomain* handle) const { ztsdlib_SyncDomain_delete(handle); }
};
struct PoolDeleter {
    void operator()(void* pool) const { ztsdlib_ThreadPool_delete(pool); }
};

using TimescaleHandle = std::unique_ptr<ztsdlib_Timescale, TimescaleDeleter>;
using CorrelatorHandle = std::unique_ptr<ztsdlib_TimestampCorrelator, CorrelatorDeleter>;
using DeviceHandle = std::unique_ptr<ztsdlib_SyncableDevice, DeviceDeleter>;
using DomainHandle = std::unique_ptr<ztsdlib_SyncDomain, DomainDeleter>;
using PoolHandle = std::unique_ptr<void, PoolDeleter>;

// The handle a create export returned; a create that reports success but
// returns nothing is a failure of its own.
template <typename Handle, typename Raw>
Handle owned(Raw* raw, const char* what) {
    if (raw == nullptr) throw std::runtime_error(std::string(what) + " returned no handle");
    return Handle(raw);
}

}  // namespace ztsdctl
