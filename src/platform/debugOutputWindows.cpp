#include "platform/debugOutput.h"

#include <windows.h>

#include <cstdlib>

namespace ztsdlib {
namespace platform {

void writeDebugOutput(const char* text) noexcept {
    if (text) OutputDebugStringA(text);
}

void writeDebugTrace(const char* text) noexcept {
    if (text) OutputDebugStringA(text);
}

void stopProcess() noexcept { std::abort(); }

}  // namespace platform
}  // namespace ztsdlib
