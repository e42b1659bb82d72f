#include "remote/curlClient.h"

#include <cjson/cJSON.h>

#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <utility>

#include "errors/exception.h"
#include "errors/status.h"
#include "json/cjsonUtils.h"
#include "json/cppJson.h"
#include "json/jsonz.h"
#include "json/memberText.h"

namespace zt {
namespace vela {
namespace shared {

namespace {

constexpr const char* kFile = "source\\ztvela\\curlClient";
constexpr const char* kDebug = "ztsyncdomain_debug";

// libcurl's write callback: appends the received bytes to the response
// buffer; a body beyond kMaxResponseBytes (or no memory) aborts the transfer.
std::size_t _writeCallback(char* data, std::size_t size, std::size_t count, void* userdata) noexcept {
    auto* buffer = static_cast<std::string*>(userdata);
    const std::size_t bytes = size * count;
    if (bytes > kMaxResponseBytes - buffer->size()) return 0;
    try {
        buffer->append(data, bytes);
    } catch (...) {
        return 0;
    }
    return bytes;
}

// libcurl's read callback: copies at most what libcurl asks for from the
// request body and advances; 0 once the body is sent.
std::size_t _readCallback(char* data, std::size_t size, std::size_t count, void* userdata) noexcept {
    auto* buffer = static_cast<tCURL::PutBuffer*>(userdata);
    const std::size_t room = size * count;
    const std::size_t left = buffer->text.size() - buffer->position;
    const std::size_t n = left < room ? left : room;
    if (n > 0) std::memcpy(data, buffer->text.data() + buffer->position, n);
    buffer->position += n;
    return n;
}

struct StatusRow {
    long first;
    long last;
    std::int32_t code;
    const char* constant;
    const char* message;
};

// First match wins; the ranges end at 498 and 598 on purpose.
constexpr StatusRow kStatusMap[] = {
    {202, 202, zterr::code::kNetworkClientInProgress, zterr::name::kNetworkClientInProgress,
     "Request accepted but still in progress."},
    {400, 400, zterr::code::kNetworkClientBadRequestError, zterr::name::kNetworkClientBadRequestError,
     "Server answered 400 Bad Request."},
    {401, 401, zterr::code::kNetworkClientUnauthorizedError, zterr::name::kNetworkClientUnauthorizedError,
     "Server answered 401 Unauthorized."},
    {404, 404, zterr::code::kNetworkClientNotFoundError, zterr::name::kNetworkClientNotFoundError,
     "Server answered 404 Not Found."},
    {408, 408, zterr::code::kNetworkClientRequestTimeoutError, zterr::name::kNetworkClientRequestTimeoutError,
     "Server answered 408 Request Timeout."},
    {415, 415, zterr::code::kNetworkClientUnsupportedMediaType, zterr::name::kNetworkClientUnsupportedMediaType,
     "Server answered 415 Unsupported Media Type."},
    {400, 498, zterr::code::kNetworkClientError, zterr::name::kNetworkClientError,
     "Server answered with a client error status."},
    {500, 598, zterr::code::kNetworkServerError, zterr::name::kNetworkServerError,
     "Server answered with a server error status."},
};

[[noreturn]] void raiseCheck(std::int32_t code, const char* constant, const char* check) {
    zterr::raise(ZTERR_SITE(kFile, constant), code, kDebug,
                 {{"message", "HTTP client is not ready for a request."}, {"check failed", check}});
}

[[noreturn]] void raiseCurlCall(const char* function, CURLcode result) {
    zterr::raise(ZTERR_SITE(kFile, zterr::name::kInternalSoftwareError), zterr::code::kInternalSoftwareError, kDebug,
                 {{"message", "A libcurl call failed."}, {"function", function}, {"CURLcode", static_cast<int>(result)}});
}

[[noreturn]] void raiseBadBody(const char* message, int jsonzError) {
    zterr::raise(ZTERR_SITE(kFile, zterr::name::kInvalidJSONResponseFromServer),
                 zterr::code::kInvalidJSONResponseFromServer, kDebug,
                 {{"message", message}, {"jsonz_ErrorCode", jsonzError}});
}

[[noreturn]] void raiseBadEnvelope(const char* member) {
    zterr::raise(ZTERR_SITE(kFile, zterr::name::kInvalidJSONResponseFromServer),
                 zterr::code::kInvalidJSONResponseFromServer, kDebug,
                 {{"message", "Response envelope is malformed."}, {"jsonz_ErrorCode", 0}, {"member", member}});
}

// How many members of `object` cJSON's member lookup would match for `name`
// (ASCII letters compared without case). An envelope that repeats the members
// deciding its outcome is ambiguous: the lookup takes the first, so a
// "success":false behind a "success":true would be read as a success.
int countMembers(const cJSON* object, const char* name) {
    int count = 0;
    for (const cJSON* m = object ? object->child : nullptr; m; m = m->next) {
        const char* a = m->string;
        const char* b = name;
        if (!a) continue;
        while (*a && std::tolower(static_cast<unsigned char>(*a)) == std::tolower(static_cast<unsigned char>(*b))) ++a, ++b;
        if (*a == '\0' && *b == '\0') ++count;
    }
    return count;
}

// The header list of one request; detached from the handle and freed on
// every path.
class HeaderList {
public:
    HeaderList(const CurlApi& api, CURL* connection) : api_(api), connection_(connection) {}
    ~HeaderList() {
        if (attached_) api_.easy_setopt(connection_, CURLOPT_HTTPHEADER, static_cast<curl_slist*>(nullptr));
        if (list_) api_.slist_free_all(list_);
    }
    HeaderList(const HeaderList&) = delete;
    HeaderList& operator=(const HeaderList&) = delete;

