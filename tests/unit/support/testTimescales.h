// Timescales written for tests: the caller's own objects behind
// TimescaleInterface, as a user of the library would write them. All of them
// may be read from the sampling task and the test thread at once.
#pragma once

#include <atomic>
#include <cstdint>
#include <algorithm>
#include <functional>
#include <string>

#include "errors/exception.h"
#include "time/timescaleInterface.h"

namespace ztsdtest {

// A timestamp record from its fields, and as text for a failure's message.
inline ztsdlib_Timestamp ts(std::uint64_t seconds, std::uint32_t nanos, bool negative = false,
                            std::uint32_t fractionalNanos = 0) {
    return ztsdlib_Timestamp{seconds, nanos, fractionalNanos, negative};
}

inline std::string show(const ztsdlib_Timestamp& t) {
    return std::string(t.isNegative ? "-" : "+") + std::to_string(t.seconds) + "s " + std::to_string(t.nanos) +
           "ns f" + std::to_string(t.fractionalNanos);
}

// A reading of count_ns nanoseconds (non-negative).
inline ztsdlib_Timestamp timestampOfNanos(std::uint64_t count_ns) {
    ztsdlib_Timestamp t{};
    t.seconds = count_ns / 1000000000ULL;
    t.nanos = static_cast<std::uint32_t>(count_ns % 1000000000ULL);
    return t;
}

inline std::uint64_t nanosOf(const ztsdlib_Timestamp& t) { return t.seconds * 1000000000ULL + t.nanos; }

// Reads start_ns + n * step_ns on its n-th reading (n from 0), so two of them
// read in turn lie on an exact line: readings of B = B.start + (A - A.start)
// * B.step / A.step. Can be told to stand still (repeat its last reading) or
// to fail from some reading on, by throwing or through the status.
class SteppingTimescale : public ztsdlib::TimescaleInterface {
public:
    enum class Failure { None, Throw, Status, BadNanos };

    SteppingTimescale(std::string uri, std::uint64_t start_ns, std::uint64_t step_ns)
        : uri(std::move(uri)), start_ns(start_ns), step_ns(step_ns) {}

    const std::string& getUri() const override { return uri; }
    void getTime(ztsdlib_Timestamp& timestamp, zterr_Status* status) override {
        const std::uint64_t n = reads.fetch_add(1);
        if (failFrom >= 0 && n >= static_cast<std::uint64_t>(failFrom.load())) {
            switch (failure.load()) {
                case Failure::Throw:
                    zterr::raise(ZTERR_SITE("test\\steppingTimescale", zterr::name::ztapalerr_communicationsFault),
                                 zterr::code::ztapalerr_communicationsFault, "ztsyncdomain_debug",
                                 {{"message", "the test timescale failed"}});
                case Failure::Status:
                    zterr::report(status, ZTERR_SITE("test\\steppingTimescale", zterr::name::ztapalerr_resourceRemoved),
                                  zterr::code::ztapalerr_resourceRemoved, "ztsyncdomain_debug",
                                  {{"message", "the test timescale reported an error"}});
                    return;
                case Failure::BadNanos:
                    timestamp = ztsdlib_Timestamp{1, 1000000000u, 0, false};
                    return;
                case Failure::None:
                    break;
            }
        }
        const std::uint64_t moving = frozenAfter >= 0 ? std::min<std::uint64_t>(n, frozenAfter.load()) : n;
        timestamp = timestampOfNanos(start_ns + moving * step_ns);
    }
    std::string toJson() const override { return "{\"uri\":\"" + uri + "\"}"; }

    // The reading the n-th read gives while the clock moves.
    std::uint64_t reading_ns(std::uint64_t n) const { return start_ns + n * step_ns; }

    std::atomic<std::uint64_t> reads{0};
    std::atomic<long long> frozenAfter{-1};  // from this reading on, repeat it
    std::atomic<long long> failFrom{-1};     // from this reading on, fail
    std::atomic<Failure> failure{Failure::None};

private:
    std::string uri;
    std::uint64_t start_ns;
    std::uint64_t step_ns;
};

}  // namespace ztsdtest
