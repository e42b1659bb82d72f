/*
 * ztsdlib: time synchronisation of networked measurement chassis.
 *
 * The C interface of the library. Every contract of this header is stated
 * here once:
 *
 * Handles
 *   Objects cross this interface as opaque handles (ztsdlib_Timescale*,
 *   ztsdlib_TimestampCorrelator*, ztsdlib_SyncableDevice*,
 *   ztsdlib_SyncDomain*). A _create export makes the object and the caller
 *   owns it until it passes the handle to the matching _delete export (all
 *   _delete exports are one entry point: any handle may go to any of them; a
 *   NULL handle is ignored). A handle given to another object at creation (a
 *   timescale to a correlator, a device to a sync domain, ...) stays the
 *   caller's: the receiver only refers to it, so keep it alive for as long
 *   as the receiver lives.
 *
 * The status record
 *   Every export except ztsdlib_getApiVersion and the _delete exports takes
 *   a zterr_Status* as its last argument. code 0 is success, code > 0 a
 *   warning, code < 0 an error; on failure json holds a JSON object that
 *   describes it, for example
 *     {"error_constant":"ztapalerr_invalidParameter","file":"...","line":212,
 *      "component":"ztsdlib","ztsyncdomain_debug":{"message":"...","handle":"nullptr"}}
 *   The first error wins: an export called with a status whose code is
 *   already < 0 does nothing and returns its failure value (NULL, false, 0);
 *   a warning does not stop a call. The library grows json only through the
 *   record's reallocate callback. A zero-initialised record
 *   (zterr_Status status = {0};) works: without a callback the code is set
 *   and json stays NULL. Pass ztsdlib_Status_defaultReallocate as the
 *   callback to let the library allocate with malloc; release the text with
 *   status.reallocate(&status, 0). A NULL status pointer makes an export
 *   return its failure value without doing anything.
 *
 * Text
 *   Texts passed in are NUL-terminated and copied when kept. Text returned
 *   by a getUri-style export belongs to the object and is valid while the
 *   handle lives. Text returned by a toJson export is a fresh copy that the
 *   caller releases with free().
 *
 * Threads
 *   Timescale and syncable device exports may be called from any number of
 *   threads at once on one handle: a device handle may belong to several
 *   domains, be asked by tasks a failed domain check left running, and be
 *   called directly, all at the same time; each request then goes over a
 *   connection of its own, so a stalled request never makes another call
 *   fail or wait. The other families state what they allow where they are
 *   declared.
 *
 * No C++ exception ever leaves this library.
 */
#ifndef ZTSDLIB_ZTSDLIB_H
#define ZTSDLIB_ZTSDLIB_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#if defined(_WIN32)
#  if defined(ZTSDLIB_BUILDING)
#    define ZTSDLIB_API __declspec(dllexport)
#  else
#    define ZTSDLIB_API __declspec(dllimport)
#  endif
#else
#  define ZTSDLIB_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- status record ------------------------------------------------------ */

typedef struct zterr_Status zterr_Status;

/*
 * Allocation callback of a status record. Asked for newCapacity > 0 it makes
 * json point to a buffer of at least newCapacity bytes that holds the old
 * text unchanged, sets capacity and returns true, or returns false and leaves
 * the record as it was. Asked for 0 it frees the buffer, sets capacity to 0
 * and json to NULL.
 */
typedef bool (*zterr_ReallocateFunction)(zterr_Status* status, uint32_t newCapacity);

struct zterr_Status {
    int32_t code;                         /* 0 success, > 0 warning, < 0 error */
    uint32_t capacity;                    /* bytes in the buffer json points to */
    zterr_ReallocateFunction reallocate;  /* the caller's allocation callback, may be NULL */
    char* json;                           /* NUL-terminated JSON report, or NULL */
};

/*
 * The library's own malloc-based callback, for callers that do not want to
 * write one. Buffers are at least 512 bytes; the text is kept across growth.
 */
ZTSDLIB_API bool ztsdlib_Status_defaultReallocate(zterr_Status* status, uint32_t newCapacity);

/* ---- time values -------------------------------------------------------- */

/*
 * A time value, sign and magnitude: seconds + nanos / 1e9, negative when
 * isNegative. nanos is below 1000000000. fractionalNanos is a fraction of a
 * nanosecond carried as it is; the exact decimal arithmetic ignores it.
 * Host timescales count seconds from 1601-01-01 00:00:00 UTC.
 */
