/*
 * Reads the host's clock through the C interface, prints it as 1601-based
 * seconds and as calendar time, and shows what a failure report looks like.
 */
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include "ztsdlib/ztsdlib.h"

int main(void) {
    zterr_Status status = {0, 0, ztsdlib_Status_defaultReallocate, NULL};
    ztsdlib_Timescale* host = ztsdlib_HostTimescale_create(ZTSDLIB_HOST_TIMESCALE_URI, &status);
    ztsdlib_Timestamp now;
    char* json;
    time_t unixSeconds;

    ztsdlib_Timescale_getTime(host, &now, &status);
    json = ztsdlib_Timescale_toJson(host, &status);
    if (status.code < 0) {
        fprintf(stderr, "error %d: %s\n", (int)status.code, status.json ? status.json : "");
        return 1;
    }
    unixSeconds = (time_t)(now.seconds - 11644473600ULL);
    printf("ztsdlib API version %u\n", (unsigned)ztsdlib_getApiVersion());
    printf("timescale %s\n", json);
    printf("host time %llu.%09u s since 1601-01-01 UTC (%s)", (unsigned long long)now.seconds,
           (unsigned)now.nanos, asctime(gmtime(&unixSeconds)));
    free(json);

    /* A missing argument is reported in the status, never thrown. */
    ztsdlib_Timescale_getTime(host, NULL, &status);
    printf("missing argument -> code %d\n%s\n", (int)status.code, status.json);

    ztsdlib_Timescale_delete(host);
    status.reallocate(&status, 0);
    return 0;
}
