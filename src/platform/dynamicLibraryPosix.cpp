#include "platform/dynamicLibrary.h"

#include <dlfcn.h>

#include <utility>

namespace ztsdlib {
namespace platform {

DynamicLibrary DynamicLibrary::openFirst(const std::vector<std::string>& names, std::string& failures) {
    failures.clear();
    DynamicLibrary library;
    for (const std::string& name : names) {
        void* handle = ::dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (handle) {
            library.handle_ = handle;
            library.name_ = name;
            failures.clear();
            return library;
        }
        const char* reason = ::dlerror();
        if (!failures.empty()) failures += "; ";
        failures += name + ": " + (reason ? reason : "not loadable");
    }
    return library;
}

void* DynamicLibrary::symbol(const char* symbolName) const noexcept {
    if (!handle_ || !symbolName) return nullptr;
    return ::dlsym(handle_, symbolName);
}

const std::vector<std::string>& libcurlNames() {
    static const std::vector<std::string> names = {"libcurl.so.4", "libcurl.so"};
    return names;
}

void DynamicLibrary::close() noexcept {
    if (handle_) {
        ::dlclose(handle_);
        handle_ = nullptr;
    }
    name_.clear();
}

}  // namespace platform
}  // namespace ztsdlib
