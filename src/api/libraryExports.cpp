// Exports that belong to no object family.
#include "errors/status.h"
#include "ztsdlib/ztsdlib.h"

extern "C" {

ZTSDLIB_API uint8_t ztsdlib_getApiVersion(void) { return 1; }

ZTSDLIB_API bool ztsdlib_Status_defaultReallocate(zterr_Status* status, uint32_t newCapacity) {
    return zterr::defaultReallocate(status, newCapacity);
}

}  // extern "C"
