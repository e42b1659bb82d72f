#include "timestampDaemonSimulator.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <mutex>
#include <random>
#include <set>
#include <stdexcept>
#include <thread>
#include <utility>

#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/server/TThreadedServer.h>
#include <thrift/protocol/TProtocolTypes.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TServerSocket.h>
#include <thrift/transport/TSocket.h>
#include <thrift/transport/TTransportException.h>

#include "platform/clock.h"
#include "timestampservice/timestampService.h"
#include "ztsd-sim/socketControl.h"

namespace ztsdsim {

namespace tss = ztsdlib::timestampservice;
using apache::thrift::protocol::TBinaryProtocolFactory;
using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::protocol::TProtocol;
using apache::thrift::server::TServerEventHandler;
using apache::thrift::server::TThreadedServer;
using apache::thrift::transport::TBufferedTransport;
using apache::thrift::transport::TBufferedTransportFactory;
using apache::thrift::transport::TMemoryBuffer;
using apache::thrift::transport::TServerSocket;
using apache::thrift::transport::TSocket;
using apache::thrift::transport::TTransport;
using apache::thrift::transport::TTransportException;

namespace {

using Nanos = __int128;
constexpr std::int64_t kNanosPerSecond = 1000000000;

// The descriptor of the connection whose call this server thread is serving.
thread_local ztsdsim::net::Socket currentConnection = ztsdsim::net::kNoSocket;

Nanos toNanos(const ztsdlib_Timestamp& t) {
    const Nanos magnitude = static_cast<Nanos>(t.seconds) * kNanosPerSecond + t.nanos;
    return t.isNegative ? -magnitude : magnitude;
}

ztsdlib_Timestamp fromNanos(Nanos value) {
    ztsdlib_Timestamp t{};
    t.isNegative = value < 0;
    const Nanos magnitude = value < 0 ? -value : value;
    t.seconds = static_cast<std::uint64_t>(magnitude / kNanosPerSecond);
    t.nanos = static_cast<std::uint32_t>(magnitude % kNanosPerSecond);
    return t;
}

Nanos floorDivide(Nanos a, Nanos b) {
    Nanos q = a / b;
    if ((a % b != 0) && ((a < 0) != (b < 0))) --q;
    return q;
}

Nanos hostNow() { return static_cast<Nanos>(ztsdlib::platform::systemTime100nsSince1601()) * 100; }

}  // namespace

class DaemonState {
public:
    mutable std::mutex mutex;  // guards every member below but the lifecycle ones
    std::condition_variable changed;
    bool listening = false;
    bool stopping = false;
    std::string serveError;
    std::uint16_t port = 0;
    std::string host = "127.0.0.1";

    std::vector<std::string> uris;
    std::int32_t apiVersion = 2;
    std::int64_t offset_ns = 0;
    std::int64_t rate_ppb = 0;
    Nanos reference_ns = hostNow();
    std::optional<std::string> reportedUri;

    std::uint32_t refusals = 0;
    std::uint32_t drops = 0;
    std::uint32_t stalls = 0;
    std::uint32_t stallHold_ms = 0;  // 0: a stalled call waits for a release
    std::uint32_t failures = 0;
    std::int32_t failureCode = 0;
    std::string failureJson;
    std::uint64_t releases = 0;  // bumped by every release of held calls
    std::int64_t replyDelay_ns = 0;   // added to every time reply after the clock is read
    std::int64_t replyJitter_ns = 0;  // plus uniform in [0, jitter]
    std::mt19937_64 jitterSource{20261123};
    std::int64_t driftOutward_ns = 0;  // amplitude of the wandering outward delay
    std::int64_t driftReturn_ns = 0;   // and of the return delay
    Nanos driftOrigin_ns = hostNow();
    DaemonPersonality personality = DaemonPersonality::faithful;
    std::uint32_t dripInterval_ms = 1000;

    std::uint64_t connections = 0;
    std::uint64_t refused = 0;
    std::uint64_t calls = 0;
    std::size_t stalled = 0;
    std::set<net::Socket> open;  // sockets of the connections being served

