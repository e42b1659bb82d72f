// Exports of the correlator family.
#include <cstring>
#include <string>

#include "api/exportFrame.h"
#include "time/cachingCorrelator.h"
#include "time/linearCorrelator.h"
#include "time/nopCorrelator.h"

using ztsdlib::TimescaleInterface;
using ztsdlib::TimestampCorrelatorInterface;
using ztsdlib::api::handleOf;
using ztsdlib::api::objectOf;

namespace {

using Sampling = ztsdlib::LinearCorrelator::Sampling;

// The linear correlator behind both create exports (the frame has checked
// the pointers).
ztsdlib_TimestampCorrelator* newLinearCorrelator(const char* correlatorUri, ztsdlib_Timescale* timescale1,
                                                 ztsdlib_Timescale* timescale2, uint32_t samplingIntervalMs,
                                                 uint32_t maxSampleSize, uint32_t maxWaitForFirstCorrelateMs,
                                                 Sampling sampling) {
    TimestampCorrelatorInterface* object = new ztsdlib::LinearCorrelator(
        std::string(correlatorUri), *objectOf<TimescaleInterface>(timescale1), *objectOf<TimescaleInterface>(timescale2),
        samplingIntervalMs, maxSampleSize, maxWaitForFirstCorrelateMs, sampling);
    return handleOf<ztsdlib_TimestampCorrelator>(object);
}

// The linear correlator behind a handle; any other correlator is refused.
const ztsdlib::LinearCorrelator* linearOf(ztsdlib_TimestampCorrelator* handle) {
    const auto* linear =
        dynamic_cast<const ztsdlib::LinearCorrelator*>(objectOf<TimestampCorrelatorInterface>(handle));
    if (!linear) {
        zterr::raise(ZTERR_SITE(ztsdlib::api::kExportFile, zterr::name::ztapalerr_invalidParameter),
                     zterr::code::ztapalerr_invalidParameter, "ztsyncdomain_debug",
                     {{"message", "Only a linear correlator reports the quality of its fit."}});
    }
    return linear;
}

}  // namespace

