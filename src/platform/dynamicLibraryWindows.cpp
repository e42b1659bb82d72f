#include "platform/dynamicLibrary.h"

#include <windows.h>

#include <utility>

namespace ztsdlib {
namespace platform {
namespace {

// UTF-8 to UTF-16 and back, for the wide-character API (paths may hold any
// character; the narrow API would take them in the user's code page).
std::wstring widen(const std::string& text) {
    if (text.empty()) return {};
    const int length = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    if (length <= 0) return {};
    std::wstring wide(static_cast<std::size_t>(length), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &wide[0], length);
    return wide;
}

std::string narrow(const wchar_t* text, std::size_t size) {
    if (size == 0) return {};
    const int length =
        WideCharToMultiByte(CP_UTF8, 0, text, static_cast<int>(size), nullptr, 0, nullptr, nullptr);
    if (length <= 0) return {};
    std::string utf8(static_cast<std::size_t>(length), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text, static_cast<int>(size), &utf8[0], length, nullptr, nullptr);
    return utf8;
}

// The system's text for an error code, without its trailing line break.
std::string systemMessage(DWORD error) {
    wchar_t* buffer = nullptr;
    const DWORD length =
        FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                       nullptr, error, 0, reinterpret_cast<wchar_t*>(&buffer), 0, nullptr);
    std::string text = buffer ? narrow(buffer, length) : std::string();
    if (buffer) LocalFree(buffer);
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ')) text.pop_back();
    return text.empty() ? "error " + std::to_string(error) : text + " (error " + std::to_string(error) + ")";
}

// The directory (with its trailing separator) of the module this code is in:
// the DLL's own directory when the library is a DLL.
std::string ownDirectory() {
    HMODULE self = nullptr;
    if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                            reinterpret_cast<LPCWSTR>(&ownDirectory), &self))
        return {};
    std::wstring path(MAX_PATH, L'\0');
    for (;;) {
        const DWORD length = GetModuleFileNameW(self, &path[0], static_cast<DWORD>(path.size()));
        if (length == 0) return {};
        if (length < path.size()) {
            path.resize(length);
            break;
        }
        if (path.size() >= 32768) return {};  // no Windows path is longer
        path.resize(path.size() * 2);
    }
    const std::size_t slash = path.find_last_of(L"\\/");
    return slash == std::wstring::npos ? std::string() : narrow(path.data(), slash + 1);
}

bool hasDirectory(const std::string& name) { return name.find_first_of("\\/:") != std::string::npos; }

}  // namespace

DynamicLibrary DynamicLibrary::openFirst(const std::vector<std::string>& names, std::string& failures) {
    failures.clear();
    DynamicLibrary library;
    const std::string directory = ownDirectory();
    for (const std::string& name : names) {
        std::vector<std::string> places;
        if (!hasDirectory(name) && !directory.empty()) places.push_back(directory + name);
        places.push_back(name);
        for (const std::string& place : places) {
            // No error dialog for a missing or broken DLL: the caller is told.
            const UINT previous = SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX);
            HMODULE handle = LoadLibraryW(widen(place).c_str());
            const DWORD error = GetLastError();
            SetErrorMode(previous);
            if (handle) {
                library.handle_ = handle;
                library.name_ = place;
                failures.clear();
                return library;
            }
            if (!failures.empty()) failures += "; ";
            failures += place + ": " + systemMessage(error);
        }
    }
    return library;
}

void* DynamicLibrary::symbol(const char* symbolName) const noexcept {
    if (!handle_ || !symbolName) return nullptr;
    return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(handle_), symbolName));
}

void DynamicLibrary::close() noexcept {
    if (handle_) {
        FreeLibrary(static_cast<HMODULE>(handle_));
        handle_ = nullptr;
    }
    name_.clear();
}

const std::vector<std::string>& libcurlNames() {
    static const std::vector<std::string> names = {"libcurl.dll", "libcurl-x64.dll", "libcurl-4.dll"};
    return names;
}

}  // namespace platform
}  // namespace ztsdlib
