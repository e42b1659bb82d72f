// A simulated chassis web service "ztsdwebs": a real HTTP server on a
// loopback address that serves the "resources/" listing, syncable device
// resources (GET and PUT of a requirements document) and timescale entries,
// every reply in the service's envelope and media type. Tests start it
// in-process on an ephemeral port; the ztsd-sim program runs one or more.
//
// URL scheme (remoteHost = "127.0.0.1:<port>", plugin = "ztsd" by default):
//   device URI as callers name it  /<remoteHost>/ztsdwebs/resources/<plugin>/syncableDevices/<name>
//   its resource path (GET, PUT)   /ztsdwebs/resources/<plugin>/syncableDevices/<name>
//   timescale URI                  /<remoteHost>/ztsdwebs/resources/<plugin>/timescales/<gmId>
//   its resource path (GET)        /ztsdwebs/resources/<plugin>/timescales/<gmId>
//   listing (GET)                  /ztsdwebs/resources/  -> {"version":1,"resources":[{"uri","resourceType"}...]}
// A GET of a collection below the listing (".../resources/<plugin>" or
// ".../resources/<plugin>/<type>", with or without a final "/") lists only
// the resources under it.
//
// Every reply carries "Content-Type: vnd.zt.syncDomain.v0/json; charset=utf-8"
// and the body {"error":{"success","errorCode","errorText","errorInfo"},"result":<payload>}.
// Unknown resources answer 404, methods other than GET (and PUT on a device)
// 405, a PUT whose body is not JSON 400, each with a "success":false
// envelope and a null result.
//
// Device state: a new device is coherent, has lost coherency 0 times,
// reports "version" 1 and its own resource path as "uri", and has no
// requirements (null). setCoherent and addCoherencyLoss are independent: the
// flag and the count change only through their own control, so a test can
// build any combination.
//
// Faults: setFault(pathPrefix, fault) installs one fault per prefix; a
// request takes the fault with the longest prefix its path starts with.
// In order, a taken fault: waits latency_ms; holds the request while stall
// is set (until that fault's prefix is set or cleared again, clearFaults(),
// or stop()); closes the connection when dropConnection is set; otherwise
// answers with httpStatus instead of the natural status, an envelope error
// instead of success, and rawBody instead of the whole body, as set. A
// request whose answer a fault changes (status, envelope, body, drop) leaves
// the state alone: a faulted PUT stores nothing. Statuses 1xx, 204 and 304
// are sent without a body, as HTTP requires.
//
// Threads: the HTTP server answers on a pool of worker threads that grows
// on demand up to Options::maxWorkers (an idle kept-alive connection holds a
// worker until it closes or stays silent for keepAliveTimeout_s). Every
// control may be called from any thread; all state sits under one mutex, and
// held requests wait on a condition variable that stop(), setFault,
// clearFault and clearFaults signal.
//
// Linux specifics: dropping a connection and the prompt stop() shut down
// the accepted sockets of the server's port (found among the process's open
// descriptors); start() ignores SIGPIPE for the process if it is at its
// default, since writes to a closed peer must not kill the test.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace httplib {
class Server;
struct Request;
struct Response;
}  // namespace httplib

namespace ztsdsim {

class StrictHttpFront;

// The media type of every reply.
extern const char* const kMediaType;   // "vnd.zt.syncDomain.v0/json; charset=utf-8"

// "host:port" as a client takes it: an IPv6 address in brackets ("[::1]:8080").
std::string hostPortText(const std::string& host, unsigned port);
// The service name, first segment of every resource path.
extern const char* const kWebService;  // "ztsdwebs"

// Applied to requests whose path starts with the prefix given to setFault
// ("" = all).
struct Fault {
    int latency_ms = 0;             // delay before answering
    bool stall = false;             // hold the request until the fault is cleared or the simulator stops
    int httpStatus = 0;             // 0 = normal; otherwise reply with this status
                                    // (body: envelope as usual unless rawBody set)
    bool hasRawBody = false;        // replace the whole reply body with rawBody
    std::string rawBody;            // (invalid or truncated JSON, huge bodies...)
    bool envelopeError = false;     // a "success":false envelope with the three below
    std::int64_t errorCode = 0;
    std::string errorText;
    std::string errorInfoJson = "{}";  // sent as it stands when it is not JSON
    bool dropConnection = false;    // close the connection without an answer
    int remaining = -1;             // how many requests it applies to; -1 = until cleared
};

// The last request the server received, as it arrived.
struct RequestRecord {
    std::string method;
    std::string path;
    std::string contentType;        // the "Content-Type" header, "" if absent
    std::string accept;             // the "Accept" header, "" if absent
    std::string body;
};

// How the listing names its resources: with the host ("/<host>/ztsdwebs/...",
// as callers name them), by the chassis' own paths ("/ztsdwebs/...", as a
// chassis that does not know the name it was reached by lists them), or
// both, alternating entry by entry.
enum class ListingForm { withHosts, pathsOnly, mixed };

struct SimulatorOptions {
    std::string host = "127.0.0.1";  // address to listen on; a loopback address for tests
    std::uint16_t port = 0;          // 0 = an ephemeral port chosen by the system
    std::size_t maxWorkers = 512;    // upper bound of concurrently served connections
    int keepAliveTimeout_s = 5;      // an idle kept-alive connection closes after this
    int listenBacklog = 512;         // pending connections the kernel queues
    ListingForm listingForm = ListingForm::withHosts;
    // The habits of minimal web servers (strictHttpFront.h): "Expect:
    // 100-continue" never answered, chunked request bodies refused with 411.
    bool strictHttp = false;
};

class ChassisSimulator {
public:
    explicit ChassisSimulator(std::string plugin = "ztsd");
    ChassisSimulator(std::string plugin, SimulatorOptions options);
    ~ChassisSimulator();                         // stops
    ChassisSimulator(const ChassisSimulator&) = delete;
    ChassisSimulator& operator=(const ChassisSimulator&) = delete;

