// The one frame every export runs in:
//  1. a status that already holds an error (code < 0) makes the call a
//     no-op returning the failure value; warnings pass;
//  2. pointer arguments are checked in parameter order, and the first null
//     one is reported as -52005 "ztapalerr_invalidParameter" with a
//     "ztsyncdomain_debug" object naming it;
//  3. the operation runs inside a catch-all handler that translates any
//     exception into the status;
//  4. its result is returned (the failure value after an exception).
// A null status pointer makes the export return its failure value at once.
//
// Use through ZTSD_EXPORT so that the report names the line of the export:
//   return ZTSD_EXPORT(status, nullptr, ({{"handle", handle}}), [&] { return ...; });
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <new>
#include <string>
#include <type_traits>

#include "errors/status.h"
#include "ztsdlib/ztsdlib.h"

namespace ztsdlib {
namespace api {

// Source label that export reports carry in "file".
constexpr const char* kExportFile = "objects\\codegen\\ztsdlib\\ztsdlib";

struct Param {
    const char* name;
    const void* value;
};

// Reports the first null parameter; true when one was null.
bool reportMissingParameter(zterr_Status* status, std::int32_t line, std::initializer_list<Param> params) noexcept;

template <typename T>
struct NonDeduced {
    using type = T;
};

template <typename Op, typename Result = std::invoke_result_t<Op&>>
Result guardedCall(zterr_Status* status, std::int32_t line, std::initializer_list<Param> params, Op&& op,
                   typename NonDeduced<Result>::type failure) noexcept {
    if (!status || status->code < 0) return failure;
    if (reportMissingParameter(status, line, params)) return failure;
    try {
        return op();
    } catch (...) {
        zterr::translateCurrentException(status);
        return failure;
    }
}

template <typename Op>
void guardedCallVoid(zterr_Status* status, std::int32_t line, std::initializer_list<Param> params,
                     Op&& op) noexcept {
    if (!status || status->code < 0) return;
    if (reportMissingParameter(status, line, params)) return;
    try {
        op();
    } catch (...) {
        zterr::translateCurrentException(status);
    }
}

// A caller-owned copy of text made with the C runtime, for toJson exports.
inline char* duplicateForCaller(const std::string& text) {
    char* copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (!copy) throw std::bad_alloc();
    std::memcpy(copy, text.c_str(), text.size() + 1);
    return copy;
}

template <typename Interface, typename Handle>
Interface* objectOf(Handle* handle) noexcept {
    return reinterpret_cast<Interface*>(handle);
}

template <typename Handle, typename Interface>
Handle* handleOf(Interface* object) noexcept {
    return reinterpret_cast<Handle*>(object);
}

}  // namespace api
}  // namespace ztsdlib

#define ZTSD_EXPORT(status, failure, params, ...) \
    ::ztsdlib::api::guardedCall(status, __LINE__, std::initializer_list<::ztsdlib::api::Param> params, __VA_ARGS__, failure)
#define ZTSD_EXPORT_VOID(status, params, ...) \
    ::ztsdlib::api::guardedCallVoid(status, __LINE__, std::initializer_list<::ztsdlib::api::Param> params, __VA_ARGS__)