    void append(const std::string& line) {
        curl_slist* grown = api_.slist_append(list_, line.c_str());
        if (!grown) raiseCurlCall("curl_slist_append", CURLE_OUT_OF_MEMORY);
        list_ = grown;
    }
    curl_slist* get() const noexcept { return list_; }
    void markAttached() noexcept { attached_ = true; }

private:
    const CurlApi& api_;
    CURL* connection_;
    curl_slist* list_ = nullptr;
    bool attached_ = false;
};

}  // namespace

std::string joinAddress(const std::string& prefix, const std::string& uri) {
    std::size_t end = prefix.size();
    while (end > 0 && prefix[end - 1] == '/') --end;
    std::size_t begin = 0;
    while (begin < uri.size() && uri[begin] == '/') ++begin;
    std::string address;
    address.reserve(end + 1 + uri.size() - begin);
    address.append(prefix, 0, end).append(1, '/').append(uri, begin, std::string::npos);
    return address;
}

tCURL::tCURL(std::string mediaType, CurlApiSource source) : _source(source), _mediaType(std::move(mediaType)) {}

tCURL::~tCURL() {
    if (_connection) _api->easy_cleanup(_connection);
}

void tCURL::ensureConnection() {
    if (_connection) return;
    if (!_api) _api = _source();
    if (!_transfers && _api->hasMultiInterface()) _transfers = CurlTransfers::acquire(_api);
    _connection = _api->easy_init();
    if (!_connection)
        raiseCheck(zterr::code::kInternalSoftwareErrorFailedInitialize,
                   zterr::name::kInternalSoftwareErrorFailedInitialize, "_connection");
}

void tCURL::initialize(const std::string& prefix, const std::string& uri) {
    ensureConnection();
    setAddress(prefix, uri);
}

void tCURL::setAddress(const std::string& prefix, const std::string& uri) {
    _prefix = prefix;
    _uri = uri;
}

void tCURL::setCredentials(const std::string& username, const std::string& password) {
    _username = username;
    _password = password;
}

void tCURL::setOptions(bool upload, const std::string& url, curl_slist* headers) {
    const CurlApi& api = *_api;
    CURLcode r;
#define ZTSD_SETOPT(text, option, value)                      \
    if ((r = api.easy_setopt(_connection, option, value)) != CURLE_OK) raiseCurlCall(text, r)
    ZTSD_SETOPT("curl_easy_setopt(_connection, CURLOPT_READFUNCTION, _readCallback)", CURLOPT_READFUNCTION,
                static_cast<curl_read_callback>(&_readCallback));
    ZTSD_SETOPT("curl_easy_setopt(_connection, CURLOPT_WRITEFUNCTION, _writeCallback)", CURLOPT_WRITEFUNCTION,
                static_cast<curl_write_callback>(&_writeCallback));
    ZTSD_SETOPT("curl_easy_setopt(_connection, CURLOPT_WRITEDATA, &tempBufferForGet)", CURLOPT_WRITEDATA,
                static_cast<void*>(&tempBufferForGet));
    ZTSD_SETOPT("curl_easy_setopt(_connection, CURLOPT_READDATA, &putTextBuffer)", CURLOPT_READDATA,
                static_cast<void*>(&putTextBuffer));
    ZTSD_SETOPT("curl_easy_setopt(_connection, CURLOPT_UPLOAD, upload ? 1L : 0L)", CURLOPT_UPLOAD, upload ? 1L : 0L);
    ZTSD_SETOPT("curl_easy_setopt(_connection, CURLOPT_TIMEOUT_MS, static_cast<long>(_timeoutInMS))",
                CURLOPT_TIMEOUT_MS, static_cast<long>(_timeoutInMS));
    ZTSD_SETOPT("curl_easy_setopt(_connection, CURLOPT_NOSIGNAL, 1L)", CURLOPT_NOSIGNAL, 1L);
    ZTSD_SETOPT("curl_easy_setopt(_connection, CURLOPT_URL, url.c_str())", CURLOPT_URL, url.c_str());
    ZTSD_SETOPT("curl_easy_setopt(_connection, CURLOPT_USERNAME, _username.c_str())", CURLOPT_USERNAME,
                _username.c_str());
    ZTSD_SETOPT("curl_easy_setopt(_connection, CURLOPT_PASSWORD, _password.c_str())", CURLOPT_PASSWORD,
                _password.c_str());
    ZTSD_SETOPT("curl_easy_setopt(_connection, CURLOPT_HTTPHEADER, headerList.get())", CURLOPT_HTTPHEADER, headers);
    ZTSD_SETOPT("curl_easy_setopt(_connection, CURLOPT_ERRORBUFFER, errbuf)", CURLOPT_ERRORBUFFER,
                static_cast<char*>(errbuf));
    // A PUT body's length, so that it is sent with Content-Length rather than
    // chunked; -1 (unknown) for a GET, which sends none.
    const curl_off_t uploadSize = upload ? static_cast<curl_off_t>(putTextBuffer.text.size()) : curl_off_t{-1};
    ZTSD_SETOPT("curl_easy_setopt(_connection, CURLOPT_INFILESIZE_LARGE, uploadSize)", CURLOPT_INFILESIZE_LARGE,
                uploadSize);
    // "" switches proxies off, those named in the environment included.
    ZTSD_SETOPT("curl_easy_setopt(_connection, CURLOPT_PROXY, \"\")", CURLOPT_PROXY, "");
    ZTSD_SETOPT("curl_easy_setopt(_connection, CURLOPT_MAXAGE_CONN, kKeepAlive_s)", CURLOPT_MAXAGE_CONN, kKeepAlive_s);
#undef ZTSD_SETOPT
}

void tCURL::perform() {
    const CURLcode r = _transfers ? _transfers->perform(_connection) : _api->easy_perform(_connection);
    if (r == CURLE_OK) return;
    errbuf[sizeof errbuf - 1] = '\0';
    zterr::raise(ZTERR_SITE(kFile, zterr::name::kInternalSoftwareErrorUnknownNetworkError),
                 zterr::code::kInternalSoftwareErrorUnknownNetworkError, kDebug,
                 {{"message", "HTTP transfer failed."},
                  {"function", "curl_easy_perform"},
                  {"CURLcode", static_cast<int>(r)},
                  {"CURLOPT_ERRORBUFFER", static_cast<const char*>(errbuf)}});
}

long tCURL::responseCode() {
    long code = 0;
    const CURLcode r = _api->easy_getinfo(_connection, CURLINFO_RESPONSE_CODE, &code);
    if (r != CURLE_OK) raiseCurlCall("curl_easy_getinfo(_connection, CURLINFO_RESPONSE_CODE, &responseCode)", r);
    return code;
}

void checkResponseStatus(long code) {
    for (const StatusRow& row : kStatusMap) {
        if (code < row.first || code > row.last) continue;
        zterr::raise(ZTERR_SITE(kFile, row.constant), row.code, kDebug,
                     {{"message", row.message}, {"responseCode", static_cast<std::int64_t>(code)}});
    }
}

std::string readReplyEnvelope(const std::string& body) {
    const char* text = body.c_str();
    ztsdlib::jsonz::Result check = ztsdlib::jsonz::validate(text);
    if (check.error == ztsdlib::jsonz::errorNone && check.position != text + body.size())
        check.error = ztsdlib::jsonz::errorTrailingChar;
    if (check.error != ztsdlib::jsonz::errorNone) raiseBadBody("Response body is not valid JSON.", check.error);

    // Every string of the body becomes a C string once parsed; one with an
    // escaped NUL would end there and name something else.
    if (ztjsonlh::findEscapedNul(text))
        raiseBadBody("Response body holds a string with an escaped NUL (\\u0000), which a C string cannot hold.", 0);

    ztjsonlh::CppJson document;
    try {
        document = ztjsonlh::parse(text);
    } catch (const zterr::Exception&) {
        // Valid, but beyond what the reader accepts: nesting deeper than its
        // limit, or a \u escape naming a lone UTF-16 surrogate.
        raiseBadBody("Response body is valid JSON that could not be read (nested too deeply, or a lone surrogate "
                     "escape).",
                     0);
    }
    const cJSON* root = document.get();

    if (cJSON_IsObject(root) && countMembers(root, "error") > 1) raiseBadEnvelope("error");
    const cJSON* error = cJSON_GetObjectItem(root, "error");
    if (error && !cJSON_IsNull(error)) {
        if (!cJSON_IsObject(error)) raiseBadEnvelope("error");
        const cJSON* success = cJSON_GetObjectItem(error, "success");
        if (!cJSON_IsBool(success) || countMembers(error, "success") > 1) raiseBadEnvelope("success");
        if (!cJSON_IsTrue(success)) {
            std::int32_t errorCode = 0;
            if (const cJSON* c = cJSON_GetObjectItem(error, "errorCode"); c && !cJSON_IsNull(c)) {
                if (!cJSON_IsNumber(c)) raiseBadEnvelope("errorCode");
                const double d = c->valuedouble;
                const bool fits = d == std::floor(d) && d >= std::numeric_limits<std::int32_t>::min() &&
                                  d <= std::numeric_limits<std::int32_t>::max();
                if (!fits) raiseBadEnvelope("errorCode");
                errorCode = static_cast<std::int32_t>(d);
            }
            std::string errorText;
            if (const cJSON* t = cJSON_GetObjectItem(error, "errorText"); t && !cJSON_IsNull(t)) {
                if (!cJSON_IsString(t)) raiseBadEnvelope("errorText");
                errorText = ztjsonlh::getString(t);
            }
            const cJSON* info = cJSON_GetObjectItem(error, "errorInfo");
            const std::string errorInfo = info ? ztjsonlh::printUnformatted(info) : std::string("{}");
            if (errorCode != 0) {
                zterr::raise(ZTERR_SITE(kFile, "errorCode"), errorCode, kDebug,
                             {{"message", "Chassis reported an error."},
                              {"errorText", errorText},
                              zterr::Detail::raw("errorInfo", errorInfo)});
            }
            zterr::raise(ZTERR_SITE(kFile, zterr::name::kInternalSoftwareErrorUnknownNetworkError),
                         zterr::code::kInternalSoftwareErrorUnknownNetworkError, kDebug,
                         {{"message", "Chassis reported a failure without an error code."},
                          {"errorText", errorText},
                          zterr::Detail::raw("errorInfo", errorInfo)});
        }
    }

    // The result as sent, read from the text: printing it from the tree
    // would cost as much as the whole parse (cJSON prints every number
    // twice to find its shortest form).
    std::string resultText;
    switch (ztjsonlh::compactMemberText(text, "result", resultText)) {
        case ztjsonlh::MemberLookup::Found:
            return resultText;
        case ztjsonlh::MemberLookup::Absent:
            return std::string();
        case ztjsonlh::MemberLookup::Undecided:
            break;
    }
    const cJSON* result = cJSON_GetObjectItem(root, "result");
    return result ? ztjsonlh::printUnformatted(result) : std::string();
}

void tCURL::request(bool upload, const std::string& body, std::string& result) {
    ensureConnection();
    if (_uri.empty())
        raiseCheck(zterr::code::kInvalidEndStationURI, zterr::name::kInvalidEndStationURI, "!_uri.empty()");
    if (_prefix.empty()) raiseCheck(zterr::code::kInvalidURIPrefix, zterr::name::kInvalidURIPrefix, "!_prefix.empty()");
    const std::string url = joinAddress(_prefix, _uri);

    // The buffers of this request; emptied on every path. Their memory is
    // kept for the next request unless a large body made them grow, so a
    // huge reply does not stay with the client.
    struct Buffers {
        tCURL& client;
        static void release(std::string& buffer) {
            constexpr std::size_t kKeptCapacity = 64u * 1024u;
            if (buffer.capacity() > kKeptCapacity)
                std::string().swap(buffer);
            else
                buffer.clear();
        }
        ~Buffers() {
            release(client.tempBufferForGet);
            release(client.putTextBuffer.text);
            client.putTextBuffer.position = 0;
        }
    } buffers{*this};
    tempBufferForGet.clear();
    if (upload) putTextBuffer.text = body;
    putTextBuffer.position = 0;
    errbuf[0] = '\0';

    HeaderList headerList(*_api, _connection);
    headerList.append("Accept: " + _mediaType);
    headerList.append("Content-Type: " + _mediaType);
    // Not a header sent: it removes the "Expect: 100-continue" that libcurl
    // adds to uploads, and with it the wait for an interim answer that many
    // servers never give.
    if (upload) headerList.append("Expect:");
    headerList.markAttached();
    setOptions(upload, url, headerList.get());
    perform();
    checkResponseStatus(responseCode());
    result = readReplyEnvelope(tempBufferForGet);
}

}  // namespace shared
}  // namespace vela
}  // namespace zt
