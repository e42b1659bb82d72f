/*
 * A consumer written in C99 against the public header and the shared
 * library only. Exits non-zero with a message on the first failed check.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "ztsdlib/ztsdlib.h"

static int failures = 0;

#define CHECK(cond)                                                        \
    do {                                                                   \
        if (!(cond)) {                                                     \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            ++failures;                                                    \
        }                                                                  \
    } while (0)

static void hostTimescaleRoundTrip(void) {
    zterr_Status status = {0, 0, ztsdlib_Status_defaultReallocate, NULL};
    ztsdlib_Timescale* ts = ztsdlib_HostTimescale_create(ZTSDLIB_HOST_TIMESCALE_URI, &status);
    ztsdlib_Timestamp now;
    const char* uri;
    char* json;

    CHECK(ts != NULL);
    CHECK(status.code == 0);

    memset(&now, 0xFF, sizeof now);
    ztsdlib_Timescale_getTime(ts, &now, &status);
    CHECK(status.code == 0);
    /* 1601-based: 2020-01-01 is 13222800000 s after the epoch. */
    CHECK(now.seconds > 13222800000ULL);

    uri = ztsdlib_Timescale_getUri(ts, &status);
    CHECK(uri != NULL && strcmp(uri, "/localhost/ztsds/timescales/system") == 0);

    json = ztsdlib_Timescale_toJson(ts, &status);
    CHECK(json != NULL && strcmp(json, "{\"uri\":\"/localhost/ztsds/timescales/system\"}") == 0);

    ztsdlib_Timescale_delete(ts);
    free(json);
    CHECK(status.json == NULL); /* nothing was reported */
}

/* A linear correlator between two host timescales (one clock read under two
 * URIs), of each sampling: now on the first maps to about now on the second,
 * and the fit's quality counts the full history. The correlator exports' own
 * tests cover the rest of the family. */
static void correlatorBetweenHostTimescales(int symmetric) {
    zterr_Status status = {0, 0, ztsdlib_Status_defaultReallocate, NULL};
    ztsdlib_Timescale* first = ztsdlib_HostTimescale_create(ZTSDLIB_HOST_TIMESCALE_URI, &status);
    ztsdlib_Timescale* second = ztsdlib_HostTimescale_create("/localhost/ztsds/timescales/copy", &status);
    ztsdlib_TimestampCorrelator* correlator =
        symmetric ? ztsdlib_LinearCorrelator_createSymmetric("/correlators/hosts", first, second, 10, 5, 2000, &status)
                  : ztsdlib_LinearCorrelator_create("/correlators/hosts", first, second, 10, 5, 2000, &status);
    ztsdlib_Timestamp now, mapped;
    ztsdlib_CorrelationQuality quality;
    ztsdlib_CorrelationQualityV2 quality2;
    zterr_Status refused = {0, 0, ztsdlib_Status_defaultReallocate, NULL};
    long long difference_ns;

    CHECK(correlator != NULL);
    ztsdlib_TimestampCorrelator_start(correlator, &status);
    CHECK(ztsdlib_TimestampCorrelator_isRunning(correlator, &status));
    ztsdlib_Timescale_getTime(first, &now, &status);
    ztsdlib_TimestampCorrelator_correlate(correlator, &now, ZTSDLIB_HOST_TIMESCALE_URI, &mapped, &status);
    CHECK(status.code == 0);
    difference_ns = ((long long)mapped.seconds - (long long)now.seconds) * 1000000000LL +
                    ((long long)mapped.nanos - (long long)now.nanos);
    CHECK(difference_ns > -20000000LL && difference_ns < 20000000LL);
    CHECK(!mapped.isNegative);
    ztsdlib_TimestampCorrelator_getQuality(correlator, &quality, &status);
    CHECK(status.code == 0 && quality.sampleCount == 5 && quality.span_ns > 0);
    /* The second record: the caller's size, the first record within it, a
     * bound for either sampling; a size too small is refused. */
    memset(&quality2, 0xff, sizeof quality2);
    quality2.size = sizeof quality2;
    ztsdlib_TimestampCorrelator_getQualityV2(correlator, &quality2, &status);
    CHECK(status.code == 0 && quality2.size == sizeof quality2 && quality2.quality.sampleCount == 5);
    CHECK(quality2.effectiveSampleCount >= 3 && quality2.effectiveSampleCount <= 5);
    CHECK(quality2.offsetStdErrorCorrected_ns >= quality2.quality.offsetStdError_ns);
    CHECK(quality2.offsetBound_ns > 0 && quality2.offsetBound_ns < 1e9);
    quality2.size = (uint32_t)sizeof quality2 - 8;
    ztsdlib_TimestampCorrelator_getQualityV2(correlator, &quality2, &refused);
    CHECK(refused.code == -52005 && refused.json != NULL && strstr(refused.json, "quality.size") != NULL);
    refused.reallocate(&refused, 0);
    ztsdlib_TimestampCorrelator_stop(correlator, &status);
    CHECK(!ztsdlib_TimestampCorrelator_isRunning(correlator, &status));
    CHECK(status.code == 0);

    ztsdlib_TimestampCorrelator_delete(correlator);
    ztsdlib_Timescale_delete(second);
    ztsdlib_Timescale_delete(first);
    status.reallocate(&status, 0);
}

static void syncDomainOnTheLibraryPool(void) {
    zterr_Status status = {0, 0, ztsdlib_Status_defaultReallocate, NULL};
    void* pool = ztsdlib_ThreadPool_create(2, &status);
    ztsdlib_Timescale* ts = ztsdlib_HostTimescale_create(ZTSDLIB_HOST_TIMESCALE_URI, &status);
    ztsdlib_SyncDomain* domain = ztsdlib_SyncDomain_create("/domains/c", ts, 1000, 500, pool, &status);

    CHECK(pool != NULL && domain != NULL && status.code == 0);
    CHECK(strcmp(ztsdlib_SyncDomain_getTimescaleUri(domain, &status), ZTSDLIB_HOST_TIMESCALE_URI) == 0);
    CHECK(!ztsdlib_SyncDomain_isRunning(domain, &status));
    CHECK(!ztsdlib_SyncDomain_cancelStart(domain, &status) && status.code == 0); /* no start to end */

    /* A domain without members cannot start. */
    CHECK(!ztsdlib_SyncDomain_start(domain, 1, &status));
    CHECK(status.code == -52010);
    status.reallocate(&status, 0);
    status.code = 0;

    ztsdlib_SyncDomain_delete(domain);
    ztsdlib_Timescale_delete(ts);
    ztsdlib_ThreadPool_delete(pool);
    ztsdlib_ThreadPool_delete(NULL);
    status.reallocate(&status, 0);
}

int main(void) {
    hostTimescaleRoundTrip();
    correlatorBetweenHostTimescales(0);
    correlatorBetweenHostTimescales(1);
    syncDomainOnTheLibraryPool();
    if (failures) {
        fprintf(stderr, "%d checks failed\n", failures);
        return 1;
    }
    printf("C consumer: all checks passed\n");
    return 0;
}
