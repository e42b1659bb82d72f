#include "ztsd-sim/chassisSimulator.h"
#include "ztsd-sim/strictHttpFront.h"

#include <cjson/cJSON.h>
#include <httplib.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <utility>

#include "errors/errorCodes.h"
#include "ztsd-sim/socketControl.h"
#include "ztsd-sim/workerPool.h"

namespace ztsdsim {

const char* const kMediaType = "vnd.zt.syncDomain.v0/json; charset=utf-8";
const char* const kWebService = "ztsdwebs";

namespace simdetail {

constexpr const char* kResources = "resources";
constexpr const char* kDevicesType = "syncableDevices";
constexpr const char* kTimescalesType = "timescales";

struct JsonDeleter {
    void operator()(cJSON* item) const { cJSON_Delete(item); }
};
using JsonPtr = std::unique_ptr<cJSON, JsonDeleter>;

JsonPtr makeObject() {
    JsonPtr object(cJSON_CreateObject());
    if (!object) throw std::bad_alloc();
    return object;
}

// Adds item to object under key; the object takes ownership.
void add(cJSON* object, const char* key, cJSON* item) {
    if (item == nullptr || !cJSON_AddItemToObject(object, key, item)) {
        cJSON_Delete(item);
        throw std::bad_alloc();
    }
}

// A 64-bit integer as a JSON number, exactly (cJSON's doubles are not).
cJSON* integer(std::int64_t value) { return cJSON_CreateRaw(std::to_string(value).c_str()); }

// The document text is, alone and whole, one JSON value (white space around
// it allowed); otherwise null.
JsonPtr parseWhole(const std::string& text) {
    const char* end = nullptr;
    JsonPtr parsed(cJSON_ParseWithLengthOpts(text.data(), text.size(), &end, 0));
    if (!parsed || end == nullptr) return nullptr;
    const char* const last = text.data() + text.size();
    for (; end < last; ++end) {
        if (*end != ' ' && *end != '\t' && *end != '\n' && *end != '\r') return nullptr;
    }
    return parsed;
}

std::string print(const cJSON* item) {
    char* text = cJSON_PrintUnformatted(item);
    if (text == nullptr) throw std::bad_alloc();
    std::string result(text);
    cJSON_free(text);
    return result;
}

// The reply envelope around result; a null info stands for {}, a null
// result for JSON null.
std::string envelopeText(bool success, std::int64_t code, const std::string& text, JsonPtr info, JsonPtr result) {
    JsonPtr envelope = makeObject();
    JsonPtr error = makeObject();
    add(error.get(), "success", cJSON_CreateBool(success));
    add(error.get(), "errorCode", integer(code));
    add(error.get(), "errorText", cJSON_CreateString(text.c_str()));
    add(error.get(), "errorInfo", info ? info.release() : cJSON_CreateObject());
    add(envelope.get(), "error", error.release());
    add(envelope.get(), "result", result ? result.release() : cJSON_CreateNull());
    return print(envelope.get());
}

bool isReading(const std::string& method) { return method == "GET" || method == "HEAD"; }

// HTTP forbids a body with these statuses.
bool isBodiless(int status) { return (status >= 100 && status < 200) || status == 204 || status == 304; }

void checkName(const char* what, const std::string& name) {
    const bool bad = name.empty() || name.find_first_of("/?#% \t\r\n\"\\") != std::string::npos;
    if (bad) throw std::invalid_argument(std::string("ztsd-sim: invalid ") + what + " name \"" + name + "\"");
}

// Routes every path and method to handler. Failures the HTTP layer answers
// by itself (a malformed request line, an unknown method) and exceptions get
// the envelope too; answers of the handler carry their media type already
// and pass unchanged.
void installHandlers(httplib::Server& server, const httplib::Server::Handler& handler) {
    server.Get(".*", handler);
    server.Put(".*", handler);
    server.Post(".*", handler);
    server.Delete(".*", handler);
    server.Patch(".*", handler);
    server.Options(".*", handler);
    server.set_error_handler(httplib::Server::HandlerWithResponse(
        [](const httplib::Request& request, httplib::Response& response) {
            if (response.has_header("Content-Type")) return httplib::Server::HandlerResponse::Unhandled;
            JsonPtr info = makeObject();
            add(info.get(), "method", cJSON_CreateString(request.method.c_str()));
            response.set_content(envelopeText(false, zterr::code::ztapalerr_invalidParameter,
                                              "The request could not be handled.", std::move(info), nullptr),
                                 kMediaType);
            return httplib::Server::HandlerResponse::Handled;
        }));
    server.set_exception_handler([](const httplib::Request&, httplib::Response& response, std::exception_ptr) {
        response.status = 500;
        response.set_content(envelopeText(false, zterr::code::ztapalerr_softwareFaultAPALInternalUseOnly,
                                          "The simulator failed.", nullptr, nullptr),
                             kMediaType);
    });
}

}  // namespace simdetail

using namespace simdetail;

struct ChassisSimulator::Route {
    enum Kind { notFound, listing, device, timescale } kind = notFound;
    std::string name;       // device name or gmId
    std::string underPath;  // listing: resource paths that start with it are listed
};

struct ChassisSimulator::Answer {
    int status = 200;
    JsonPtr result;  // null in the envelope when empty
    bool success = true;
    std::int64_t errorCode = 0;
    std::string errorText;
    std::string allow;  // the "Allow" header of a 405
};

// ---------------------------------------------------------------------------
// Life cycle

ChassisSimulator::ChassisSimulator(std::string plugin) : ChassisSimulator(std::move(plugin), SimulatorOptions{}) {}

ChassisSimulator::ChassisSimulator(std::string plugin, SimulatorOptions options)
    : plugin_(std::move(plugin)), options_(std::move(options)) {
    checkName("plugin", plugin_);
}

ChassisSimulator::~ChassisSimulator() { stop(); }

std::uint64_t ChassisSimulator::acceptedConnectionCount() const { return acceptedConnections_.load(); }

void ChassisSimulator::start() {
    std::lock_guard<std::mutex> lifecycle(lifecycle_);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (started_) throw std::logic_error("ztsd-sim: start() called twice");
    }
    net::ignoreBrokenPipes();

