// The libcurl entry points the HTTP client uses, resolved at run time.
//
// libcurl is not linked: it is loaded from the system's shared library when
// the first HTTP client is made ("libcurl.so.4", then "libcurl.so") and its
// entry points are looked up by libcurl's standard names. When neither name
// loads, or an entry point is missing, making a client fails with -411351
// "kInternalSoftwareErrorFailedInitialize" whose details name the libraries
// tried and the loader's reasons; nothing else in the library depends on it.
//
// Only the types and constants of libcurl's header are used at compile time.
#pragma once

#include <curl/curl.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/dynamicLibrary.h"

namespace zt {
namespace vela {
namespace shared {

struct CurlApi {
    CURLcode (*global_init)(long flags) = nullptr;
    CURL* (*easy_init)() = nullptr;
    CURLcode (*easy_setopt)(CURL* handle, CURLoption option, ...) = nullptr;
    CURLcode (*easy_perform)(CURL* handle) = nullptr;
    CURLcode (*easy_getinfo)(CURL* handle, CURLINFO info, ...) = nullptr;
    void (*easy_cleanup)(CURL* handle) = nullptr;
    curl_slist* (*slist_append)(curl_slist* list, const char* text) = nullptr;
    void (*slist_free_all)(curl_slist* list) = nullptr;
    // The multi interface, through which every transfer of the process runs
    // (curlTransfers.h). A table filled by hand may leave these null: its
    // clients then perform each transfer with easy_perform.
    CURLM* (*multi_init)() = nullptr;
    CURLMcode (*multi_setopt)(CURLM* multi, CURLMoption option, ...) = nullptr;
    CURLMcode (*multi_add_handle)(CURLM* multi, CURL* handle) = nullptr;
    CURLMcode (*multi_remove_handle)(CURLM* multi, CURL* handle) = nullptr;
    CURLMcode (*multi_perform)(CURLM* multi, int* running) = nullptr;
    CURLMcode (*multi_poll)(CURLM* multi, curl_waitfd* extra, unsigned count, int timeout_ms, int* ready) = nullptr;
    CURLMcode (*multi_wakeup)(CURLM* multi) = nullptr;
    CURLMsg* (*multi_info_read)(CURLM* multi, int* left) = nullptr;
    CURLMcode (*multi_cleanup)(CURLM* multi) = nullptr;

    bool hasMultiInterface() const noexcept {
        return multi_init && multi_setopt && multi_add_handle && multi_remove_handle && multi_perform && multi_poll &&
               multi_wakeup && multi_info_read && multi_cleanup;
    }

    // The library the entry points come from ("" for a table filled by hand).
    std::string libraryName;
    // Keeps that library loaded as long as this table lives.
    std::shared_ptr<ztsdlib::platform::DynamicLibrary> library;

    // The names tried by system(), in order.
    static const std::vector<std::string>& defaultLibraryNames();

    // Loads the first of `names`, resolves every entry point and runs
    // libcurl's global initialisation. Raises -411351 on any failure.
    static std::shared_ptr<const CurlApi> load(const std::vector<std::string>& names);

    // The process-wide table from defaultLibraryNames(), loaded on first use
    // and kept for the life of the process. A failed load raises -411351 and
    // is tried again on the next call. Thread-safe.
    static std::shared_ptr<const CurlApi> system();
};

// Where a client gets its table from; lets tests give a client a library
// that does not load.
using CurlApiSource = std::shared_ptr<const CurlApi> (*)();

}  // namespace shared
}  // namespace vela
}  // namespace zt
