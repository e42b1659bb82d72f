#include "platform/debugOutput.h"

#include <cstdio>
#include <cstdlib>

namespace ztsdlib {
namespace platform {

void writeDebugOutput(const char* text) noexcept {
    if (!text) return;
    std::fputs(text, stderr);
    std::fflush(stderr);
}

void writeDebugTrace(const char* text) noexcept { (void)text; }

void stopProcess() noexcept { std::abort(); }

}  // namespace platform
}  // namespace ztsdlib