    auto server = std::make_unique<httplib::Server>();
    const std::size_t maxWorkers = options_.maxWorkers;
    server->new_task_queue = [this, maxWorkers] { return new WorkerPool(maxWorkers, &acceptedConnections_); };
    auto listeningSocket = std::make_shared<net::Socket>(net::kNoSocket);
    // A restarted simulator binds its port again at once, while a port
    // another socket listens on is refused (the HTTP server's default,
    // SO_REUSEPORT, would let two simulators share it).
    server->set_socket_options([listeningSocket](socket_t sock) {
        net::bindExclusively(static_cast<net::Socket>(sock));
        *listeningSocket = static_cast<net::Socket>(sock);
    });
    // Headers and body go out in separate writes; without this the body
    // waits for the peer's delayed acknowledgement.
    server->set_tcp_nodelay(true);
    server->set_keep_alive_max_count(std::size_t{1} << 30);
    server->set_keep_alive_timeout(options_.keepAliveTimeout_s);

    installHandlers(*server, [this](const httplib::Request& request, httplib::Response& response) {
        handle(request, response);
    });

    // Behind a strict front the server takes an ephemeral port of its own and
    // the front the one asked for.
    int port = -1;
    if (options_.port == 0 || options_.strictHttp) {
        port = server->bind_to_any_port(options_.host);
    } else if (server->bind_to_port(options_.host, options_.port)) {
        port = options_.port;
    }
    if (port <= 0) {
        throw std::runtime_error("ztsd-sim: cannot listen on " + hostPortText(options_.host, options_.port));
    }
    net::setListenBacklog(*listeningSocket, options_.listenBacklog);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        started_ = true;
        port_ = static_cast<std::uint16_t>(port);
    }

    httplib::Server* const raw = server.get();
    listener_ = std::thread([raw] { raw->listen_after_bind(); });
    server_ = std::move(server);
    // The socket already queues connections; wait for the accept loop so
    // that a stop() from now on ends it (the server ignores a stop before).
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!raw->is_running()) {
        if (std::chrono::steady_clock::now() > deadline) {
            throw std::runtime_error("ztsd-sim: the HTTP server did not start");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    serverPort_ = static_cast<std::uint16_t>(port);
    if (options_.strictHttp) {
        try {
            front_ = std::make_unique<StrictHttpFront>(options_.host, options_.port, serverPort_);
        } catch (...) {
            server_->stop();
            listener_.join();
            server_.reset();
            std::lock_guard<std::mutex> lock(mutex_);
            started_ = false;
            throw;
        }
        std::lock_guard<std::mutex> lock(mutex_);
        port_ = front_->port();
    }
}

void ChassisSimulator::stop() {
    std::lock_guard<std::mutex> lifecycle(lifecycle_);
    if (!server_) return;
    std::uint16_t port = 0;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
        port = port_;
    }
    released_.notify_all();
    if (front_) {
        front_->stop();
        front_.reset();
    }
    server_->stop();
    // Kept-alive connections would hold their workers until they time out;
    // cut them so that the server's workers end now.
    net::shutdownConnectionsOnPort(serverPort_ ? serverPort_ : port);
    if (listener_.joinable()) listener_.join();
    server_.reset();
}

