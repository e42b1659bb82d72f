// The platform's debug output and the deliberate stop of the process on a
// broken invariant. On Linux the debug output is standard error; on Windows
// it is the debugger output (OutputDebugStringA).
#pragma once

namespace ztsdlib {
namespace platform {

// Writes text to the debug output as it stands (no newline is added).
void writeDebugOutput(const char* text) noexcept;

// Stops the process at once (abort): no destructors, no atexit handlers.
[[noreturn]] void stopProcess() noexcept;

}  // namespace platform
}  // namespace ztsdlib