typedef struct ztsdlib_Timestamp {
    uint64_t seconds;
    uint32_t nanos;
    uint32_t fractionalNanos;
    bool isNegative;
} ztsdlib_Timestamp;

/* ---- handles ------------------------------------------------------------ */

typedef struct ztsdlib_Timescale ztsdlib_Timescale;
typedef struct ztsdlib_TimestampCorrelator ztsdlib_TimestampCorrelator;
typedef struct ztsdlib_SyncableDevice ztsdlib_SyncableDevice;
typedef struct ztsdlib_SyncDomain ztsdlib_SyncDomain;

/* URI of the host's own clock. */
#define ZTSDLIB_HOST_TIMESCALE_URI "/localhost/ztsds/timescales/system"

/* ---- library ------------------------------------------------------------ */

/* The version of this interface: 1. */
ZTSDLIB_API uint8_t ztsdlib_getApiVersion(void);

/* ---- timescales --------------------------------------------------------- */

/*
 * A timescale read from the host's wall clock (1601-based, 100 ns
 * resolution). Pass ZTSDLIB_HOST_TIMESCALE_URI as uri for the system clock.
 */
ZTSDLIB_API ztsdlib_Timescale* ztsdlib_HostTimescale_create(const char* uri, zterr_Status* status);

/*
 * The timescale of a remote target, read from the timestamp daemon
 * "zttimestampd" at host:port (TCP). uri names the timescale as the target's
 * web service lists it, "/<remoteHost>/ztsdwebs/resources/<plugin>/timescales/<gmId>";
 * the daemon knows it as "/localhost/ztsds/timescales/<gmId>". Creation asks
 * the daemon for its API version (-52024 when it cannot be reached). Each
 * getTime makes up to 5 attempts and keeps the connection open for the next
 * one; -52020 when the daemon no longer serves the timescale, -52024 when it
 * cannot be read. Every attempt (connect, request and reply together) ends
 * within 5000 ms whatever the daemon does, so creation takes at most 5 s and
 * a getTime at most 25 s. Threads reading the same handle never wait for
 * each other: a reading that finds every open connection busy opens one of
 * its own, and up to 4 idle connections are kept for later readings.
 * A reply that is malformed, for another call, or that announces more than
 * the service's messages hold (strings over 16 KiB, lists over 1024 entries,
 * replies over 256 KiB) fails the reading at once with -52024, without
 * retrying. toJson gives
 * {"uri":..,"host":..,"port":..,"localUriOfTarget":..,"serverApiVersion":..}.
 * A daemon that reports an API version below 1 stops the process.
 */
ZTSDLIB_API ztsdlib_Timescale* ztsdlib_TimescaleProxy_create(const char* uri, const char* host, uint32_t port,
                                                             zterr_Status* status);

ZTSDLIB_API const char* ztsdlib_Timescale_getUri(ztsdlib_Timescale* handle, zterr_Status* status);
ZTSDLIB_API void ztsdlib_Timescale_getTime(ztsdlib_Timescale* handle, ztsdlib_Timestamp* timestamp,
                                           zterr_Status* status);
/* {"uri":"<uri>"}; free() the result. */
ZTSDLIB_API char* ztsdlib_Timescale_toJson(ztsdlib_Timescale* handle, zterr_Status* status);

/* ---- correlators -------------------------------------------------------- */

/*
 * A correlator maps a time read on one of its two timescales to the
 * corresponding time on the other. The timescales (and the correlator a
 * caching correlator wraps) stay the caller's: keep them alive as long as
 * the correlator.
 *
 * Linear: once started, a background task reads timescale1 then timescale2
 * every millisecond until maxSampleSize samples are held, then every
 * samplingIntervalMs, and fits a line through the last maxSampleSize pairs
 * in exact decimal arithmetic (maxSampleSize must be at least 2). The first
 * correlate after a start waits up to maxWaitForFirstCorrelateMs for the
 * history to fill (never longer from the call, whatever later starts do);
 * two samples are enough to answer, and a stop during the wait ends it with
 * -52017. Errors: -52017 before start, -52016 when started twice, -52010 with too few samples, -52005 for
 * a source timescale that is neither of the two. Results are truncated to
 * whole nanoseconds. stop() reports what ended the sampling task early (a
 * timescale that failed), if anything; the correlator is stopped either way.
 * The task reads a remote timescale over connections of its own, which stop()
 * interrupts: a stop returns within 100 ms whatever the daemon does.
 * correlate, the getters, isRunning and toJson may be called from any number
 * of threads at once, also while start/stop run on one controlling thread.
 *
 * Caching: answers a question already asked (same source URI, same
 * timestamp in all four fields) from memory, without asking the wrapped
 * correlator; failures are not remembered. The cache is never cleared and
 * has no bound. Calls on one caching correlator must not overlap.
 *
 * Nop: for two timescales on one clock; returns the timestamp unchanged.
 * start/stop do nothing, isRunning is always true. Any thread, any time.
 */