bool ChassisSimulator::isRunning() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return started_ && !stopping_;
}

std::uint16_t ChassisSimulator::port() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return port_;
}

std::string ChassisSimulator::remoteHost() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return remoteHostLocked();
}

std::string ChassisSimulator::remoteHostLocked() const {
    if (!started_) throw std::logic_error("ztsd-sim: the simulator has no address before start()");
    return hostPortText(options_.host, port_);
}

std::string hostPortText(const std::string& host, unsigned port) {
    const bool bracket = host.find(':') != std::string::npos && host.front() != '[';
    return (bracket ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

// ---------------------------------------------------------------------------
// Resources

std::string ChassisSimulator::resourcePath(const std::string& type, const std::string& name) const {
    return std::string("/") + kWebService + "/" + kResources + "/" + plugin_ + "/" + type + "/" + name;
}

std::string ChassisSimulator::deviceUriLocked(const std::string& name) const {
    return "/" + remoteHostLocked() + resourcePath(kDevicesType, name);
}

std::string ChassisSimulator::timescaleUriLocked(const std::string& gmId) const {
    return "/" + remoteHostLocked() + resourcePath(kTimescalesType, gmId);
}

ChassisSimulator::Device& ChassisSimulator::deviceLocked(const std::string& name) {
    const auto found = devices_.find(name);
    if (found == devices_.end()) throw std::invalid_argument("ztsd-sim: no device named \"" + name + "\"");
    return found->second;
}

const ChassisSimulator::Device& ChassisSimulator::deviceLocked(const std::string& name) const {
    return const_cast<ChassisSimulator*>(this)->deviceLocked(name);
}

std::string ChassisSimulator::addDevice(const std::string& name) {
    checkName("device", name);
    std::lock_guard<std::mutex> lock(mutex_);
    std::string uri = deviceUriLocked(name);
    if (devices_.count(name) == 0) {
        Device device;
        device.reportedUri = resourcePath(kDevicesType, name);
        devices_.emplace(name, std::move(device));
        deviceOrder_.push_back(name);
    }
    return uri;
}

void ChassisSimulator::removeDevice(const std::string& name) {
    std::lock_guard<std::mutex> lock(mutex_);
    deviceLocked(name);
    devices_.erase(name);
    deviceOrder_.erase(std::find(deviceOrder_.begin(), deviceOrder_.end(), name));
}

std::string ChassisSimulator::addTimescale(const std::string& gmId) {
    checkName("timescale", gmId);
    std::lock_guard<std::mutex> lock(mutex_);
    std::string uri = timescaleUriLocked(gmId);
    if (std::find(timescales_.begin(), timescales_.end(), gmId) == timescales_.end()) {
        timescales_.push_back(gmId);
    }
    return uri;
}

void ChassisSimulator::removeTimescale(const std::string& gmId) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = std::find(timescales_.begin(), timescales_.end(), gmId);
    if (found == timescales_.end()) {
        throw std::invalid_argument("ztsd-sim: no timescale \"" + gmId + "\"");
    }
    timescales_.erase(found);
}

std::string ChassisSimulator::deviceUri(const std::string& name) const {
    std::lock_guard<std::mutex> lock(mutex_);
    deviceLocked(name);
    return deviceUriLocked(name);
}

std::string ChassisSimulator::deviceResourcePath(const std::string& name) const {
    std::lock_guard<std::mutex> lock(mutex_);
    deviceLocked(name);
    return resourcePath(kDevicesType, name);
}

std::string ChassisSimulator::timescaleUri(const std::string& gmId) const {
    std::lock_guard<std::mutex> lock(mutex_);
    if (std::find(timescales_.begin(), timescales_.end(), gmId) == timescales_.end()) {
        throw std::invalid_argument("ztsd-sim: no timescale \"" + gmId + "\"");
    }
    return timescaleUriLocked(gmId);
}

std::vector<std::string> ChassisSimulator::deviceUris() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> uris;
    for (const std::string& name : deviceOrder_) uris.push_back(deviceUriLocked(name));
    return uris;
}