    // Lifecycle: start() and stop() only.
    std::mutex lifecycle;
    std::unique_ptr<TThreadedServer> server;
    std::thread serveThread;
    bool started = false;

    Nanos timeAtLocked(Nanos host) const {
        return host + offset_ns + floorDivide((host - reference_ns) * rate_ppb, kNanosPerSecond);
    }

    // Counts an accepted connection; true when it is to be refused.
    bool takeRefusal() {
        std::lock_guard<std::mutex> lock(mutex);
        ++connections;
        if (refusals == 0) return false;
        --refusals;
        ++refused;
        return true;
    }

    // The faults a call meets before it is answered: stall, drop, failure.
    void beforeCall(bool timeCall) {
        std::unique_lock<std::mutex> lock(mutex);
        ++calls;
        if (stalls > 0) {
            --stalls;
            ++stalled;
            const std::uint64_t seen = releases;
            const auto released = [&] { return stopping || releases != seen; };
            if (stallHold_ms > 0) changed.wait_for(lock, std::chrono::milliseconds(stallHold_ms), released);
            else changed.wait(lock, released);
            --stalled;
        }
        if (drops > 0) {
            --drops;
            lock.unlock();
            if (currentConnection != net::kNoSocket) net::shutdownBoth(currentConnection);
            throw TTransportException(TTransportException::END_OF_FILE, "ztsd-sim: connection dropped mid-call");
        }
        if (timeCall && failures > 0) {
            --failures;
            tss::thrift_zterr error;
            error.code = failureCode;
            error.json = failureJson;
            throw error;
        }
    }
};

namespace {

// A delay that wanders between 0 and amplitude_ns over seconds, as a path
// shared with other traffic does: the mean of three sines of periods 1.7 s,
// 3.1 s and 7.3 s (no common period within minutes), each leg with its own
// phases, mapped onto [0, amplitude].
std::int64_t wanderingDelay(std::int64_t amplitude_ns, Nanos sinceOrigin_ns, double phase) {
    if (amplitude_ns <= 0) return 0;
    const double t_s = static_cast<double>(sinceOrigin_ns) * 1e-9;
    constexpr double kTwoPi = 6.283185307179586;
    const double mean = (std::sin(kTwoPi * t_s / 1.7 + phase) + std::sin(kTwoPi * t_s / 3.1 + 2 * phase) +
                         std::sin(kTwoPi * t_s / 7.3 + 3 * phase)) / 3;
    return static_cast<std::int64_t>(static_cast<double>(amplitude_ns) * (1 + mean) / 2);
}

// Holds a time call on its way in (the wandering outward delay, before the
// clock is read) and its reply on its way out (the fixed delay, the jitter
// and the wandering return delay, after the clock is read): declared before
// the handler takes the state's lock, it waits outside that lock (or until
// stop()).
class ReplyDelay {
public:
    explicit ReplyDelay(DaemonState* s) : state(s) {
        std::unique_lock<std::mutex> lock(state->mutex);
        delay_ns = state->replyDelay_ns;
        if (state->replyJitter_ns > 0) {
            delay_ns += std::uniform_int_distribution<std::int64_t>(0, state->replyJitter_ns)(state->jitterSource);
        }
        const Nanos since = hostNow() - state->driftOrigin_ns;
        delay_ns += wanderingDelay(state->driftReturn_ns, since, 2.0);
        const std::int64_t outward_ns = wanderingDelay(state->driftOutward_ns, since, 0.5);
        if (outward_ns > 0) {
            state->changed.wait_for(lock, std::chrono::nanoseconds(outward_ns), [this] { return state->stopping; });
        }
    }
    ~ReplyDelay() {
        if (delay_ns <= 0) return;
        std::unique_lock<std::mutex> lock(state->mutex);
        state->changed.wait_for(lock, std::chrono::nanoseconds(delay_ns), [this] { return state->stopping; });
    }
    ReplyDelay(const ReplyDelay&) = delete;
    ReplyDelay& operator=(const ReplyDelay&) = delete;

private:
    DaemonState* state;
    std::int64_t delay_ns = 0;
};

class Handler : public tss::timestampServiceIf {
public:
    explicit Handler(DaemonState* s) : state(s) {}

