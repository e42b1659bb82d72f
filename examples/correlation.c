/*
 * Correlates the host clock with a chassis' first timescale: a linear
 * correlator samples both clocks, then the host's present time is mapped
 * to the chassis' clock and the difference printed.
 *
 *   correlation HOST[:PORT] DAEMONPORT
 *   correlation 127.0.0.1:41321 33667
 *
 * Exit 0 on success, 2 on a library error (or a chassis with no timescale).
 */
#include <stdio.h>
#include <stdlib.h>

#include "ztsdlib/ztsdlib.h"

static long double seconds(const ztsdlib_Timestamp* t) {
    const long double value = (long double)t->seconds + t->nanos / 1e9L;
    return t->isNegative ? -value : value;
}

int main(int argc, char** argv) {
    zterr_Status status = {0, 0, ztsdlib_Status_defaultReallocate, NULL};
    char params[512];
    ztsdlib_SyncableDevice* device = NULL;
    ztsdlib_Timescale** timescales = NULL;
    uint32_t count = 0, i;
    ztsdlib_Timestamp hostNow = {0, 0, 0, false}, remote = {0, 0, 0, false};
    if (argc != 3) {
        fprintf(stderr, "usage: %s HOST[:PORT] DAEMONPORT\n", argv[0]);
        return 2;
    }
    snprintf(params, sizeof params,
             "{\"version\":1,\"type\":\"networkDeviceParams\","
             "\"params\":{\"remoteHost\":\"%s\",\"timestampDaemonPort\":%d}}", argv[1], atoi(argv[2]));

    ztsdlib_loadProxyResources(params, &device, &timescales, &count, malloc, &status);
    if (status.code >= 0 && count == 0) {
        fprintf(stderr, "the chassis lists no timescale\n");
        ztsdlib_SyncableDevice_delete(device);
        status.reallocate(&status, 0);
        return 2;
    }
    ztsdlib_Timescale* host = ztsdlib_HostTimescale_create(ZTSDLIB_HOST_TIMESCALE_URI, &status);
    /* host = timescale 1, the chassis = timescale 2; 50 samples 10 ms apart */
    ztsdlib_TimestampCorrelator* correlator = ztsdlib_LinearCorrelator_createSymmetric(
        "/localhost/example/correlators/host-chassis", host, count > 0 ? timescales[0] : NULL, 10, 50, 5000, &status);
    ztsdlib_TimestampCorrelator_start(correlator, &status);
    ztsdlib_Timescale_getTime(host, &hostNow, &status);
    ztsdlib_TimestampCorrelator_correlate(correlator, &hostNow, ZTSDLIB_HOST_TIMESCALE_URI, &remote, &status);
    ztsdlib_TimestampCorrelator_stop(correlator, &status);
    if (status.code >= 0) {
        printf("host    %.9Lf s\n", seconds(&hostNow));
        printf("remote  %.9Lf s\n", seconds(&remote));
        printf("remote - host  %+.6Lf ms\n", (seconds(&remote) - seconds(&hostNow)) * 1000);
    } else {
        fprintf(stderr, "error %d: %s\n", (int)status.code, status.json ? status.json : "");
    }
    const int exitStatus = status.code < 0 ? 2 : 0;

    ztsdlib_TimestampCorrelator_delete(correlator); /* before the timescales it reads */
    ztsdlib_Timescale_delete(host);
    ztsdlib_SyncableDevice_delete(device);
    for (i = 0; i < count; ++i) ztsdlib_Timescale_delete(timescales[i]);
    free(timescales);
    status.reallocate(&status, 0);
    return exitStatus;
}