ZTSDLIB_API ztsdlib_TimestampCorrelator* ztsdlib_LinearCorrelator_create(
    const char* correlatorUri, ztsdlib_Timescale* timescale1, ztsdlib_Timescale* timescale2,
    uint32_t samplingIntervalMs, uint32_t maxSampleSize, uint32_t maxWaitForFirstCorrelateMs, zterr_Status* status);
/*
 * Linear, symmetric sampling: as ztsdlib_LinearCorrelator_create, but each
 * sampling round reads timescale1, then timescale2, then timescale1 again,
 * and pairs the timescale2 reading with the exact midpoint of the two
 * timescale1 readings. When timescale2 is remote, its reading is thus paired
 * with the middle of the round trip rather than its start, which removes
 * the bias of half a round trip from the offset (what remains is half the
 * difference between the outward and the return delay). A round makes 3
 * such exchanges back to back and keeps the one whose bracket (the time
 * between its two timescale1 readings) is narrowest: the first exchange
 * after the sampling pause meets an idle peer and a slow outward leg, the
 * next ones do not (so it reads timescale2 3 times per sampling interval).
 * A round whose kept bracket is more than 3
 * times the median bracket of the last 15 rounds and more than 20 us above
 * it is dropped as a delayed reply; fewer than 5 earlier rounds drop
 * nothing. Rounds where either clock did not move, or timescale1 went back
 * in every exchange, add nothing either. The ztsdlib_TimestampCorrelator_* exports work on it
 * unchanged; its toJson carries "sampling" : "symmetric" just before
 * "isThreadRunning".
 */
ZTSDLIB_API ztsdlib_TimestampCorrelator* ztsdlib_LinearCorrelator_createSymmetric(
    const char* correlatorUri, ztsdlib_Timescale* timescale1, ztsdlib_Timescale* timescale2,
    uint32_t samplingIntervalMs, uint32_t maxSampleSize, uint32_t maxWaitForFirstCorrelateMs, zterr_Status* status);
ZTSDLIB_API ztsdlib_TimestampCorrelator* ztsdlib_CachingCorrelator_create(const char* uri,
                                                                          ztsdlib_TimestampCorrelator* correlator,
                                                                          zterr_Status* status);
ZTSDLIB_API ztsdlib_TimestampCorrelator* ztsdlib_NopCorrelator_create(const char* correlatorUri,
                                                                      ztsdlib_Timescale* timescale1,
                                                                      ztsdlib_Timescale* timescale2,
                                                                      zterr_Status* status);

/* Writes the time on the other timescale for timestampInSourceTimescale,
 * read on the timescale whose URI is sourceTimescale, to correlatedTimestamp. */
ZTSDLIB_API void ztsdlib_TimestampCorrelator_correlate(ztsdlib_TimestampCorrelator* handle,
                                                       const ztsdlib_Timestamp* timestampInSourceTimescale,
                                                       const char* sourceTimescale,
                                                       ztsdlib_Timestamp* correlatedTimestamp, zterr_Status* status);
ZTSDLIB_API const char* ztsdlib_TimestampCorrelator_getUri(ztsdlib_TimestampCorrelator* handle,
                                                           zterr_Status* status);
/* The URIs stored by the first and second timescale; valid while they live. */
ZTSDLIB_API const char* ztsdlib_TimestampCorrelator_getTimescale1Uri(ztsdlib_TimestampCorrelator* handle,
                                                                     zterr_Status* status);
ZTSDLIB_API const char* ztsdlib_TimestampCorrelator_getTimescale2Uri(ztsdlib_TimestampCorrelator* handle,
                                                                     zterr_Status* status);