    void getTime(tss::TimestampInfo& answer, const std::int32_t id) override {
        state->beforeCall(true);
        const ReplyDelay delay(state);
        std::lock_guard<std::mutex> lock(state->mutex);
        if (id < 0 || static_cast<std::size_t>(id) >= state->uris.size()) {
            tss::thrift_zterr error;
            error.code = -52006;
            error.json = "{\"error_constant\":\"ztapalerr_resourceNotFound\",\"component\":\"zttimestampd\","
                         "\"message\":\"No timescale with this id.\",\"id\":" +
                         std::to_string(id) + "}";
            throw error;
        }
        const ztsdlib_Timestamp t = fromNanos(state->timeAtLocked(hostNow()));
        answer.seconds = static_cast<std::int64_t>(t.seconds);
        answer.nanos = static_cast<std::int32_t>(t.nanos);
        answer.fractionalNanos = 0;
        answer.isNegative = t.isNegative;
        answer.uri = state->reportedUri ? *state->reportedUri : state->uris[static_cast<std::size_t>(id)];
    }

    std::int32_t getApiVersion() override {
        state->beforeCall(false);
        std::lock_guard<std::mutex> lock(state->mutex);
        return state->apiVersion;
    }

    void getTimeAndCurrentTimescales(tss::TimeInfo& answer) override {
        state->beforeCall(true);
        const ReplyDelay delay(state);
        std::lock_guard<std::mutex> lock(state->mutex);
        // A version 1 daemon does not know this method.
        if (state->apiVersion < 2) throw std::runtime_error("Invalid method name: 'getTimeAndCurrentTimescales'");
        const ztsdlib_Timestamp t = fromNanos(state->timeAtLocked(hostNow()));
        answer.timestamp.seconds = static_cast<std::int64_t>(t.seconds);
        answer.timestamp.nanos = static_cast<std::int32_t>(t.nanos);
        answer.timestamp.fractionalNanos = 0;
        answer.timestamp.isNegative = t.isNegative;
        answer.timescaleUris = state->uris;
    }

private:
    DaemonState* state;
};

// The reply to a time call as the personality writes it, from the faithful
// reply's bytes (strict header: version word and type, name length, name,
// sequence id).
std::string reshape(DaemonPersonality personality, std::string reply, const std::string& method,
                    std::int32_t sequenceId) {
    const std::size_t nameAt = 8;
    switch (personality) {
        case DaemonPersonality::wrongMethodName:
            if (reply.size() > nameAt) reply[nameAt] = static_cast<char>(reply[nameAt] ^ 0x20);
            return reply;
        case DaemonPersonality::invalidMessageType:
            if (reply.size() > 3) reply[3] = static_cast<char>(apache::thrift::protocol::T_CALL);
            return reply;
        case DaemonPersonality::wrongSequenceId:
            if (reply.size() >= nameAt + method.size() + 4) reply.replace(nameAt + method.size(), 4, "\0\0\0\7", 4);
            return reply;
        case DaemonPersonality::hugeLengths: {
            auto buffer = std::make_shared<TMemoryBuffer>();
            TBinaryProtocol out(buffer);
            out.writeMessageBegin(method, apache::thrift::protocol::T_REPLY, sequenceId);
            out.writeFieldBegin("", apache::thrift::protocol::T_STRUCT, 0);
            if (method == "getTime") {
                out.writeFieldBegin("", apache::thrift::protocol::T_STRING, 5);
                out.writeI32(0x7fffffff);
            } else {
                out.writeFieldBegin("", apache::thrift::protocol::T_LIST, 2);
                out.writeListBegin(apache::thrift::protocol::T_STRING, 26000000);
            }
            return buffer->getBufferAsString();
        }
        case DaemonPersonality::httpServer:
            return "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
        case DaemonPersonality::faithful:
        case DaemonPersonality::byteAtATime:
            break;
    }
    return reply;
}

// The generated processor, with the time calls' replies written by the
// personality: the faithful reply is made into memory, reshaped, then sent
// (a byte at a time for byteAtATime).
class PersonalityProcessor : public tss::timestampServiceProcessor {
public:
    PersonalityProcessor(std::shared_ptr<tss::timestampServiceIf> handler, DaemonState* s)
        : tss::timestampServiceProcessor(std::move(handler)), state(s) {}

protected:
    bool dispatchCall(TProtocol* in, TProtocol* out, const std::string& method, std::int32_t sequenceId,
                      void* context) override {
        DaemonPersonality personality;
        std::uint32_t drip_ms;
        {
            std::lock_guard<std::mutex> lock(state->mutex);
            personality = state->personality;
            drip_ms = state->dripInterval_ms;
        }
        if (personality == DaemonPersonality::faithful || method == "getApiVersion")
            return tss::timestampServiceProcessor::dispatchCall(in, out, method, sequenceId, context);
        auto buffer = std::make_shared<TMemoryBuffer>();
        TBinaryProtocol memory(buffer);
        const bool served = tss::timestampServiceProcessor::dispatchCall(in, &memory, method, sequenceId, context);
        const std::string reply = reshape(personality, buffer->getBufferAsString(), method, sequenceId);
        auto& wire = *out->getTransport();
        if (personality != DaemonPersonality::byteAtATime) {
            wire.write(reinterpret_cast<const std::uint8_t*>(reply.data()), static_cast<std::uint32_t>(reply.size()));
            wire.flush();
            return served;
        }
        for (const char byte : reply) {
            wire.write(reinterpret_cast<const std::uint8_t*>(&byte), 1);
            wire.flush();
            std::unique_lock<std::mutex> lock(state->mutex);
            if (state->changed.wait_for(lock, std::chrono::milliseconds(drip_ms), [&] { return state->stopping; }))
                throw TTransportException(TTransportException::INTERRUPTED, "ztsd-sim: stopping");
        }
        return served;
    }

private:
    DaemonState* state;
};

// Accepts as the plain server socket does, but resets the connections the
// state says to refuse.
class RefusingServerSocket : public TServerSocket {
public:
    RefusingServerSocket(DaemonState* s, const std::string& host, std::uint16_t port)
        : TServerSocket(host, port), state(s) {}

protected:
    std::shared_ptr<TTransport> acceptImpl() override {
        for (;;) {
            std::shared_ptr<TTransport> client = TServerSocket::acceptImpl();
            if (!state->takeRefusal()) return client;
            if (auto socket = std::dynamic_pointer_cast<TSocket>(client)) {
                net::resetOnClose(static_cast<net::Socket>(socket->getSocketFD()));  // close with RST, not FIN
            }
            client->close();
        }
    }

private:
    DaemonState* state;
};

// Learns the port once the server listens, and keeps the set of open
// connections with the descriptor of the one each server thread serves.
class ConnectionTracker : public TServerEventHandler {
public:
    ConnectionTracker(DaemonState* s, std::shared_ptr<TServerSocket> socket)
        : state(s), serverSocket(std::move(socket)) {}