std::vector<std::string> ChassisSimulator::timescaleUris() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> uris;
    for (const std::string& gmId : timescales_) uris.push_back(timescaleUriLocked(gmId));
    return uris;
}

// ---------------------------------------------------------------------------
// Device controls

void ChassisSimulator::setCoherent(const std::string& name, bool coherent) {
    std::lock_guard<std::mutex> lock(mutex_);
    deviceLocked(name).coherent = coherent;
}

void ChassisSimulator::addCoherencyLoss(const std::string& name, std::uint32_t count) {
    std::lock_guard<std::mutex> lock(mutex_);
    deviceLocked(name).lossCount += count;
}

void ChassisSimulator::setDeviceVersion(const std::string& name, std::optional<std::int64_t> version) {
    std::lock_guard<std::mutex> lock(mutex_);
    deviceLocked(name).version = version;
}

void ChassisSimulator::setDeviceReportedUri(const std::string& name, std::optional<std::string> uri) {
    std::lock_guard<std::mutex> lock(mutex_);
    deviceLocked(name).reportedUri = std::move(uri);
}

void ChassisSimulator::setListingVersion(std::optional<std::int64_t> version) {
    std::lock_guard<std::mutex> lock(mutex_);
    listingVersion_ = version;
}

std::string ChassisSimulator::requirementsOf(const std::string& name) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return deviceLocked(name).requirements;
}

bool ChassisSimulator::isCoherent(const std::string& name) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return deviceLocked(name).coherent;
}

std::uint32_t ChassisSimulator::coherencyLossCount(const std::string& name) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return deviceLocked(name).lossCount;
}

std::uint64_t ChassisSimulator::getCountOf(const std::string& name) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return deviceLocked(name).gets;
}

std::uint64_t ChassisSimulator::putCountOf(const std::string& name) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return deviceLocked(name).puts;
}

// ---------------------------------------------------------------------------
// Faults and statistics

void ChassisSimulator::setFault(const std::string& pathPrefix, const Fault& fault) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (fault.remaining == 0) {
            faults_.erase(pathPrefix);
        } else {
            faults_[pathPrefix] = fault;
        }
        ++releases_[pathPrefix];
    }
    released_.notify_all();
}

void ChassisSimulator::clearFault(const std::string& pathPrefix) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        faults_.erase(pathPrefix);
        ++releases_[pathPrefix];
    }
    released_.notify_all();
}

void ChassisSimulator::clearFaults() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        faults_.clear();
        ++releaseAll_;
    }
    released_.notify_all();
}

std::uint64_t ChassisSimulator::requestCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requestCount_;
}

std::size_t ChassisSimulator::heldRequestCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return held_;
}

RequestRecord ChassisSimulator::lastRequest() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lastRequest_ ? *lastRequest_ : RequestRecord{};
}

bool ChassisSimulator::takeFaultLocked(const std::string& path, Fault& fault, std::string& prefix) {
    auto chosen = faults_.end();
    for (auto it = faults_.begin(); it != faults_.end(); ++it) {
        const bool matches = path.compare(0, it->first.size(), it->first) == 0;
        if (matches && (chosen == faults_.end() || it->first.size() > chosen->first.size())) chosen = it;
    }
    if (chosen == faults_.end()) return false;
    fault = chosen->second;
    prefix = chosen->first;
    if (chosen->second.remaining > 0 && --chosen->second.remaining == 0) faults_.erase(chosen);
    return true;
}

// ---------------------------------------------------------------------------
// Serving

ChassisSimulator::Answer ChassisSimulator::failure(int status, std::int32_t code, std::string text) {
    ChassisSimulator::Answer answer;
    answer.status = status;
    answer.success = false;
    answer.errorCode = code;
    answer.errorText = std::move(text);
    return answer;
}

