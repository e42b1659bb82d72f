// The HTTP client of the chassis web services: iCURL, and tCURL over
// libcurl's easy interface.
//
// A request goes to joinAddress(_prefix, _uri), sends the media type as both
// "Accept" and "Content-Type", and expects a JSON body in the service's
// envelope:
//   {"error":{"success":true,"errorCode":0,"errorText":"","errorInfo":{}},"result":<payload>}
// and returns the JSON text of "result" as sent, with the whitespace between
// its tokens removed ("" when the body has none; see json/memberText.h).
//
// Failures, each raised as zterr::Exception with a "ztsyncdomain_debug"
// object that starts with "message":
//   -411351 no libcurl (see curlLibrary.h) or no easy handle;
//   -411352 / -411353 empty _uri / _prefix ("check failed");
//   -411350 a libcurl option or info call failed ("function", "CURLcode");
//   -411361 the transfer failed: refused, unreachable, timed out, cut off, or
//           a body over kMaxResponseBytes ("function", "CURLcode",
//           "CURLOPT_ERRORBUFFER");
//   HTTP statuses ("responseCode"): 202 -> +411369 (a warning code), 400
//           -411354, 401 -411355, 404 -411356, 408 -411357, 415 -411370,
//           other 400..498 -411358, 500..598 -411359. Anything else (200,
//           204, 499, 599...) goes on to the body;
//   -411360 the body is not strictly valid JSON ("jsonz_ErrorCode": the
//           validator's error number; a NUL byte inside the body counts as a
//           trailing character, 9), or is valid but beyond what the JSON
//           reader accepts: nested deeper than its limit, or holding a \u
//           escape of a lone UTF-16 surrogate (number 0), or a string with
//           an escaped NUL "\u0000" (number 0: read as a C string it would
//           end there and say something else); or its envelope is
//           malformed: "error" neither an object nor null, "success" absent
//           or not a bool, "error" or its "success" given more than once
//           (names compared without letter case, as members are looked up:
//           the first of two could hide a failure behind a success), or, on
//           failure, "errorCode" not an integer in 32-bit range or
//           "errorText" not a string (detail "member");
//   envelope "success":false with a non-zero "errorCode": that code as it
//           stands (constant "errorCode"), details "errorText" and
//           "errorInfo" (as JSON);
//   envelope "success":false with "errorCode" 0 (or none): the server says
//           it failed without saying how, so -411361
//           "kInternalSoftwareErrorUnknownNetworkError" with the same
//           details. A failure is never taken for a success.
// When "success" is true the other members of "error" are not examined. A
// body with no "error" member (or "error": null) is a success.
//
// Connection reuse: the easy handle is made once per client and kept; its
// transfers run on the process's one multi handle (curlTransfers.h), whose
// pool of kept-alive connections every client shares, so consecutive
// requests to one host reuse a connection and an idle client holds no
// descriptor. An idle connection is not reused after kKeepAlive_s
// (CURLOPT_MAXAGE_CONN). Every option is set again before each request, in a
// fixed order (see request()).
//
// Request framing: a PUT body goes out with its length (Content-Length),
// never chunked and never after an "Expect: 100-continue" wait, so web
// servers without chunked uploads or interim answers take it in one round
// trip. Chassis traffic never goes through a proxy: libcurl's proxy settings
// from the environment (http_proxy, ALL_PROXY...) are switched off, since
// every setting of the library arrives as an argument.
//
// Time-out: _timeoutInMS bounds the whole request (connect, send, wait,
// receive); default kDefaultTimeoutInMS. A stalled server cannot hold the
// calling thread longer than that. CURLOPT_NOSIGNAL is set, so time-outs
// work from any thread.
//
// Threads: one client serves one request at a time; callers that share one
// serialise their calls. Different clients may run on different threads.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "remote/curlLibrary.h"
#include "remote/curlTransfers.h"