    void preServe() override {
        std::lock_guard<std::mutex> lock(state->mutex);
        state->port = static_cast<std::uint16_t>(serverSocket->getPort());
        state->listening = true;
        state->changed.notify_all();
    }

    void* createContext(std::shared_ptr<TProtocol> input, std::shared_ptr<TProtocol>) override {
        currentConnection = net::kNoSocket;
        if (auto buffered = std::dynamic_pointer_cast<TBufferedTransport>(input->getTransport())) {
            if (auto socket = std::dynamic_pointer_cast<TSocket>(buffered->getUnderlyingTransport())) {
                currentConnection = static_cast<net::Socket>(socket->getSocketFD());
            }
        }
        std::lock_guard<std::mutex> lock(state->mutex);
        if (currentConnection != net::kNoSocket) state->open.insert(currentConnection);
        return nullptr;
    }

    void deleteContext(void*, std::shared_ptr<TProtocol>, std::shared_ptr<TProtocol>) override {
        std::lock_guard<std::mutex> lock(state->mutex);
        state->open.erase(currentConnection);
        currentConnection = net::kNoSocket;
    }

private:
    DaemonState* state;
    std::shared_ptr<TServerSocket> serverSocket;
};

}  // namespace

TimestampDaemonSimulator::TimestampDaemonSimulator() : state(std::make_unique<DaemonState>()) {}

TimestampDaemonSimulator::~TimestampDaemonSimulator() { stop(); }

void TimestampDaemonSimulator::start() { start("127.0.0.1", 0); }

std::string TimestampDaemonSimulator::host() const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return state->host;
}

