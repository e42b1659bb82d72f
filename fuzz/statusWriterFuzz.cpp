// The status record and its in-place report writer, driven by fuzz bytes.
//
// One input is a program: a choice of allocation callback, then up to 64
// operations on one record: setError, report, the append functions at the
// end of the current container (strings with any bytes as keys and values,
// numbers, booleans, raw JSON, nested objects and arrays), an insertion at
// the opening brace, mergeStatus and attachNestedError with records of their
// own, the translation of a thrown exception, and release.
//
// The callback is one of: the library's defaultReallocate; none; or the
// fuzz allocator below, which gives exactly what is asked for (plus a
// fuzz-chosen slack), leaves garbage behind the text (the callback's
// contract keeps only the text), and at a fuzz-chosen call refuses, or
// reports success without growing anything.
//
// After every operation the record must hold no text, an empty text (the
// documented outcome when not even "{}" fits), or one JSON object that the
// strict validator accepts, with its NUL inside the buffer. A member that an
// append reports written must read back (through cJSON) as the key and value
// that were given, up to the value's first NUL byte (which is where cJSON's
// strings end). Leaks are LeakSanitizer reports.
#include <fuzzer/FuzzedDataProvider.h>

#include <cjson/cJSON.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "errors/exception.h"
#include "errors/jsonWriter.h"
#include "errors/status.h"
#include "fuzzSupport.h"

namespace {

using ztsdfuzz::fail;
using ztsdfuzz::require;

// ---- the fuzz allocation callback -----------------------------------------

struct AllocatorScript {
    unsigned calls = 0;          // growth requests seen (n > 0)
    unsigned misbehaveAt = 0;    // 1-based index of the request that misbehaves; 0: none
    bool refuseFromThenOn = false;
    bool lieInstead = false;     // report success without growing, instead of refusing
    std::uint32_t slack = 0;     // extra bytes beyond the request
};
AllocatorScript script;

bool fuzzReallocate(zterr_Status* status, std::uint32_t newCapacity) {
    if (newCapacity == 0) {
        std::free(status->json);
        status->json = nullptr;
        status->capacity = 0;
        return true;
    }
    const unsigned call = ++script.calls;
    const bool misbehave =
        script.misbehaveAt != 0 && (call == script.misbehaveAt || (script.refuseFromThenOn && call > script.misbehaveAt));
    if (misbehave) return script.lieInstead;
    if (status->json && newCapacity <= status->capacity) return true;
    if (newCapacity > 0x7FFFFFFFu) return false;
    const std::uint32_t size = newCapacity + script.slack;
    char* buffer = static_cast<char*>(std::malloc(size));
    if (!buffer) return false;
    std::memset(buffer, 0xAA, size);  // whatever follows the text is not the callback's concern
    if (status->json) {
        const std::size_t length = strnlen(status->json, status->capacity);
        require(length < status->capacity, "record text without a NUL inside its buffer");
        require(length < size, "callback asked for less than the text");
        std::memcpy(buffer, status->json, length + 1);
    }
    std::free(status->json);
    status->json = buffer;
    status->capacity = size;
    return true;
}

// ---- checks -----------------------------------------------------------------

void checkRecord(const zterr_Status& s, const char* where) {
    if (!s.json) return;
    require(s.capacity > 0, where, "text without capacity");
    const std::size_t length = strnlen(s.json, s.capacity);
    require(length < s.capacity, where, "text runs to the end of its buffer");
    if (length == 0) return;
    ztsdfuzz::requireJsonObject(s.json, where);
}

// What cJSON reads back from a string value: up to its first NUL.
std::string cut(const std::string& text) { return text.substr(0, std::strlen(text.c_str())); }

// The member just written ([begin, end) of the record's text, with its comma)
// read back with cJSON must be the given key and string value.
void checkWrittenString(const zterr_Status& s, std::size_t begin, const char* end, const char* key,
                        const std::string& value) {
    std::string member(static_cast<const char*>(s.json + begin), end);
    if (!member.empty() && member[0] == ',') member.erase(0, 1);
    if (!member.empty() && member.back() == ',') member.pop_back();  // inserted as a first member
    const std::string wrapped = key ? "{" + member + "}" : "[" + member + "]";
    cJSON* root = cJSON_Parse(wrapped.c_str());
    if (!root) fail("written member does not parse", wrapped);
    const cJSON* item = root->child;
    const bool sameKey = !key || (item && item->string && std::string(item->string) == cut(key));
    const bool sameValue = item && cJSON_IsString(item) && std::string(item->valuestring) == cut(value);
    cJSON_Delete(root);
    if (!sameKey || !sameValue) fail("written member reads back differently", wrapped);
}

// ---- the program ------------------------------------------------------------

// report() with a list of up to four details made at run time.
void reportWith(zterr_Status* s, const zterr_ErrorSite& site, std::int32_t code, const char* debugKey,
                const std::vector<zterr::Detail>& d) {
    switch (d.size()) {
        case 0: zterr::report(s, site, code, debugKey, {}); break;
        case 1: zterr::report(s, site, code, debugKey, {d[0]}); break;
        case 2: zterr::report(s, site, code, debugKey, {d[0], d[1]}); break;
        case 3: zterr::report(s, site, code, debugKey, {d[0], d[1], d[2]}); break;
        default: zterr::report(s, site, code, debugKey, {d[0], d[1], d[2], d[3]}); break;
    }
}

struct Program {
    explicit Program(FuzzedDataProvider& in) : in(in) {}