ZTSDLIB_API void ztsdlib_TimestampCorrelator_start(ztsdlib_TimestampCorrelator* handle, zterr_Status* status);
ZTSDLIB_API void ztsdlib_TimestampCorrelator_stop(ztsdlib_TimestampCorrelator* handle, zterr_Status* status);
ZTSDLIB_API bool ztsdlib_TimestampCorrelator_isRunning(ztsdlib_TimestampCorrelator* handle, zterr_Status* status);
/* One line, for example { "type" : "linear", "uri" : "...", "timescaleUri1" : "...",
 * "timescaleUri2" : "...", "samplingIntervalMs" : 1000, "maxSampleSize" : 100,
 * "maxWaitForFirstCorrelateMs" : 500, "isThreadRunning" : true }; a nop
 * correlator writes "type" : "nop" and "isRunning" : true after the URIs, a
 * caching correlator its wrapped correlator's text. free() the result. */
ZTSDLIB_API char* ztsdlib_TimestampCorrelator_toJson(ztsdlib_TimestampCorrelator* handle, zterr_Status* status);

/*
 * How well the present history of a linear correlator (either sampling)
 * fits its line, from exact running sums over the kept samples; x is
 * timescale1, y timescale2 (the paired readings). Doubles are rounded from
 * the exact figures.
 *   sampleCount         samples in the history
 *   span_ns             x of the newest minus x of the oldest sample
 *   slope               dy/dx of the fitted line (1 for two clocks at one rate)
 *   rate_ppb            (slope - 1) * 1e9: how much faster timescale2 runs
 *   offsetAtNewest      fitted y minus x at the newest sample's x, truncated
 *                       to the nanosecond (isNegative when timescale2 is behind)
 *   residualStdDev_ns   standard deviation of y about the line, sqrt(RSS/(n-2))
 *   slopeStdError_ppb   standard error of the slope, sqrt(RSS/(n-2)/Sxx) * 1e9
 *   offsetStdError_ns   standard error of the fitted y at the newest x,
 *                       sqrt(RSS/(n-2) * (1/n + (xn - mean x)^2 / Sxx))
 * With two samples the last three are 0. Fails with -52010 (as correlate)
 * while fewer than two samples exist (also before the first start),
 * -52008 when all samples share one timescale1 reading, and -52005 for a
 * correlator that is not linear (ask the linear one a caching correlator
 * wraps). Does not wait; any thread, any time.
 */
typedef struct ztsdlib_CorrelationQuality {
    uint64_t sampleCount;
    double span_ns;
    double slope;
    double rate_ppb;
    ztsdlib_Timestamp offsetAtNewest;
    double residualStdDev_ns;
    double slopeStdError_ppb;
    double offsetStdError_ns;
} ztsdlib_CorrelationQuality;
ZTSDLIB_API void ztsdlib_TimestampCorrelator_getQuality(ztsdlib_TimestampCorrelator* handle,
                                                        ztsdlib_CorrelationQuality* quality, zterr_Status* status);