void TimestampDaemonSimulator::start(const std::string& host, std::uint16_t port) {
    std::lock_guard<std::mutex> lifecycle(state->lifecycle);
    if (state->started) throw std::logic_error("ztsd-sim: the timestamp daemon was started already");
    state->started = true;
    {
        std::lock_guard<std::mutex> lock(state->mutex);
        state->host = host;
    }

    auto socket = std::make_shared<RefusingServerSocket>(state.get(), host, port);
    auto processor = std::make_shared<PersonalityProcessor>(std::make_shared<Handler>(state.get()), state.get());
    state->server = std::make_unique<TThreadedServer>(processor, socket, std::make_shared<TBufferedTransportFactory>(),
                                                      std::make_shared<TBinaryProtocolFactory>());
    state->server->setServerEventHandler(std::make_shared<ConnectionTracker>(state.get(), socket));

    DaemonState* s = state.get();
    state->serveThread = std::thread([s] {
        try {
            s->server->serve();
        } catch (const std::exception& e) {
            std::lock_guard<std::mutex> lock(s->mutex);
            s->serveError = e.what();
            s->changed.notify_all();
        }
    });

    std::unique_lock<std::mutex> lock(state->mutex);
    const bool ready = state->changed.wait_for(lock, std::chrono::seconds(10),
                                               [&] { return state->listening || !state->serveError.empty(); });
    if (ready && state->listening) return;
    const std::string why = ready ? state->serveError : "no answer within 10 s";
    lock.unlock();
    state->server->stop();
    state->serveThread.join();
    state->server.reset();
    throw std::runtime_error("ztsd-sim: the timestamp daemon cannot listen: " + why);
}

void TimestampDaemonSimulator::stop() {
    std::lock_guard<std::mutex> lifecycle(state->lifecycle);
    if (!state->server) return;
    {
        std::lock_guard<std::mutex> lock(state->mutex);
        state->stopping = true;
        state->changed.notify_all();
    }
    // Interrupts the accept loop and every connection's read; held calls
    // were released above.
    state->server->stop();
    if (state->serveThread.joinable()) state->serveThread.join();
    state->server.reset();
    std::lock_guard<std::mutex> lock(state->mutex);
    state->listening = false;
}

bool TimestampDaemonSimulator::isRunning() const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return state->listening && !state->stopping;
}

std::uint16_t TimestampDaemonSimulator::port() const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return state->port;
}

std::string TimestampDaemonSimulator::localTimescaleUri(const std::string& gmId) {
    return "/localhost/ztsds/timescales/" + gmId;
}

std::string TimestampDaemonSimulator::addTimescale(const std::string& gmId) {
    std::string uri = localTimescaleUri(gmId);
    std::lock_guard<std::mutex> lock(state->mutex);
    if (std::find(state->uris.begin(), state->uris.end(), uri) == state->uris.end()) state->uris.push_back(uri);
    return uri;
}

void TimestampDaemonSimulator::removeTimescale(const std::string& gmId) {
    const std::string uri = localTimescaleUri(gmId);
    std::lock_guard<std::mutex> lock(state->mutex);
    state->uris.erase(std::remove(state->uris.begin(), state->uris.end(), uri), state->uris.end());
}

std::vector<std::string> TimestampDaemonSimulator::timescaleUris() const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return state->uris;
}

void TimestampDaemonSimulator::setApiVersion(std::int32_t version) {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->apiVersion = version;
}

