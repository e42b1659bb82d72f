// What a loaded library's handle does the same way on every system: it is
// moved, never copied, and closed when it goes. Loading, lookup and closing
// are the system's (dynamicLibraryPosix.cpp, dynamicLibraryWindows.cpp).
#include "platform/dynamicLibrary.h"

#include <utility>

namespace ztsdlib {
namespace platform {

DynamicLibrary::~DynamicLibrary() { close(); }

DynamicLibrary::DynamicLibrary(DynamicLibrary&& other) noexcept
    : handle_(std::exchange(other.handle_, nullptr)), name_(std::move(other.name_)) {}

DynamicLibrary& DynamicLibrary::operator=(DynamicLibrary&& other) noexcept {
    if (this != &other) {
        close();
        handle_ = std::exchange(other.handle_, nullptr);
        name_ = std::move(other.name_);
    }
    return *this;
}

}  // namespace platform
}  // namespace ztsdlib