/*
 * Two figures for users who need to know how far off the fit may be, beside
 * the record above (which keeps its layout). The standard errors above hold
 * for independent residuals; path delays drift over seconds, so neighbouring
 * residuals are alike and those errors come out too small.
 *   size                      set by the caller to
 *                             sizeof(ztsdlib_CorrelationQualityV2); the
 *                             library writes no more than that (later
 *                             versions only add fields at the end), and
 *                             refuses a size below this version's with -52005
 *   quality                   the record getQuality writes, for the same history
 *   newestTimescale1          the newest sample's timescale1 reading, at
 *                             which quality.offsetAtNewest and the bounds
 *                             below hold
 *   residualLag1Correlation   r1 of the residuals about the line (-1..1)
 *   effectiveSampleCount      n (1 - r) / (1 + r), kept within [3, n] (n for
 *                             n <= 3), where r is r1 (0 when below it)
 *                             raised by its small-sample bias (1 + 4 r1) / n
 *                             and by one standard deviation sqrt((1 - r1^2) / n)
 *   slopeStdErrorCorrected_ppb, offsetStdErrorCorrected_ns
 *                             standard uncertainties that allow for
 *                             residuals that drift together. The scatter's
 *                             share is the standard error above times
 *                             s = sqrt((n - 2) / (effectiveSampleCount - 2)).
 *                             With bounds (either sampling) each is
 *                             sqrt((error * s)^2 + bound^2 / 3): the scatter
 *                             combined with its bound below (rateBound_ppb,
 *                             offsetBound_ns) taken as a rectangular
 *                             distribution, so that three of them always
 *                             hold the truth, whatever the path asymmetry.
 *                             Without bounds (a history with a sample whose
 *                             round trip is unknown) it is
 *                             error * s * t / 3, t the 99.865 % quantile of
 *                             Student's t with effectiveSampleCount - 2
 *                             degrees of freedom (three of them make a
 *                             99.73 % interval of the scatter however few
 *                             samples count); that describes the scatter of
 *                             the fit, not a bias: a path slower one way
 *                             than the other shifts every sample alike and
 *                             no standard error shows it.
 *   narrowestHalfRoundTrip_ns the smallest pairing half-width of the history
 *                             (half the narrowest round trip, widened by the
 *                             readings' resolution; see below), for either
 *                             sampling
 *   rateBound_ppb             how far the fitted rate may be from the true
 *                             one, whatever the path asymmetry
 *   offsetBound_ns            how far offsetAtNewest may be from the true
 *                             offset at the newest sample, whatever the path
 *                             asymmetry: the accuracy of the offset.
 *                             At another host time t the offset's bound
 *                             is offsetBound_ns + rateBound_ppb * 1e-9 *
 *                             |t - newestTimescale1| (t in ns).
 * The bounds assume only that the two clocks keep a constant rate over the
 * history and that a remote reading is taken during its own round trip. A
 * symmetric correlator states them: its pairing half-width is half the round
 * trip (between its two timescale1 readings) plus 100 ns for readings
 * truncated to a 100 ns clock tick and 1 ns for the remote's truncation,
 * widened by 0.1 % for the rate; the rate's bound is the farther of the
 * steepest and the flattest line that passes within every sample's
 * half-width, the offset's comes from the sample k that gives the smallest
 * half-width(k) + |residual(k)| + rate bound * age(k).
 * The sequential sampling pairs a timescale1 reading with the timescale2
 * reading after it, and times each round on the host's steady clock from
 * before the timescale1 reading to after the timescale2 reading (plus one
 * tick of that clock): the timescale2 reading came within that round trip
 * after its pairing, so the true line lies between the sample and the round
 * trip (widened as above) below it, and at most the truncations above. Its
 * pairing half-width is the same as a symmetric round's of that round trip,
 * about an interval centred half the round trip (times 1.001) below the
 * sample, and the residual(k) above is taken from that centre. Its offset
 * runs late by the outward delay, so its offset bound is about the whole
 * narrowest round trip (twice narrowestHalfRoundTrip_ns), where the
 * symmetric sampling's is about half of it; its rate bound is the farther
 * of the steepest and flattest line through those intervals as above. It
 * also assumes that the host's steady clock runs within 0.1 % of
 * timescale1's rate. It reads no clock more than before.
 * The record is made when asked for and kept until the next sample, so
 * asking again costs a copy. Fails as getQuality does (-52005 also for a
 * NULL record or a size that is too small). Does not wait; any thread.
 */
typedef struct ztsdlib_CorrelationQualityV2 {
    uint32_t size;
    ztsdlib_CorrelationQuality quality;
    ztsdlib_Timestamp newestTimescale1;
    double residualLag1Correlation;
    double effectiveSampleCount;
    double slopeStdErrorCorrected_ppb;
    double offsetStdErrorCorrected_ns;
    double narrowestHalfRoundTrip_ns;
    double rateBound_ppb;
    double offsetBound_ns;
} ztsdlib_CorrelationQualityV2;
ZTSDLIB_API void ztsdlib_TimestampCorrelator_getQualityV2(ztsdlib_TimestampCorrelator* handle,
                                                          ztsdlib_CorrelationQualityV2* quality, zterr_Status* status);

/* ---- syncable devices -------------------------------------------------- */

/*
 * A remote syncable device, named by its URI
 *   /<remoteHost>/ztsdwebs/resources/<plugin>/syncableDevices/<name>
 * and reached over HTTP at http://<remoteHost>/ztsdwebs/resources/... .
 * Creating one sends nothing. Safe to call from several threads at once
 * (see Threads above); it keeps a few idle connections for reuse.
 */
ZTSDLIB_API ztsdlib_SyncableDevice* ztsdlib_SyncableDeviceProxy_create(const char* uri, zterr_Status* status);
/* Places a domain's requirements document on the device; refused with
 * -1074100993 when they conflict with requirements already in force. */
