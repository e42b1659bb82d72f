#include "platform/descriptors.h"

namespace ztsdlib {
namespace platform {

// Sockets are kernel handles there, limited by memory rather than by a count
// a process could read and meet: no limit to state.
std::uint64_t openDescriptorLimit() noexcept { return 0; }

}  // namespace platform
}  // namespace ztsdlib
