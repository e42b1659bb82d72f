/* Makes a handle through the public interface and never deletes it. In a
 * build with AddressSanitizer, LeakSanitizer must report that handle at exit:
 * the test that runs this passes only on that report, so a run whose leak
 * detection is switched off or blind to the library's allocations fails. */
#include <stdio.h>

#include "ztsdlib/ztsdlib.h"

int main(void) {
    zterr_Status status = {0, 0, ztsdlib_Status_defaultReallocate, NULL};
    ztsdlib_Timescale* forgotten = ztsdlib_HostTimescale_create("/localhost/ztsds/timescales/system", &status);
    if (forgotten == NULL || status.code != 0) {
        fprintf(stderr, "leakCanary: could not create the timescale (%d)\n", (int)status.code);
        return 2;
    }
    forgotten = NULL;
    return 0;
}