ZTSDLIB_API void ztsdlib_SyncableDevice_setCoherencyRequirements(ztsdlib_SyncableDevice* handle,
                                                                 const char* syncDomainUri,
                                                                 const char* jsonRequirements, zterr_Status* status);
/* Forgets one domain's claim locally; sends nothing. */
ZTSDLIB_API void ztsdlib_SyncableDevice_clearCoherencyRequirements(ztsdlib_SyncableDevice* handle,
                                                                   const char* syncDomainUri, zterr_Status* status);
ZTSDLIB_API bool ztsdlib_SyncableDevice_isCoherent(ztsdlib_SyncableDevice* handle, uint32_t* coherencyLossCount,
                                                   zterr_Status* status);
ZTSDLIB_API const char* ztsdlib_SyncableDevice_getUri(ztsdlib_SyncableDevice* handle, zterr_Status* status);
/* The device's JSON with this handle's uri and its "syncDomainUris"; free() it. */
ZTSDLIB_API char* ztsdlib_SyncableDevice_toJson(ztsdlib_SyncableDevice* handle, zterr_Status* status);

/* ---- thread pools ------------------------------------------------------- */

/*
 * A pool of threadCount real threads that sync domains run their member
 * checks on, for callers that do not implement ztsdlib::ThreadPoolInterface
 * (ztsdlib/threadPool.hpp) themselves. Pass the result as threadPool to
 * ztsdlib_SyncDomain_create; keep it alive as long as any domain uses it.
 * threadCount 0 is refused with -52005. Delete it with
 * ztsdlib_ThreadPool_delete (NULL ignored), which finishes the queued tasks
 * and joins the threads.
 */
ZTSDLIB_API void* ztsdlib_ThreadPool_create(uint32_t threadCount, zterr_Status* status);
ZTSDLIB_API void ztsdlib_ThreadPool_delete(void* pool);

/* ---- sync domains ------------------------------------------------------- */

/*
 * Sync domains are used from one thread at a time per handle (but for
 * ztsdlib_SyncDomain_cancelStart); they ask their members in parallel on
 * the pool given at creation (a
 * ztsdlib::ThreadPoolInterface*, or the result of ztsdlib_ThreadPool_create).
 * timescale is read once for its URI and not kept. Member checks time out
 * after 10000 ms; a waiting start uses timeout_s for all its passes, which
 * start at least 50 ms apart, and fails within about 50 ms of timeout_s.
 * Deleting a domain never waits for tasks the pool has not started (they
 * then do nothing); it waits only for member requests already under way,
 * each bounded by the HTTP time-out.
 */
ZTSDLIB_API ztsdlib_SyncDomain* ztsdlib_SyncDomain_create(const char* uri, ztsdlib_Timescale* timescale,
                                                          uint32_t maxOffset_ns, uint32_t minSyncDuration_ms,
                                                          void* threadPool, zterr_Status* status);
/* A domain that keeps members but asks nobody: always coherent while running. */
ZTSDLIB_API ztsdlib_SyncDomain* ztsdlib_NopSyncDomain_create(const char* uri, ztsdlib_Timescale* timescale,
                                                             zterr_Status* status);
ZTSDLIB_API bool ztsdlib_SyncDomain_isMember(ztsdlib_SyncDomain* handle, const char* syncableDeviceUri,
                                             zterr_Status* status);
/* Places the domain's requirements on the device; the device stays the caller's. */
ZTSDLIB_API void ztsdlib_SyncDomain_addSyncableDevice(ztsdlib_SyncDomain* handle, ztsdlib_SyncableDevice* device,
                                                      zterr_Status* status);
/* Coherent without a single loss since the last waiting start. */
ZTSDLIB_API bool ztsdlib_SyncDomain_isCoherent(ztsdlib_SyncDomain* handle, zterr_Status* status);
/* Coherent without a loss since the previous check. */
ZTSDLIB_API bool ztsdlib_SyncDomain_isCoherentSinceLastChecked(ztsdlib_SyncDomain* handle, zterr_Status* status);
ZTSDLIB_API bool ztsdlib_SyncDomain_isRunning(ztsdlib_SyncDomain* handle, zterr_Status* status);
/* startV2(true, true, timeout_s); returns true on success. */
ZTSDLIB_API bool ztsdlib_SyncDomain_start(ztsdlib_SyncDomain* handle, uint32_t timeout_s, zterr_Status* status);
ZTSDLIB_API void ztsdlib_SyncDomain_startV2(ztsdlib_SyncDomain* handle, bool waitToBecomeCoherent,
                                            bool saveInitialCoherency, uint32_t timeout_s, zterr_Status* status);
