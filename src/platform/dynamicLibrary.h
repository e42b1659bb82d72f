// Run-time loading of shared libraries and lookup of their entry points.
// The only place in the library that calls the system's dynamic loader.
#pragma once

#include <string>
#include <vector>

namespace ztsdlib {
namespace platform {

class DynamicLibrary {
public:
    // Loads the first of `names` that the system loader accepts. On Linux a
    // name goes to the dynamic loader as it is (symbols resolved now, kept
    // local to the library). On Windows a name without a directory is looked
    // for first in the directory this library's own DLL was loaded from (the
    // installation's directory), then by the system's search order; names
    // are UTF-8 and loaded through the wide-character API. On failure the
    // result is not open and `failures` names every place tried with the
    // loader's reason, separated by "; ".
    static DynamicLibrary openFirst(const std::vector<std::string>& names, std::string& failures);

    DynamicLibrary() noexcept = default;
    ~DynamicLibrary();  // unloads (the system keeps it while others use it)
    DynamicLibrary(DynamicLibrary&& other) noexcept;
    DynamicLibrary& operator=(DynamicLibrary&& other) noexcept;
    DynamicLibrary(const DynamicLibrary&) = delete;
    DynamicLibrary& operator=(const DynamicLibrary&) = delete;

    bool isOpen() const noexcept { return handle_ != nullptr; }
    // The name (or, on Windows, the path) it was loaded by ("" when not open).
    const std::string& name() const noexcept { return name_; }
    // The address of an entry point, or null when the library has none of
    // that name (or is not open).
    void* symbol(const char* symbolName) const noexcept;

private:
    void close() noexcept;
    void* handle_ = nullptr;
    std::string name_;
};

// The names libcurl's shared library goes by on this system, in the order
// they are tried: "libcurl.so.4", "libcurl.so" on Linux; "libcurl.dll" (the
// name the Windows package ships), "libcurl-x64.dll", "libcurl-4.dll" on
// Windows.
const std::vector<std::string>& libcurlNames();

}  // namespace platform
}  // namespace ztsdlib