ChassisSimulator::Route ChassisSimulator::routeLocked(const std::string& path) const {
    Route route;
    if (path.empty() || path[0] != '/') return route;
    std::vector<std::string> segments;
    std::size_t begin = 1;
    for (;;) {
        const std::size_t slash = path.find('/', begin);
        segments.push_back(path.substr(begin, slash == std::string::npos ? std::string::npos : slash - begin));
        if (slash == std::string::npos) break;
        begin = slash + 1;
    }
    // A final "/" is allowed on collections only.
    const bool trailingSlash = segments.size() > 1 && segments.back().empty();
    if (trailingSlash) segments.pop_back();
    for (const std::string& segment : segments) {
        if (segment.empty()) return route;
    }
    const std::size_t n = segments.size();
    if (n < 2 || segments[0] != kWebService || segments[1] != kResources) return route;
    std::string under = std::string("/") + kWebService + "/" + kResources + "/";
    if (n == 2) return Route{Route::listing, "", under};
    if (segments[2] != plugin_) return route;
    under += plugin_ + "/";
    if (n == 3) return Route{Route::listing, "", under};
    const std::string& type = segments[3];
    if (type != kDevicesType && type != kTimescalesType) return route;
    under += type + "/";
    if (n == 4) return Route{Route::listing, "", under};
    if (n != 5 || trailingSlash) return route;
    const std::string& name = segments[4];
    if (type == kDevicesType) {
        if (devices_.count(name) != 0) return Route{Route::device, name, ""};
    } else if (std::find(timescales_.begin(), timescales_.end(), name) != timescales_.end()) {
        return Route{Route::timescale, name, ""};
    }
    return route;
}

void ChassisSimulator::handle(const httplib::Request& request, httplib::Response& response) {
    std::unique_lock<std::mutex> lock(mutex_);
    ++requestCount_;
    lastRequest_ = std::make_unique<RequestRecord>(RequestRecord{
        request.method, request.path, request.get_header_value("Content-Type"),
        request.get_header_value("Accept"), request.body});
    const Route arrival = routeLocked(request.path);
    if (arrival.kind == Route::device) {
        Device& device = devices_.at(arrival.name);
        if (isReading(request.method)) ++device.gets;
        if (request.method == "PUT") ++device.puts;
    }

    Fault fault;
    std::string prefix;
    const bool faulted = takeFaultLocked(request.path, fault, prefix);
    if (faulted && (fault.latency_ms > 0 || fault.stall)) {
        ++held_;
        if (fault.latency_ms > 0) {
            released_.wait_for(lock, std::chrono::milliseconds(fault.latency_ms), [this] { return stopping_; });
        }
        if (fault.stall) {
            const std::uint64_t all = releaseAll_;
            const std::uint64_t mine = releases_[prefix];
            released_.wait(lock, [&] { return stopping_ || releaseAll_ != all || releases_[prefix] != mine; });
        }
        --held_;
    }
    if (stopping_) {
        lock.unlock();
        send(response, failure(503, zterr::code::ztapalerr_resourceRemoved, "The simulator is stopping."), nullptr);
        return;
    }
    if (faulted && fault.dropConnection) {
        const std::uint16_t port = port_;
        lock.unlock();
        // The server's own write of this answer then fails and it closes
        // the connection: the client sees it end without a reply.
        net::shutdownConnection(port, request.remote_addr, request.remote_port);
        response.status = 500;
        return;
    }
    const bool altered = faulted && (fault.httpStatus != 0 || fault.hasRawBody || fault.envelopeError);
    Answer answer = answerLocked(request, !altered);
    lock.unlock();
    send(response, std::move(answer), faulted ? &fault : nullptr);
}

