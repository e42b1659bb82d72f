// How many file descriptors (sockets included) the process may hold open.
#pragma once

#include <cstdint>

namespace ztsdlib {
namespace platform {

// The process's current (soft) limit of open descriptors, or 0 when the
// system sets none that a process meets in practice or does not say.
std::uint64_t openDescriptorLimit() noexcept;

}  // namespace platform
}  // namespace ztsdlib