    FuzzedDataProvider& in;
    std::deque<std::string> keep;  // texts that details and sites point into (stable addresses)

    const char* text(std::size_t maxLength) {
        keep.push_back(in.ConsumeRandomLengthString(maxLength));
        return keep.back().c_str();
    }
    const std::string& bytes(std::size_t maxLength) {
        keep.push_back(in.ConsumeRandomLengthString(maxLength));
        return keep.back();
    }
    // A raw JSON value: the fuzz text when it validates, else null.
    const std::string& rawJson() {
        static const std::string kNull = "null";
        const std::string& candidate = bytes(48);
        return ztsdfuzz::validatesStrictly(candidate) && candidate.find('\0') == std::string::npos ? candidate : kNull;
    }
    zterr_ReallocateFunction callback() {
        switch (in.ConsumeIntegralInRange(0, 3)) {
            case 0: return &zterr::defaultReallocate;
            case 1: return nullptr;
            default: return &fuzzReallocate;
        }
    }
    std::int32_t code() {
        switch (in.ConsumeIntegralInRange(0, 3)) {
            case 0: return 0;
            case 1: return in.ConsumeIntegralInRange<std::int32_t>(1, 500000);
            case 2: return -in.ConsumeIntegralInRange<std::int32_t>(1, 500000);
            default: return in.ConsumeIntegral<std::int32_t>();
        }
    }
    zterr_ErrorSite site() {
        zterr_ErrorSite s{};
        s.file = in.ConsumeBool() ? text(24) : nullptr;
        s.line = in.ConsumeIntegral<std::int32_t>();
        s.component = in.ConsumeBool() ? text(12) : nullptr;
        s.errorConstant = text(24);
        return s;
    }
    std::vector<zterr::Detail> details() {
        std::vector<zterr::Detail> list;
        const int n = in.ConsumeIntegralInRange(0, 4);
        for (int i = 0; i < n; ++i) {
            const char* key = text(16);
            switch (in.ConsumeIntegralInRange(0, 5)) {
                case 0: list.emplace_back(key, bytes(40)); break;
                case 1: list.emplace_back(key, in.ConsumeIntegral<std::int32_t>()); break;
                case 2: list.emplace_back(key, in.ConsumeIntegral<std::uint64_t>()); break;
                case 3: list.emplace_back(key, in.ConsumeIntegral<std::int64_t>()); break;
                case 4: list.emplace_back(key, in.ConsumeBool()); break;
                default: list.push_back(zterr::Detail::raw(key, rawJson())); break;
            }
        }
        return list;
    }
    // A second record, filled by report() (or left empty).
    zterr_Status otherRecord(zterr_ReallocateFunction callback) {
        zterr_Status other{0, 0, callback, nullptr};
        if (in.ConsumeBool()) {
            const std::vector<zterr::Detail> list = details();
            const zterr_ErrorSite where = site();
            const std::int32_t c = code();
            const char* debugKey = in.ConsumeBool() ? text(16) : nullptr;
            reportWith(&other, where, c, debugKey, list);
        }
        checkRecord(other, "second record");
        // The library's own callback never refuses, so its reports are complete.
        if (callback == &zterr::defaultReallocate && other.code != 0)
            ztsdfuzz::requireValidReport(other.json, "second record");
        return other;
    }
};

void run(FuzzedDataProvider& in) {
    script = AllocatorScript{};
    script.misbehaveAt = in.ConsumeIntegralInRange<unsigned>(0, 12);
    script.refuseFromThenOn = in.ConsumeBool();
    script.lieInstead = in.ConsumeBool();
    script.slack = in.ConsumeIntegralInRange<std::uint32_t>(0, 40);

    Program program(in);
    zterr_Status s{0, 0, program.callback(), nullptr};
    zterr_JsonCursor cursor{};
    char* position = nullptr;
    std::vector<char> open;  // containers entered below the top-level object

    auto restartCursor = [&] {
        cursor = zterr::beginAppend(&s);
        position = cursor.position;
        open.clear();
    };
    auto inArray = [&] { return !open.empty() && open.back() == '['; };
    restartCursor();

    for (int step = 0; step < 64 && in.remaining_bytes() > 0; ++step) {
        const std::size_t before = position && s.json ? static_cast<std::size_t>(position - s.json) : 0;
        switch (in.ConsumeIntegralInRange(0, 13)) {
            case 0: {  // a string member at the end of the current container
                const char* key = inArray() ? nullptr : program.text(24);
                const std::string& value = program.bytes(64);
                char* next = zterr::appendString(position, key, value.data(), value.size(), &cursor);
                if (next) checkWrittenString(s, before, next, key, value);
                position = next;
                break;
            }
            case 1: {  // a number or a boolean
                const char* key = inArray() ? nullptr : program.text(16);
                switch (in.ConsumeIntegralInRange(0, 4)) {
                    case 0: position = zterr::appendInt32(position, key, in.ConsumeIntegral<std::int32_t>(), &cursor); break;
                    case 1: position = zterr::appendUInt32(position, key, in.ConsumeIntegral<std::uint32_t>(), &cursor); break;
                    case 2: position = zterr::appendInt64(position, key, in.ConsumeIntegral<std::int64_t>(), &cursor); break;
                    case 3: position = zterr::appendUInt64(position, key, in.ConsumeIntegral<std::uint64_t>(), &cursor); break;
                    default: position = zterr::appendBool(position, key, in.ConsumeBool(), &cursor); break;
                }
                break;
            }
            case 2: {  // raw JSON
                const char* key = inArray() ? nullptr : program.text(16);
                position = zterr::appendRaw(position, key, program.rawJson().c_str(), &cursor);
                break;
            }
            case 3: {  // enter a new object or array
                const char* key = inArray() ? nullptr : program.text(16);
                const bool array = in.ConsumeBool();
                char* next = array ? zterr::appendEmptyArray(position, key, &cursor)
                                   : zterr::appendEmptyObject(position, key, &cursor);
                if (next) {
                    position = next - 1;
                    open.push_back(array ? '[' : '{');
                } else {
                    position = nullptr;
                }
                break;
            }
            case 4:  // leave the current container
                if (!open.empty() && position) {
                    position += 1;
                    open.pop_back();
                }
                break;
            case 5:  // the line member
                if (!inArray()) position = zterr::appendLine(position, in.ConsumeIntegral<std::int32_t>(), &cursor);
                break;
            case 6: {  // insert as the first member of the top-level object
                if (s.json && s.json[0] == '{') {
                    const char* key = program.text(16);
                    const std::string& value = program.bytes(32);
                    char* next = zterr::appendString(s.json, key, value.data(), value.size(), &cursor);
                    if (next) checkWrittenString(s, 1, next, key, value);
                }
                restartCursor();
                break;
            }
            case 7:
                zterr::setError(&s, program.code(), program.site());
                restartCursor();
                break;
            case 8: {
                const std::vector<zterr::Detail> list = program.details();
                const zterr_ErrorSite where = program.site();
                const std::int32_t c = program.code();
                const char* debugKey = in.ConsumeBool() ? program.text(16) : nullptr;
                reportWith(&s, where, c, debugKey, list);
                restartCursor();
                break;
            }
            case 9: {
                const bool sameCallback = in.ConsumeBool();
                zterr_Status other = program.otherRecord(sameCallback ? s.reallocate : program.callback());
                const bool moves = s.reallocate && s.reallocate == other.reallocate && other.json;
                const bool taken = zterr::mergeStatus(&s, &other);
                if (taken && moves)
                    require(other.json == nullptr && other.capacity == 0, "a moved record keeps its buffer");
                zterr::releaseStatus(&other);
                restartCursor();
                break;
            }
            case 10: {
                zterr_Status inner = program.otherRecord(program.callback());
                zterr::attachNestedError(&s, &inner);
                zterr::releaseStatus(&inner);
                restartCursor();
                break;
            }
            case 11: {
                const int kind = in.ConsumeIntegralInRange(0, 3);
                const std::string what = program.bytes(40);
                zterr_Status carried = kind == 0 ? program.otherRecord(&zterr::defaultReallocate) : zterr_Status{};
                try {
                    switch (kind) {
                        case 0: throw zterr::Exception(std::move(carried));
                        case 1: throw std::runtime_error(what);
                        case 2: throw std::bad_alloc();
                        default: throw 42;
                    }
                } catch (...) {
                    zterr::translateCurrentException(&s);
                }
                restartCursor();
                break;
            }
            case 12:
                restartCursor();
                break;
            default:
                zterr::releaseStatus(&s);
                s = zterr_Status{0, 0, program.callback(), nullptr};
                restartCursor();
                break;
        }
        checkRecord(s, "record after an operation");
    }
    zterr::releaseStatus(&s);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider in(data, size);
    run(in);
    return 0;
}