extern "C" {

ZTSDLIB_API ztsdlib_TimestampCorrelator* ztsdlib_LinearCorrelator_create(
    const char* correlatorUri, ztsdlib_Timescale* timescale1, ztsdlib_Timescale* timescale2,
    uint32_t samplingIntervalMs, uint32_t maxSampleSize, uint32_t maxWaitForFirstCorrelateMs, zterr_Status* status) {
    return ZTSD_EXPORT(status, nullptr,
                       ({{"correlatorUri", correlatorUri}, {"timescale1", timescale1}, {"timescale2", timescale2}}),
                       [&] {
                           return newLinearCorrelator(correlatorUri, timescale1, timescale2, samplingIntervalMs,
                                                      maxSampleSize, maxWaitForFirstCorrelateMs, Sampling::Sequential);
                       });
}

ZTSDLIB_API ztsdlib_TimestampCorrelator* ztsdlib_LinearCorrelator_createSymmetric(
    const char* correlatorUri, ztsdlib_Timescale* timescale1, ztsdlib_Timescale* timescale2,
    uint32_t samplingIntervalMs, uint32_t maxSampleSize, uint32_t maxWaitForFirstCorrelateMs, zterr_Status* status) {
    return ZTSD_EXPORT(status, nullptr,
                       ({{"correlatorUri", correlatorUri}, {"timescale1", timescale1}, {"timescale2", timescale2}}),
                       [&] {
                           return newLinearCorrelator(correlatorUri, timescale1, timescale2, samplingIntervalMs,
                                                      maxSampleSize, maxWaitForFirstCorrelateMs, Sampling::Symmetric);
                       });
}

ZTSDLIB_API ztsdlib_TimestampCorrelator* ztsdlib_CachingCorrelator_create(const char* uri,
                                                                          ztsdlib_TimestampCorrelator* correlator,
                                                                          zterr_Status* status) {
    return ZTSD_EXPORT(status, nullptr, ({{"uri", uri}, {"correlator", correlator}}), [&] {
        TimestampCorrelatorInterface* object = new ztsdlib::CachingCorrelator(
            std::string(uri), *objectOf<TimestampCorrelatorInterface>(correlator));
        return handleOf<ztsdlib_TimestampCorrelator>(object);
    });
}

ZTSDLIB_API ztsdlib_TimestampCorrelator* ztsdlib_NopCorrelator_create(const char* correlatorUri,
                                                                      ztsdlib_Timescale* timescale1,
                                                                      ztsdlib_Timescale* timescale2,
                                                                      zterr_Status* status) {
    return ZTSD_EXPORT(status, nullptr,
                       ({{"correlatorUri", correlatorUri}, {"timescale1", timescale1}, {"timescale2", timescale2}}),
                       [&] {
                           TimestampCorrelatorInterface* object = new ztsdlib::NopCorrelator(
                               std::string(correlatorUri), *objectOf<TimescaleInterface>(timescale1),
                               *objectOf<TimescaleInterface>(timescale2));
                           return handleOf<ztsdlib_TimestampCorrelator>(object);
                       });
}

ZTSDLIB_API void ztsdlib_TimestampCorrelator_correlate(ztsdlib_TimestampCorrelator* handle,
                                                       const ztsdlib_Timestamp* timestampInSourceTimescale,
                                                       const char* sourceTimescale,
                                                       ztsdlib_Timestamp* correlatedTimestamp, zterr_Status* status) {
    ZTSD_EXPORT_VOID(status,
                     ({{"handle", handle},
                       {"timestampInSourceTimescale", timestampInSourceTimescale},
                       {"sourceTimescale", sourceTimescale},
                       {"correlatedTimestamp", correlatedTimestamp}}),
                     [&] {
                         *correlatedTimestamp = objectOf<TimestampCorrelatorInterface>(handle)->correlate(
                             sourceTimescale, *timestampInSourceTimescale);
                     });
}

ZTSDLIB_API const char* ztsdlib_TimestampCorrelator_getUri(ztsdlib_TimestampCorrelator* handle,
                                                           zterr_Status* status) {
    return ZTSD_EXPORT(status, nullptr, ({{"handle", handle}}),
                       [&] { return objectOf<TimestampCorrelatorInterface>(handle)->getUri().c_str(); });
}

ZTSDLIB_API const char* ztsdlib_TimestampCorrelator_getTimescale1Uri(ztsdlib_TimestampCorrelator* handle,
                                                                     zterr_Status* status) {
    return ZTSD_EXPORT(status, nullptr, ({{"handle", handle}}),
                       [&] { return objectOf<TimestampCorrelatorInterface>(handle)->getTimescale1Uri().c_str(); });
}

ZTSDLIB_API const char* ztsdlib_TimestampCorrelator_getTimescale2Uri(ztsdlib_TimestampCorrelator* handle,
                                                                     zterr_Status* status) {
    return ZTSD_EXPORT(status, nullptr, ({{"handle", handle}}),
                       [&] { return objectOf<TimestampCorrelatorInterface>(handle)->getTimescale2Uri().c_str(); });
}

ZTSDLIB_API void ztsdlib_TimestampCorrelator_start(ztsdlib_TimestampCorrelator* handle, zterr_Status* status) {
    ZTSD_EXPORT_VOID(status, ({{"handle", handle}}), [&] { objectOf<TimestampCorrelatorInterface>(handle)->start(); });
}

ZTSDLIB_API void ztsdlib_TimestampCorrelator_stop(ztsdlib_TimestampCorrelator* handle, zterr_Status* status) {
    ZTSD_EXPORT_VOID(status, ({{"handle", handle}}), [&] { objectOf<TimestampCorrelatorInterface>(handle)->stop(); });
}

ZTSDLIB_API bool ztsdlib_TimestampCorrelator_isRunning(ztsdlib_TimestampCorrelator* handle, zterr_Status* status) {
    return ZTSD_EXPORT(status, false, ({{"handle", handle}}),
                       [&] { return objectOf<TimestampCorrelatorInterface>(handle)->isRunning(); });
}

ZTSDLIB_API char* ztsdlib_TimestampCorrelator_toJson(ztsdlib_TimestampCorrelator* handle, zterr_Status* status) {
    return ZTSD_EXPORT(status, nullptr, ({{"handle", handle}}), [&] {
        return ztsdlib::api::duplicateForCaller(objectOf<TimestampCorrelatorInterface>(handle)->toJson());
    });
}

ZTSDLIB_API void ztsdlib_TimestampCorrelator_getQuality(ztsdlib_TimestampCorrelator* handle,
                                                        ztsdlib_CorrelationQuality* quality, zterr_Status* status) {
    ZTSD_EXPORT_VOID(status, ({{"handle", handle}, {"quality", quality}}),
                     [&] { *quality = linearOf(handle)->quality(); });
}

ZTSDLIB_API void ztsdlib_TimestampCorrelator_getQualityV2(ztsdlib_TimestampCorrelator* handle,
                                                          ztsdlib_CorrelationQualityV2* quality, zterr_Status* status) {
    ZTSD_EXPORT_VOID(status, ({{"handle", handle}, {"quality", quality}}), [&] {
        // The caller's size says how much of the record it has room for; a
        // later, longer record is written only as far as that.
        constexpr std::uint32_t kThisSize = sizeof(ztsdlib_CorrelationQualityV2);
        const std::uint32_t room = quality->size;
        if (room < kThisSize) {
            zterr::raise(ZTERR_SITE(ztsdlib::api::kExportFile, zterr::name::ztapalerr_invalidParameter),
                         zterr::code::ztapalerr_invalidParameter, "ztsyncdomain_debug",
                         {{"message", "The record's size is smaller than this library's ztsdlib_CorrelationQualityV2."},
                          {"parameter", "quality.size"},
                          {"size", room},
                          {"expectedAtLeast", kThisSize}});
        }
        const ztsdlib_CorrelationQualityV2 record = linearOf(handle)->qualityV2();
        std::memcpy(quality, &record, kThisSize);  // size included: what this library wrote
    });
}

}  // extern "C"