namespace zt {
namespace vela {
namespace shared {

// The client's own default media type.
constexpr const char* kVelaMediaType = "vnd.zt.vela.v0/json; charset=utf-8";
// Default whole-request time-out.
constexpr unsigned kDefaultTimeoutInMS = 5000;
// The largest response body accepted; a longer one aborts the transfer.
// Chassis replies are a few KiB (a listing of a thousand resources about
// 100 KiB). The cap also bounds the memory a reply costs once parsed: the
// worst case, 1 MiB of "[0,0,...]", is about half a million JSON nodes,
// some 40 MiB, whatever a peer sends.
constexpr std::size_t kMaxResponseBytes = 1024u * 1024u;

// prefix + "/" + uri with exactly one "/" at the joint: trailing "/" of the
// prefix and leading "/" of the uri are dropped first. An empty uri gives
// prefix + "/"; other "/" (such as the one closing "resources/") are kept.
std::string joinAddress(const std::string& prefix, const std::string& uri);

// The reply handling of request(), apart from the transfer, so that it can be
// driven with any status and body (tests, fuzzing). checkResponseStatus
// raises the error an HTTP status maps to and returns for the statuses that
// go on to the body; readReplyEnvelope checks a whole body and returns the
// compact text of its "result" (or raises the envelope's error).
void checkResponseStatus(long code);
std::string readReplyEnvelope(const std::string& body);

class iCURL {
public:
    virtual ~iCURL() = default;
    // Makes the easy handle (once; later calls keep it) and stores the address.
    virtual void initialize(const std::string& prefix, const std::string& uri) = 0;
    // Sends one request to the stored address: a PUT of body when upload,
    // otherwise a GET. Writes the envelope's "result" text to result.
    virtual void request(bool upload, const std::string& body, std::string& result) = 0;
    virtual void setAddress(const std::string& prefix, const std::string& uri) = 0;
    virtual const std::string& getPrefix() const = 0;
    virtual const std::string& getUri() const = 0;
    virtual void setCredentials(const std::string& username, const std::string& password) = 0;
    virtual const std::string& getUsername() const = 0;
    virtual void setTimeoutInMS(unsigned timeoutInMS) = 0;
    virtual unsigned getTimeoutInMS() const = 0;
    virtual const std::string& getMediaType() const = 0;
};

class tCURL : public iCURL {
public:
    explicit tCURL(std::string mediaType = kVelaMediaType, CurlApiSource source = &CurlApi::system);
    ~tCURL() override;
    tCURL(const tCURL&) = delete;
    tCURL& operator=(const tCURL&) = delete;

    void initialize(const std::string& prefix, const std::string& uri) override;
    // Makes the handle first when initialize() was not called.
    void request(bool upload, const std::string& body, std::string& result) override;
    void setAddress(const std::string& prefix, const std::string& uri) override;
    const std::string& getPrefix() const override { return _prefix; }
    const std::string& getUri() const override { return _uri; }
    void setCredentials(const std::string& username, const std::string& password) override;
    const std::string& getUsername() const override { return _username; }
    void setTimeoutInMS(unsigned timeoutInMS) override { _timeoutInMS = timeoutInMS; }
    unsigned getTimeoutInMS() const override { return _timeoutInMS; }
    const std::string& getMediaType() const override { return _mediaType; }

    // The request body being sent and how much of it libcurl has taken.
    struct PutBuffer {
        std::string text;
        std::size_t position = 0;
    };

private:
    void ensureConnection();
    void setOptions(bool upload, const std::string& url, curl_slist* headers);
    void perform();
    long responseCode();

    CurlApiSource _source;
    std::shared_ptr<const CurlApi> _api;
    std::shared_ptr<CurlTransfers> _transfers;  // null for a table without the multi interface
    CURL* _connection = nullptr;
    std::string _uri;
    std::string _prefix;
    std::string _username;
    std::string _password;
    unsigned _timeoutInMS = kDefaultTimeoutInMS;
    std::string _mediaType;

    std::string tempBufferForGet;  // the response body of the request in flight
    PutBuffer putTextBuffer;       // the request body of the request in flight
    char errbuf[CURL_ERROR_SIZE] = {};
};

}  // namespace shared
}  // namespace vela
}  // namespace zt
