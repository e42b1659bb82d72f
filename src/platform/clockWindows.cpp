#include "platform/clock.h"

#include <windows.h>

namespace ztsdlib {
namespace platform {
namespace {

using SystemTimeFunction = VOID(WINAPI*)(LPFILETIME);

// GetSystemTimePreciseAsFileTime (Windows 8 and later) gives the same count
// as GetSystemTimeAsFileTime but to the tick of the performance counter; the
// plain call steps in 1-16 ms, which would put that much noise on every
// sample a correlator takes. The plain call serves where the precise one is
// missing.
SystemTimeFunction systemTimeFunction() noexcept {
    HMODULE kernel = GetModuleHandleW(L"kernel32.dll");
    FARPROC precise = kernel ? GetProcAddress(kernel, "GetSystemTimePreciseAsFileTime") : nullptr;
    return precise ? reinterpret_cast<SystemTimeFunction>(reinterpret_cast<void*>(precise)) : &GetSystemTimeAsFileTime;
}

std::int64_t queryFrequency() noexcept {
    LARGE_INTEGER frequency{};
    QueryPerformanceFrequency(&frequency);  // never fails from Windows XP on
    return frequency.QuadPart > 0 ? frequency.QuadPart : 1;
}

}  // namespace

std::uint64_t systemTime100nsSince1601() noexcept {
    static const SystemTimeFunction read = systemTimeFunction();
    FILETIME time{};
    read(&time);
    return (static_cast<std::uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}

std::int64_t steadyCounter() noexcept {
    LARGE_INTEGER counter{};
    QueryPerformanceCounter(&counter);
    return counter.QuadPart;
}

std::int64_t steadyFrequency() noexcept {
    static const std::int64_t frequency = queryFrequency();
    return frequency;
}

}  // namespace platform
}  // namespace ztsdlib