ChassisSimulator::Answer ChassisSimulator::answerLocked(const httplib::Request& request, bool applyChanges) {
    const Route route = routeLocked(request.path);
    const bool reading = isReading(request.method);
    Answer answer;
    switch (route.kind) {
    case Route::notFound:
        return failure(404, zterr::code::ztapalerr_resourceNotFound, "No resource at this path.");
    case Route::listing:
        if (!reading) break;
        return listingLocked(route.underPath);
    case Route::timescale: {
        if (!reading) break;
        answer.result = makeObject();
        add(answer.result.get(), "version", integer(1));
        add(answer.result.get(), "uri", cJSON_CreateString(resourcePath(kTimescalesType, route.name).c_str()));
        add(answer.result.get(), "gmId", cJSON_CreateString(route.name.c_str()));
        return answer;
    }
    case Route::device: {
        Device& device = devices_.at(route.name);
        if (request.method == "PUT") {
            if (!parseWhole(request.body)) {
                return failure(400, zterr::code::ztapalerr_invalidParameter,
                               "The requirements document is not valid JSON.");
            }
            if (applyChanges) device.requirements = request.body;
        } else if (!reading) {
            answer = failure(405, zterr::code::ztapalerr_featureUnsupported, "A device takes GET and PUT only.");
            answer.allow = "GET, PUT";
            return answer;
        }
        return devicePayloadLocked(route.name, device);
    }
    }
    answer = failure(405, zterr::code::ztapalerr_featureUnsupported, "This resource takes GET only.");
    answer.allow = "GET";
    return answer;
}

ChassisSimulator::Answer ChassisSimulator::devicePayloadLocked(const std::string& name, const Device& device) const {
    Answer answer;
    answer.result = makeObject();
    cJSON* const object = answer.result.get();
    if (device.version) add(object, "version", integer(*device.version));
    if (device.reportedUri) add(object, "uri", cJSON_CreateString(device.reportedUri->c_str()));
    add(object, "isCoherent", cJSON_CreateBool(device.coherent));
    add(object, "coherencyLossCount", integer(device.lossCount));
    JsonPtr requirements = device.requirements.empty() ? nullptr : parseWhole(device.requirements);
    add(object, "coherencyRequirements", requirements ? requirements.release() : cJSON_CreateNull());
    add(object, "name", cJSON_CreateString(name.c_str()));
    return answer;
}

ChassisSimulator::Answer ChassisSimulator::listingLocked(const std::string& underPath) const {
    Answer answer;
    answer.result = makeObject();
    if (listingVersion_) add(answer.result.get(), "version", integer(*listingVersion_));
    cJSON* const resources = cJSON_CreateArray();
    add(answer.result.get(), "resources", resources);
    std::size_t listed = 0;
    const auto list = [&](const std::vector<std::string>& names, const char* type) {
        for (const std::string& name : names) {
            if (resourcePath(type, name).compare(0, underPath.size(), underPath) != 0) continue;
            JsonPtr entry = makeObject();
            const bool withHost = options_.listingForm == ListingForm::withHosts ||
                                  (options_.listingForm == ListingForm::mixed && listed++ % 2 == 1);
            const std::string uri = (withHost ? "/" + remoteHostLocked() : std::string()) + resourcePath(type, name);
            add(entry.get(), "uri", cJSON_CreateString(uri.c_str()));
            add(entry.get(), "resourceType", cJSON_CreateString(type));
            if (!cJSON_AddItemToArray(resources, entry.get())) throw std::bad_alloc();
            entry.release();
        }
    };
    list(deviceOrder_, kDevicesType);
    list(timescales_, kTimescalesType);
    return answer;
}

void ChassisSimulator::send(httplib::Response& response, Answer answer, const Fault* fault) {
    int status = answer.status;
    std::string body;
    if (fault != nullptr && fault->hasRawBody) {
        body = fault->rawBody;
    } else {
        JsonPtr result = std::move(answer.result);
        if (fault != nullptr && fault->envelopeError) {
            // An info text that is not JSON goes out as it stands, so a test
            // can send a broken envelope on purpose.
            JsonPtr info = parseWhole(fault->errorInfoJson);
            if (!info) info.reset(cJSON_CreateRaw(fault->errorInfoJson.c_str()));
            body = envelopeText(false, fault->errorCode, fault->errorText, std::move(info), std::move(result));
        } else {
            body = envelopeText(answer.success, answer.errorCode, answer.errorText, nullptr, std::move(result));
        }
    }
    if (fault != nullptr && fault->httpStatus != 0) status = fault->httpStatus;
    if (isBodiless(status)) body.clear();
    response.status = status;
    if (!answer.allow.empty()) response.set_header("Allow", answer.allow);
    response.set_content(body, kMediaType);
}

}  // namespace ztsdsim
