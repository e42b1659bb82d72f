// The library's error exception and the helper that raises it.
//
// Inside the library a failure travels as zterr::Exception, which carries a
// complete status record (code and JSON report) built by the raiser. The
// export frame merges that record into the caller's status; nothing of this
// family ever crosses the exported boundary.
//
// Raisers read like the failure they describe:
//   zterr::raise(ZTERR_SITE(kFile, name::ztapalerr_invalidParameter),
//                code::ztapalerr_invalidParameter, "ztsyncdomain_debug",
//                {{"message", "Max history size needs to be >= 2."}, {"maxHistorySize", size}});
// The details go, in order, into a diagnostic object under the debug key.
#pragma once

#include <cstdint>
#include <exception>
#include <initializer_list>
#include <string>
#include <type_traits>

#include "errors/errorCodes.h"
#include "errors/errorSite.h"
#include "ztsdlib/ztsdlib.h"

struct zterr_JsonCursor;

namespace zterr {

class ExceptionBase : public std::exception {
public:
    // Takes over the record (its buffer is released through its callback).
    explicit ExceptionBase(zterr_Status&& status) noexcept;
    ExceptionBase(const ExceptionBase& other) noexcept;
    ExceptionBase& operator=(const ExceptionBase& other) noexcept;
    ~ExceptionBase() override;

    std::int32_t code() const noexcept { return status_.code; }
    const zterr_Status& status() const noexcept { return status_; }
    zterr_Status& status() noexcept { return status_; }
    // The JSON report, or the empty text when none could be written.
    const char* what() const noexcept override;

private:
    zterr_Status status_;
};

class Exception : public ExceptionBase {
public:
    using ExceptionBase::ExceptionBase;
};

// One key/value detail of a report. String details refer to the caller's
// text, which lives until the end of the raising expression.
class Detail {
public:
    enum class Kind { String, Int32, UInt32, Int64, UInt64, Bool, Raw };

    Detail(const char* key, const char* value) noexcept;
    Detail(const char* key, const std::string& value) noexcept;
    Detail(const char* key, bool value) noexcept : key_(key), kind_(Kind::Bool), boolean_(value) {}
    template <typename T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>, int> = 0>
    Detail(const char* key, T value) noexcept : key_(key) {
        if constexpr (std::is_signed_v<T>) {
            kind_ = sizeof(T) <= 4 ? Kind::Int32 : Kind::Int64;
            signed_ = value;
        } else {
            kind_ = sizeof(T) <= 4 ? Kind::UInt32 : Kind::UInt64;
            unsigned_ = value;
        }
    }
    // A value copied into the report as JSON text, not quoted.
    static Detail raw(const char* key, const std::string& json) noexcept;

    // Appends this detail at position; returns the next position or null.
    char* append(char* position, ::zterr_JsonCursor* cursor) const noexcept;

private:
    Detail() noexcept = default;
    const char* key_ = nullptr;
    Kind kind_ = Kind::String;
    const char* text_ = nullptr;
    std::size_t length_ = 0;
    std::int64_t signed_ = 0;
    std::uint64_t unsigned_ = 0;
    bool boolean_ = false;
};

using Details = std::initializer_list<Detail>;

// setError, then the details inside an object under debugKey (when the code
// was taken and there are details). True when the code was taken.
bool report(zterr_Status* status, const zterr_ErrorSite& site, std::int32_t code, const char* debugKey,
            Details details) noexcept;

// A fresh record (defaultReallocate) holding that report.
zterr_Status makeReport(const zterr_ErrorSite& site, std::int32_t code, const char* debugKey,
                        Details details) noexcept;

// Throws zterr::Exception with that report.
[[noreturn]] void raise(const zterr_ErrorSite& site, std::int32_t code, const char* debugKey, Details details);

}  // namespace zterr