    // Listens on options.host (127.0.0.1 unless set), port options.port (0 =
    // ephemeral); returns once connections are accepted. Throws
    // std::runtime_error when the port cannot be bound, std::logic_error when
    // called a second time.
    void start();
    void stop();                                 // releases held requests promptly and joins; idempotent
    bool isRunning() const;
    std::uint16_t port() const;                  // 0 before start()
    std::string remoteHost() const;              // "127.0.0.1:<port>"; throws std::logic_error before start()
    const std::string& plugin() const { return plugin_; }

    // Names are non-empty and free of "/", "?", "#", "%", spaces, quotes and
    // backslashes (std::invalid_argument otherwise). Adding an existing name
    // again changes nothing and returns the same URI. Controls naming an
    // unknown device throw std::invalid_argument. URIs carry remoteHost(), so
    // adding needs a started simulator.
    std::string addDevice(const std::string& name);          // returns the device URI callers use
    void removeDevice(const std::string& name);
    std::string addTimescale(const std::string& gmId);       // returns the timescale URI (listed)
    void removeTimescale(const std::string& gmId);
    std::string deviceUri(const std::string& name) const;
    std::string deviceResourcePath(const std::string& name) const;
    std::string timescaleUri(const std::string& gmId) const;
    std::vector<std::string> deviceUris() const;             // in the order added
    std::vector<std::string> timescaleUris() const;          // in the order added

    void setCoherent(const std::string& name, bool coherent);
    // Bumps the loss count (the device went incoherent and back, as a real
    // one would); the coherency flag stays as it is.
    void addCoherencyLoss(const std::string& name, std::uint32_t count = 1);
    void setDeviceVersion(const std::string& name, std::optional<std::int64_t> version);  // nullopt = omit "version"
    void setDeviceReportedUri(const std::string& name, std::optional<std::string> uri);    // wrong "uri"; nullopt = omit
    void setListingVersion(std::optional<std::int64_t> version);
    std::string requirementsOf(const std::string& name) const;   // last PUT body, "" if none
    bool isCoherent(const std::string& name) const;
    std::uint32_t coherencyLossCount(const std::string& name) const;
    std::uint64_t getCountOf(const std::string& name) const;     // GETs of the device resource answered or held
    std::uint64_t putCountOf(const std::string& name) const;     // PUTs of the device resource answered or held
    std::uint64_t acceptedConnectionCount() const;               // TCP connections this server accepted

    void setFault(const std::string& pathPrefix, const Fault& fault);
    void clearFault(const std::string& pathPrefix);
    void clearFaults();
    std::uint64_t requestCount() const;          // requests answered or held so far
    std::size_t heldRequestCount() const;        // requests waiting in latency or stall right now
    RequestRecord lastRequest() const;           // empty record before the first request

private:
    struct Device {
        bool coherent = true;
        std::uint32_t lossCount = 0;
        std::optional<std::int64_t> version = 1;
        std::optional<std::string> reportedUri;  // set to the resource path when added
        std::string requirements;                // last PUT body as received
        std::uint64_t gets = 0;
        std::uint64_t puts = 0;
    };
    struct Answer;  // status, payload and envelope error of one reply
    struct Route;   // where a request path leads

    void handle(const httplib::Request& request, httplib::Response& response);
    Route routeLocked(const std::string& path) const;
    bool takeFaultLocked(const std::string& path, Fault& fault, std::string& prefix);
    Answer answerLocked(const httplib::Request& request, bool applyChanges);
    Answer devicePayloadLocked(const std::string& name, const Device& device) const;
    Answer listingLocked(const std::string& underPath) const;
    static Answer failure(int status, std::int32_t code, std::string text);
    static void send(httplib::Response& response, Answer answer, const Fault* fault);
    std::string remoteHostLocked() const;
    std::string deviceUriLocked(const std::string& name) const;
    std::string timescaleUriLocked(const std::string& gmId) const;
    std::string resourcePath(const std::string& type, const std::string& name) const;
    Device& deviceLocked(const std::string& name);
    const Device& deviceLocked(const std::string& name) const;

    const std::string plugin_;
    const SimulatorOptions options_;

    std::atomic<std::uint64_t> acceptedConnections_{0};
    std::unique_ptr<StrictHttpFront> front_;  // with options_.strictHttp, in front of the server
    std::uint16_t serverPort_ = 0;            // the HTTP server's own port
    mutable std::mutex mutex_;                   // guards everything below
    std::condition_variable released_;           // held requests wait on it
    bool started_ = false;
    bool stopping_ = false;
    std::uint16_t port_ = 0;
    std::map<std::string, Device> devices_;
    std::vector<std::string> deviceOrder_;
    std::vector<std::string> timescales_;        // gmIds in the order added
    std::optional<std::int64_t> listingVersion_ = 1;
    std::map<std::string, Fault> faults_;   // by path prefix
    std::map<std::string, std::uint64_t> releases_;   // per prefix: how often its stalls were released
    std::uint64_t releaseAll_ = 0;               // how often clearFaults() released every stall
    std::uint64_t requestCount_ = 0;
    std::size_t held_ = 0;
    std::unique_ptr<RequestRecord> lastRequest_;

    std::mutex lifecycle_;                       // serialises start() and stop(); guards the two below
    std::unique_ptr<httplib::Server> server_;
    std::thread listener_;
};

}  // namespace ztsdsim
