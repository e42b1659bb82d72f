// A memo of answers in front of another correlator: the same question (the
// source timescale's URI and the source timestamp, all four fields) asked
// again gets the same answer without asking the wrapped correlator. A failed
// correlation is not cached. Entries are never removed and the cache has no
// bound; starting or stopping does not clear it. Everything but correlate
// and getUri is passed straight to the wrapped correlator, toJson unchanged.
//
// Threads: no lock of its own. Callers serialise their correlate calls on
// one caching correlator; the wrapped correlator keeps its own locking.
//
// The wrapped correlator is the caller's object: this one refers to it and
// the caller keeps it alive as long as this one.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_map>

#include "time/timestampCorrelatorInterface.h"

namespace ztsdlib {

class CachingCorrelator : public TimestampCorrelatorInterface {
public:
    CachingCorrelator(std::string uri, TimestampCorrelatorInterface& correlator);

    ztsdlib_Timestamp correlate(std::string_view sourceTimescaleUri,
                                const ztsdlib_Timestamp& timestampInSourceTimescale) override;
    const std::string& getUri() const override { return uri; }
    const std::string& getTimescale1Uri() const override { return correlator.getTimescale1Uri(); }
    const std::string& getTimescale2Uri() const override { return correlator.getTimescale2Uri(); }
    void start() override { correlator.start(); }
    void stop() override { correlator.stop(); }
    bool isRunning() const override { return correlator.isRunning(); }
    std::string toJson() const override { return correlator.toJson(); }

    std::size_t cachedAnswers() const { return cache.size(); }

    // The cache key: the source timescale's URI and the source timestamp.
    struct Key {
        std::string sourceTimescaleUri;
        ztsdlib_Timestamp timestamp;
    };
    // The URI's hash combined with the four timestamp fields (hash_combine).
    struct KeyHash {
        std::size_t operator()(const Key& key) const noexcept;
    };
    struct KeyEqual {
        bool operator()(const Key& a, const Key& b) const noexcept;
    };

private:
    std::unordered_map<Key, ztsdlib_Timestamp, KeyHash, KeyEqual> cache;
    std::string uri;
    TimestampCorrelatorInterface& correlator;
    Key probe;  // reused for lookups, so that a hit allocates nothing
};

}  // namespace ztsdlib
