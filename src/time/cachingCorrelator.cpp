#include "time/cachingCorrelator.h"

#include <boost/container_hash/hash.hpp>
#include <utility>

#include "time/timestamp.h"

namespace ztsdlib {

std::size_t CachingCorrelator::KeyHash::operator()(const Key& key) const noexcept {
    std::size_t seed = boost::hash<std::string>()(key.sourceTimescaleUri);
    boost::hash_combine(seed, key.timestamp.seconds);
    boost::hash_combine(seed, key.timestamp.nanos);
    boost::hash_combine(seed, key.timestamp.fractionalNanos);
    boost::hash_combine(seed, key.timestamp.isNegative);
    return seed;
}

bool CachingCorrelator::KeyEqual::operator()(const Key& a, const Key& b) const noexcept {
    return a.sourceTimescaleUri == b.sourceTimescaleUri && sameTimestamp(a.timestamp, b.timestamp);
}

CachingCorrelator::CachingCorrelator(std::string ownUri, TimestampCorrelatorInterface& wrapped)
    : cache(8), uri(std::move(ownUri)), correlator(wrapped), probe{std::string(), ztsdlib_Timestamp{}} {
    cache.max_load_factor(1.0f);
}

ztsdlib_Timestamp CachingCorrelator::correlate(std::string_view sourceTimescaleUri,
                                               const ztsdlib_Timestamp& timestampInSourceTimescale) {
    probe.sourceTimescaleUri.assign(sourceTimescaleUri.data(), sourceTimescaleUri.size());
    probe.timestamp = timestampInSourceTimescale;
    const auto found = cache.find(probe);
    if (found != cache.end()) return found->second;

    const ztsdlib_Timestamp answer = correlator.correlate(sourceTimescaleUri, timestampInSourceTimescale);
    cache.emplace(probe, answer);
    return answer;
}

}  // namespace ztsdlib
