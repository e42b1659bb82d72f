/* A program built against an installed ztsdlib only. */
#include <stdio.h>
#include <stdlib.h>

#include <ztsdlib/ztsdlib.h>

int main(void) {
    zterr_Status status = {0, 0, ztsdlib_Status_defaultReallocate, NULL};
    ztsdlib_Timescale* host = ztsdlib_HostTimescale_create(ZTSDLIB_HOST_TIMESCALE_URI, &status);
    ztsdlib_Timestamp now;
    ztsdlib_Timescale_getTime(host, &now, &status);
    ztsdlib_Timescale_delete(host);
    if (status.code != 0 || now.seconds < 13000000000ULL || ztsdlib_getApiVersion() != 1) {
        fprintf(stderr, "installed ztsdlib misbehaves: code %d\n", (int)status.code);
        return 1;
    }
    printf("installed ztsdlib works\n");
    return 0;
}