ZTSDLIB_API void ztsdlib_SyncDomain_stop(ztsdlib_SyncDomain* handle, zterr_Status* status);
/*
 * Ends a start (start or startV2) that runs on this domain in another thread,
 * and is the one sync-domain call allowed while another thread is inside
 * one on the same handle (not while the domain is being deleted). The start
 * fails within about 50 ms with -52007 "ztapalerr_operationTimedOut" and
 * "cancelled": true in its "ztsyncdomain_debug" object; the domain stays
 * stopped, and the member requests then under way finish in the background
 * as after a time-out. Returns true when a start was under way; with none,
 * it does nothing and returns false (it never ends a later start). For a
 * program's Ctrl-C handling: call it from a thread that watches a flag.
 */
ZTSDLIB_API bool ztsdlib_SyncDomain_cancelStart(ztsdlib_SyncDomain* handle, zterr_Status* status);
ZTSDLIB_API const char* ztsdlib_SyncDomain_getTimescaleUri(ztsdlib_SyncDomain* handle, zterr_Status* status);
ZTSDLIB_API const char* ztsdlib_SyncDomain_getUri(ztsdlib_SyncDomain* handle, zterr_Status* status);
/* free() the result. */
ZTSDLIB_API char* ztsdlib_SyncDomain_toJson(ztsdlib_SyncDomain* handle, zterr_Status* status);

/* ---- loading a chassis' resources ---------------------------------------- */

/* The caller's memory routine for arrays the library hands back. */
typedef void* (*ztsdlib_Allocator)(size_t size);

/*
 * networkDeviceParamsJson:
 *   {"version":1,"type":"networkDeviceParams",
 *    "params":{"remoteHost":"<host[:port]>","timestampDaemonPort":<port, optional, default 9090>}}
 * Lists the chassis at remoteHost and returns a proxy of its (first)
 * syncable device in *deviceOut and one timescale proxy per listed timescale
 * in an array made with allocator (*timescalesOut; NULL when there are none,
 * and allocator is then not called) of *timescaleCount handles. The caller
 * owns every handle and the array. Nothing is written on failure.
 */
ZTSDLIB_API void ztsdlib_loadProxyResources(const char* networkDeviceParamsJson, ztsdlib_SyncableDevice** deviceOut,
                                            ztsdlib_Timescale*** timescalesOut, uint32_t* timescaleCount,
                                            ztsdlib_Allocator allocator, zterr_Status* status);
/*
 * The URIs of every syncable device the described chassis lists, in its
 * order, as a JSON array of strings (e.g. ["/host:port/ztsdwebs/resources/
 * p1/syncableDevices/dev0", ...]; "[]" when it lists none), each with its
 * host as ztsdlib_loadProxyResources gives it. One GET of the listing; make a
 * proxy of any of them with ztsdlib_SyncableDeviceProxy_create. free() the
 * result. Fails as ztsdlib_loadProxyResources does, returning NULL.
 */
ZTSDLIB_API char* ztsdlib_listSyncableDeviceUris(const char* networkDeviceParamsJson, zterr_Status* status);
/*
 * Writes the URI root of the described device (remoteHost, in [...] when it
 * holds a ':') into both buffers of bufferSize bytes; -52019 when the root
 * and its NUL do not fit. No network traffic.
 */
ZTSDLIB_API void ztsdlib_getProxyResourceUriRootsToUnload(const char* networkDeviceParamsJson, uint32_t bufferSize,
                                                          char* deviceUriRootOut, char* timescaleUriRootOut,
                                                          zterr_Status* status);

/* ---- deletion (one entry point for every handle) ------------------------ */

ZTSDLIB_API void ztsdlib_Timescale_delete(ztsdlib_Timescale* handle);
ZTSDLIB_API void ztsdlib_TimestampCorrelator_delete(ztsdlib_TimestampCorrelator* handle);
ZTSDLIB_API void ztsdlib_SyncableDevice_delete(ztsdlib_SyncableDevice* handle);
ZTSDLIB_API void ztsdlib_SyncDomain_delete(ztsdlib_SyncDomain* handle);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* ZTSDLIB_ZTSDLIB_H */
