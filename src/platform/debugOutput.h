// The platform's debug output and the deliberate stop of the process on a
// broken invariant. On Linux the debug output is standard error; on Windows
// it is the debugger output (OutputDebugStringA).
#pragma once

namespace ztsdlib {
namespace platform {

// Writes text to the debug output as it stands (no newline is added).
void writeDebugOutput(const char* text) noexcept;

// The chatter of the libraries the library uses (libthrift's messages about
// refused connections, say): the debugger output on Windows. On Linux, which
// has no such channel, it is dropped, so that it never lands in the host
// application's standard error; the failures it describes reach the caller
// through the status anyway.
void writeDebugTrace(const char* text) noexcept;

// Stops the process at once (abort): no destructors, no atexit handlers.
[[noreturn]] void stopProcess() noexcept;

}  // namespace platform
}  // namespace ztsdlib
