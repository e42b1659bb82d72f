#include "remote/curlLibrary.h"

#include <mutex>

#include "errors/exception.h"

namespace zt {
namespace vela {
namespace shared {

namespace {

constexpr const char* kFile = "source\\ztvela\\curlLibrary";

std::string joined(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& n : names) text += (text.empty() ? "" : ", ") + n;
    return text;
}

template <typename Function>
bool resolve(const ztsdlib::platform::DynamicLibrary& library, const char* name, Function& slot) {
    slot = reinterpret_cast<Function>(library.symbol(name));
    return slot != nullptr;
}

}  // namespace

const std::vector<std::string>& CurlApi::defaultLibraryNames() { return ztsdlib::platform::libcurlNames(); }

std::shared_ptr<const CurlApi> CurlApi::load(const std::vector<std::string>& names) {
    std::string failures;
    auto library = std::make_shared<ztsdlib::platform::DynamicLibrary>(
        ztsdlib::platform::DynamicLibrary::openFirst(names, failures));
    if (!library->isOpen()) {
        zterr::raise(ZTERR_SITE(kFile, zterr::name::kInternalSoftwareErrorFailedInitialize),
                     zterr::code::kInternalSoftwareErrorFailedInitialize, "ztsyncdomain_debug",
                     {{"message", "Unable to load the libcurl shared library."},
                      {"librariesTried", joined(names)},
                      {"loaderErrors", failures}});
    }

    auto api = std::make_shared<CurlApi>();
    api->libraryName = library->name();
    struct Entry {
        const char* name;
        bool found;
    };
    const Entry entries[] = {
        {"curl_global_init", resolve(*library, "curl_global_init", api->global_init)},
        {"curl_easy_init", resolve(*library, "curl_easy_init", api->easy_init)},
        {"curl_easy_setopt", resolve(*library, "curl_easy_setopt", api->easy_setopt)},
        {"curl_easy_perform", resolve(*library, "curl_easy_perform", api->easy_perform)},
        {"curl_easy_getinfo", resolve(*library, "curl_easy_getinfo", api->easy_getinfo)},
        {"curl_easy_cleanup", resolve(*library, "curl_easy_cleanup", api->easy_cleanup)},
        {"curl_slist_append", resolve(*library, "curl_slist_append", api->slist_append)},
        {"curl_slist_free_all", resolve(*library, "curl_slist_free_all", api->slist_free_all)},
        {"curl_multi_init", resolve(*library, "curl_multi_init", api->multi_init)},
        {"curl_multi_setopt", resolve(*library, "curl_multi_setopt", api->multi_setopt)},
        {"curl_multi_add_handle", resolve(*library, "curl_multi_add_handle", api->multi_add_handle)},
        {"curl_multi_remove_handle", resolve(*library, "curl_multi_remove_handle", api->multi_remove_handle)},
        {"curl_multi_perform", resolve(*library, "curl_multi_perform", api->multi_perform)},
        {"curl_multi_poll", resolve(*library, "curl_multi_poll", api->multi_poll)},
        {"curl_multi_wakeup", resolve(*library, "curl_multi_wakeup", api->multi_wakeup)},
        {"curl_multi_info_read", resolve(*library, "curl_multi_info_read", api->multi_info_read)},
        {"curl_multi_cleanup", resolve(*library, "curl_multi_cleanup", api->multi_cleanup)},
    };
    for (const Entry& e : entries) {
        if (e.found) continue;
        zterr::raise(ZTERR_SITE(kFile, zterr::name::kInternalSoftwareErrorFailedInitialize),
                     zterr::code::kInternalSoftwareErrorFailedInitialize, "ztsyncdomain_debug",
                     {{"message", "The loaded libcurl library lacks an entry point."},
                      {"library", library->name()},
                      {"missingEntryPoint", e.name},
                      {"librariesTried", joined(names)}});
    }

    const CURLcode init = api->global_init(CURL_GLOBAL_DEFAULT);
    if (init != CURLE_OK) {
        zterr::raise(ZTERR_SITE(kFile, zterr::name::kInternalSoftwareErrorFailedInitialize),
                     zterr::code::kInternalSoftwareErrorFailedInitialize, "ztsyncdomain_debug",
                     {{"message", "libcurl's global initialisation failed."},
                      {"function", "curl_global_init(CURL_GLOBAL_DEFAULT)"},
                      {"CURLcode", static_cast<int>(init)},
                      {"library", library->name()}});
    }
    api->library = std::move(library);
    return api;
}

std::shared_ptr<const CurlApi> CurlApi::system() {
    // Loaded once and never released: handles may live until the process ends.
    static std::mutex mutex;
    static std::shared_ptr<const CurlApi>* loaded = nullptr;
    std::lock_guard<std::mutex> lock(mutex);
    if (!loaded) loaded = new std::shared_ptr<const CurlApi>(load(defaultLibraryNames()));
    return *loaded;
}

}  // namespace shared
}  // namespace vela
}  // namespace zt
