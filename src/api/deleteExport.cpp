// The one delete entry point behind every family's _delete export. It does
// not include the public header: the four exports are the same function
// under four names (aliases), each declared there with its own handle type.
// Each name is exported like every other export of the header (ZTSDLIB_API
// there): visible in the shared object, dllexport in the DLL.
#include "core/exportedObject.h"

#if defined(_WIN32)
#define ZTSD_DELETE_EXPORT __declspec(dllexport)
#else
#define ZTSD_DELETE_EXPORT __attribute__((visibility("default")))
#endif
#define ZTSD_DELETE_ALIAS ZTSD_DELETE_EXPORT __attribute__((alias("ztsdlib_Timescale_delete")))

extern "C" {

// Invokes the object's virtual deleting destructor; a null handle is ignored.
// Nothing is reported: deletion never fails.
ZTSD_DELETE_EXPORT void ztsdlib_Timescale_delete(void* handle) noexcept {
    delete static_cast<ztsdlib::ExportedObject*>(handle);
}

ZTSD_DELETE_ALIAS void ztsdlib_TimestampCorrelator_delete(void* handle) noexcept;
ZTSD_DELETE_ALIAS void ztsdlib_SyncableDevice_delete(void* handle) noexcept;
ZTSD_DELETE_ALIAS void ztsdlib_SyncDomain_delete(void* handle) noexcept;

}  // extern "C"