std::int32_t TimestampDaemonSimulator::apiVersion() const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return state->apiVersion;
}

void TimestampDaemonSimulator::setClock(std::int64_t offset_ns, std::int64_t rate_ppb) {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->offset_ns = offset_ns;
    state->rate_ppb = rate_ppb;
    state->reference_ns = hostNow();
}

ztsdlib_Timestamp TimestampDaemonSimulator::timeAt(const ztsdlib_Timestamp& hostTime) const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return fromNanos(state->timeAtLocked(toNanos(hostTime)));
}

ztsdlib_Timestamp TimestampDaemonSimulator::now() const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return fromNanos(state->timeAtLocked(hostNow()));
}

void TimestampDaemonSimulator::setReplyDelay(std::uint32_t delay_us, std::uint32_t jitter_us) {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->replyDelay_ns = static_cast<std::int64_t>(delay_us) * 1000;
    state->replyJitter_ns = static_cast<std::int64_t>(jitter_us) * 1000;
}

void TimestampDaemonSimulator::setDriftingDelay(std::uint32_t outward_us, std::uint32_t return_us) {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->driftOutward_ns = static_cast<std::int64_t>(outward_us) * 1000;
    state->driftReturn_ns = static_cast<std::int64_t>(return_us) * 1000;
}

void TimestampDaemonSimulator::setReportedUri(std::optional<std::string> uri) {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->reportedUri = std::move(uri);
}

void TimestampDaemonSimulator::refuseConnections(std::uint32_t count) {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->refusals = count;
}

void TimestampDaemonSimulator::dropCalls(std::uint32_t count) {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->drops = count;
}

void TimestampDaemonSimulator::stallCalls(std::uint32_t count, std::uint32_t hold_ms) {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->stalls = count;
    state->stallHold_ms = hold_ms;
}

void TimestampDaemonSimulator::releaseStalls() {
    std::lock_guard<std::mutex> lock(state->mutex);
    ++state->releases;
    state->changed.notify_all();
}

void TimestampDaemonSimulator::failCalls(std::uint32_t count, std::int32_t code, std::string json) {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->failures = count;
    state->failureCode = code;
    state->failureJson = std::move(json);
}

void TimestampDaemonSimulator::dropConnections() {
    std::lock_guard<std::mutex> lock(state->mutex);
    // A descriptor leaves the set before its connection closes it, so each
    // one here is still the connection it was.
    for (const net::Socket s : state->open) net::shutdownBoth(s);
}

void TimestampDaemonSimulator::setPersonality(DaemonPersonality personality, std::uint32_t dripInterval_ms) {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->personality = personality;
    state->dripInterval_ms = dripInterval_ms;
}

const std::vector<std::pair<std::string, DaemonPersonality>>& daemonPersonalityNames() {
    static const std::vector<std::pair<std::string, DaemonPersonality>> names{
        {"faithful", DaemonPersonality::faithful},
        {"wrong-method-name", DaemonPersonality::wrongMethodName},
        {"invalid-message-type", DaemonPersonality::invalidMessageType},
        {"wrong-sequence-id", DaemonPersonality::wrongSequenceId},
        {"huge-lengths", DaemonPersonality::hugeLengths},
        {"http-server", DaemonPersonality::httpServer},
        {"byte-at-a-time", DaemonPersonality::byteAtATime}};
    return names;
}

void TimestampDaemonSimulator::clearFaults() {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->refusals = state->drops = state->stalls = state->failures = 0;
    state->personality = DaemonPersonality::faithful;
    state->reportedUri.reset();
    ++state->releases;
    state->changed.notify_all();
}

std::uint64_t TimestampDaemonSimulator::connectionCount() const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return state->connections;
}

std::uint64_t TimestampDaemonSimulator::refusedCount() const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return state->refused;
}

std::uint64_t TimestampDaemonSimulator::callCount() const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return state->calls;
}

std::size_t TimestampDaemonSimulator::openConnectionCount() const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return state->open.size();
}

std::size_t TimestampDaemonSimulator::stalledCallCount() const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return state->stalled;
}

}  // namespace ztsdsim
