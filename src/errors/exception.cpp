#include "errors/exception.h"

#include <cstring>
#include <new>

#include "errors/jsonWriter.h"
#include "errors/status.h"

namespace zterr {

ExceptionBase::ExceptionBase(zterr_Status&& status) noexcept : status_(status) {
    status.json = nullptr;
    status.capacity = 0;
}

ExceptionBase::ExceptionBase(const ExceptionBase& other) noexcept
    : std::exception(other), status_(makeOwnedStatus()) {
    status_.code = other.status_.code;
    if (other.status_.json) placeText(&status_, other.status_.json);
}

ExceptionBase& ExceptionBase::operator=(const ExceptionBase& other) noexcept {
    if (this != &other) {
        releaseStatus(&status_);
        status_ = makeOwnedStatus();
        status_.code = other.status_.code;
        if (other.status_.json) placeText(&status_, other.status_.json);
    }
    return *this;
}

ExceptionBase::~ExceptionBase() { releaseStatus(&status_); }

const char* ExceptionBase::what() const noexcept { return status_.json ? status_.json : ""; }

Detail::Detail(const char* key, const char* value) noexcept
    : key_(key), kind_(Kind::String), text_(value ? value : ""), length_(value ? std::strlen(value) : 0) {}

Detail::Detail(const char* key, const std::string& value) noexcept
    : key_(key), kind_(Kind::String), text_(value.data()), length_(value.size()) {}

Detail Detail::raw(const char* key, const std::string& json) noexcept {
    Detail d;
    d.key_ = key;
    d.kind_ = Kind::Raw;
    d.text_ = json.c_str();
    d.length_ = json.size();
    return d;
}

char* Detail::append(char* position, zterr_JsonCursor* cursor) const noexcept {
    switch (kind_) {
        case Kind::String: return appendString(position, key_, text_, length_, cursor);
        case Kind::Int32: return appendInt32(position, key_, static_cast<std::int32_t>(signed_), cursor);
        case Kind::UInt32: return appendUInt32(position, key_, static_cast<std::uint32_t>(unsigned_), cursor);
        case Kind::Int64: return appendInt64(position, key_, signed_, cursor);
        case Kind::UInt64: return appendUInt64(position, key_, unsigned_, cursor);
        case Kind::Bool: return appendBool(position, key_, boolean_, cursor);
        case Kind::Raw: return appendRaw(position, key_, text_, cursor);
    }
    return nullptr;
}

bool report(zterr_Status* status, const zterr_ErrorSite& site, std::int32_t code, const char* debugKey,
            Details details) noexcept {
    if (!setError(status, code, site)) return false;
    if (!debugKey || details.size() == 0) return true;
    zterr_JsonCursor cursor = beginAppend(status);
    char* p = appendEmptyObject(cursor.position, debugKey, &cursor);
    if (!p) return true;
    p -= 1;  // inside the new object
    for (const Detail& d : details) {
        p = d.append(p, &cursor);
        if (!p) break;
    }
    return true;
}

zterr_Status makeReport(const zterr_ErrorSite& site, std::int32_t code, const char* debugKey,
                        Details details) noexcept {
    zterr_Status status = makeOwnedStatus();
    report(&status, site, code, debugKey, details);
    return status;
}

void raise(const zterr_ErrorSite& site, std::int32_t code, const char* debugKey, Details details) {
    zterr_Status status = makeReport(site, code, debugKey, details);
    throw Exception(std::move(status));
}

void translateCurrentException(zterr_Status* status) noexcept {
    static constexpr const char* kFile = "includes\\zterr/tools/exception_errStatus";
    try {
        throw;
    } catch (ExceptionBase& e) {
        mergeStatus(status, &e.status());
    } catch (const std::bad_alloc& e) {
        if (setError(status, code::ztapalerr_memoryFull, ZTERR_SITE_AT(kFile, 62, name::ztapalerr_memoryFull))) {
            zterr_JsonCursor cursor = beginAppend(status);
            const char* what = e.what();
            appendString(cursor.position, "std_exception_what", what ? what : "Unknown exception", &cursor);
        }
    } catch (const std::exception& e) {
        if (setError(status, code::ztapalerr_softwareFaultAPALInternalUseOnly,
                     ZTERR_SITE_AT(kFile, 69, name::ztapalerr_softwareFaultAPALInternalUseOnly))) {
            zterr_JsonCursor cursor = beginAppend(status);
            const char* what = e.what();
            appendString(cursor.position, "std_exception_what", what ? what : "Unknown exception", &cursor);
        }
    } catch (...) {
        setError(status, code::ztapalerr_softwareFaultAPALInternalUseOnly,
                 ZTERR_SITE_AT(kFile, 74, name::ztapalerr_softwareFaultAPALInternalUseOnly));
    }
}

}  // namespace zterr
