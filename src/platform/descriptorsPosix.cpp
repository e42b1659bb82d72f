#include "platform/descriptors.h"

#include <sys/resource.h>

namespace ztsdlib {
namespace platform {

std::uint64_t openDescriptorLimit() noexcept {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return 0;
    return static_cast<std::uint64_t>(limit.rlim_cur);
}

}  // namespace platform
}  // namespace ztsdlib
