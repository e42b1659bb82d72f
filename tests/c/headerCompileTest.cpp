// The public header compiles as C++ with every warning an error.
#include "ztsdlib/ztsdlib.h"
#include "ztsdlib/ztsdlib.h"  // and guards against double inclusion

static_assert(sizeof(ztsdlib_Timestamp) == 24, "layout seen by C++ callers");
