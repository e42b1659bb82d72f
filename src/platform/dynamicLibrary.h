// Run-time loading of shared libraries and lookup of their entry points.
// The only place in the library that calls the system's dynamic loader.
#pragma once

#include <string>
#include <vector>

namespace ztsdlib {
namespace platform {

class DynamicLibrary {
public:
    // Loads the first of `names` that the system loader accepts (resolving
    // all symbols now, keeping them local to the library). On failure the
    // result is not open and `failures` lists each name with the loader's
    // reason, separated by "; ".
    static DynamicLibrary openFirst(const std::vector<std::string>& names, std::string& failures);

    DynamicLibrary() noexcept = default;
    ~DynamicLibrary();  // unloads (the system keeps it while others use it)
    DynamicLibrary(DynamicLibrary&& other) noexcept;
    DynamicLibrary& operator=(DynamicLibrary&& other) noexcept;
    DynamicLibrary(const DynamicLibrary&) = delete;
    DynamicLibrary& operator=(const DynamicLibrary&) = delete;

    bool isOpen() const noexcept { return handle_ != nullptr; }
    // The name it was loaded by ("" when not open).
    const std::string& name() const noexcept { return name_; }
    // The address of an entry point, or null when the library has none of
    // that name (or is not open).
    void* symbol(const char* symbolName) const noexcept;

private:
    void close() noexcept;
    void* handle_ = nullptr;
    std::string name_;
};

}  // namespace platform
}  // namespace ztsdlib
