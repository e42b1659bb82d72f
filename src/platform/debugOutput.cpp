#include "platform/debugOutput.h"

#include <cstdio>
#include <cstdlib>

#if defined(_WIN32)
#include <windows.h>
#endif

namespace ztsdlib {
namespace platform {

void writeDebugOutput(const char* text) noexcept {
    if (!text) return;
#if defined(_WIN32)
    OutputDebugStringA(text);
#else
    std::fputs(text, stderr);
    std::fflush(stderr);
#endif
}

void writeDebugTrace(const char* text) noexcept {
#if defined(_WIN32)
    if (text) OutputDebugStringA(text);
#else
    (void)text;
#endif
}

void stopProcess() noexcept { std::abort(); }

}  // namespace platform
}  // namespace ztsdlib
