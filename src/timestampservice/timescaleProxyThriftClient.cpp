#include "timestampservice/timescaleProxyThriftClient.h"

#include <chrono>
#include <climits>
#include <mutex>
#include <iterator>
#include <string>

#include <thrift/TApplicationException.h>
#include <thrift/TOutput.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/protocol/TProtocolException.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>
#include <thrift/transport/TTransportException.h>
#include <thrift/transport/TVirtualTransport.h>

#include "errors/exception.h"
#include "platform/debugOutput.h"
#include "remote/hostCheck.h"
#include "timestampservice/interruptibleSocket.h"
#include "timestampservice/socketLayer.h"

namespace ztsdlib {

using apache::thrift::protocol::TMessageType;
using apache::thrift::transport::TTransport;
using apache::thrift::TApplicationException;
using apache::thrift::TException;
using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::protocol::TProtocolException;
using apache::thrift::transport::TBufferedTransport;
using apache::thrift::transport::TSocket;
using apache::thrift::transport::TTransportException;

// Between the buffered transport and the socket: bounds one attempt by a
// deadline and the bytes one reply may take.
class DeadlineTransport : public apache::thrift::transport::TVirtualTransport<DeadlineTransport> {
public:
    explicit DeadlineTransport(std::shared_ptr<TSocket> socket) : socket(std::move(socket)) {}

    // Starts an attempt: budget_ms from now, and a fresh reply budget.
    void arm(int budget_ms) {
        deadline = Clock::now() + std::chrono::milliseconds(budget_ms);
        replyBytes = 0;
    }
    // What is left of the attempt, in whole milliseconds (at least 1), or a
    // TIMED_OUT failure once nothing is left.
    int remaining_ms() const {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) throw TTransportException(TTransportException::TIMED_OUT, "Deadline of the daemon call passed");
        return static_cast<int>(left);
    }

    bool isOpen() const override { return socket->isOpen(); }
    bool peek() override { return socket->peek(); }
    void open() override {
        socket->setConnTimeout(remaining_ms());
        socket->open();
    }
    void close() override { socket->close(); }
    void flush() override { socket->flush(); }

    std::uint32_t read(std::uint8_t* buffer, std::uint32_t length) {
        socket->setRecvTimeout(remaining_ms());
        const std::uint32_t n = socket->read(buffer, length);
        replyBytes += n;
        if (replyBytes > kMaxDaemonReplyBytes)
            throw TProtocolException(TProtocolException::SIZE_LIMIT, "Daemon reply exceeds its size limit");
        return n;
    }
    void write(const std::uint8_t* buffer, std::uint32_t length) {
        socket->setSendTimeout(remaining_ms());
        socket->write(buffer, length);
    }

private:
    using Clock = std::chrono::steady_clock;
    std::shared_ptr<TSocket> socket;
    Clock::time_point deadline = Clock::now();
    std::uint32_t replyBytes = 0;
};

namespace {

std::shared_ptr<TSocket> makeSocket(const std::string& host, std::uint32_t port,
                                    std::shared_ptr<ReadInterruption> interruption) {
    // A port beyond int's range becomes -1 (the client refuses it before).
    const int number = port > static_cast<std::uint32_t>(INT_MAX) ? -1 : static_cast<int>(port);
    if (interruption) return std::make_shared<InterruptibleSocket>(host, number, std::move(interruption));
    return std::make_shared<TSocket>(host, number);
}

// libthrift's messages, into the library's debug trace.
void thriftOutput(const char* text) {
    platform::writeDebugTrace(text);
    platform::writeDebugTrace("\n");
}

// Reads the header of the reply to `method` and refuses at once anything but
// a reply to it with the request's sequence id (0, as the generated sender
// writes it); a TApplicationException message is thrown as such.
void readReplyHeader(apache::thrift::protocol::TProtocol& in, const char* method) {
    std::string name;
    TMessageType type;
    std::int32_t sequenceId = 0;
    in.readMessageBegin(name, type, sequenceId);
    if (type == apache::thrift::protocol::T_EXCEPTION) {
        TApplicationException failure;
        failure.read(&in);
        throw failure;
    }
    if (type != apache::thrift::protocol::T_REPLY)
        throw TApplicationException(TApplicationException::INVALID_MESSAGE_TYPE,
                                    std::string(method) + " failed: invalid message type");
    if (name != method)
        throw TApplicationException(TApplicationException::WRONG_METHOD_NAME,
                                    std::string(method) + " failed: wrong method name");
    if (sequenceId != 0)
        throw TApplicationException(TApplicationException::BAD_SEQUENCE_ID,
                                    std::string(method) + " failed: out of sequence response");
}

// A reply whose nanos is outside 0..999999999 is malformed: the daemon's
// fault, reported as a protocol failure naming the field, before the value
// reaches the timestamp record (whose own check would blame the caller).
void checkNanos(std::int32_t nanos, const char* method) {
    if (nanos >= 0 && nanos < 1000000000) return;
    throw TProtocolException(TProtocolException::INVALID_DATA,
                             std::string(method) + " reply: field 'nanos' is " + std::to_string(nanos) +
                                 ", outside 0..999999999");
}

template <typename Result>
void readReplyBody(apache::thrift::protocol::TProtocol& in, Result& result, const char* method) {
    result.read(&in);
    in.readMessageEnd();
    in.getTransport()->readEnd();
    if (result.__isset.success) return;
    throw TApplicationException(TApplicationException::MISSING_RESULT, std::string(method) + " failed: unknown result");
}

}  // namespace

ReadInterruption::ReadInterruption() {
    requireSocketLayer();  // Winsock first on Windows, where the pair is a loopback TCP pair
    if (THRIFT_SOCKETPAIR(AF_UNIX, SOCK_STREAM, 0, pair_) != 0) {
        const int error = THRIFT_GET_SOCKET_ERROR;
        zterr::raise(ZTERR_SITE("source\\ztsdlib\\timescaleProxyThriftClient", zterr::name::ztapalerr_osFault),
                     zterr::code::ztapalerr_osFault, "ztsyncdomain_debug",
                     {{"message", "Failed to make the socket pair that interrupts a daemon connection."},
                      {"systemError", std::to_string(error)}});
    }
}

ReadInterruption::~ReadInterruption() {
    THRIFT_CLOSESOCKET(pair_[0]);
    THRIFT_CLOSESOCKET(pair_[1]);
}

void ReadInterruption::raise() noexcept {
    raised_.store(true);
    // One byte, never read. The send cannot block (the pair holds a byte per
    // raise, far below its buffer) nor raise SIGPIPE (the other end is open
    // as long as this object).
    const char signal = 1;
    (void)::send(pair_[1], &signal, 1, 0);
}

TimescaleProxyThriftClient::TimescaleProxyThriftClient(const std::string& host, std::uint32_t port,
                                                       std::uint32_t timeout_ms,
                                                       std::shared_ptr<ReadInterruption> interruption)
    // The socket layer first (Winsock on Windows); a port beyond int's range
    // becomes -1 (refused by the check below first).
    : socket((requireSocketLayer(), makeSocket(host, port, std::move(interruption)))),
      socketTimeout_ms(timeout_ms > static_cast<std::uint32_t>(INT_MAX) ? INT_MAX : static_cast<int>(timeout_ms)) {
    zt::syncdomain::checkDaemonHost(host, "host");
    zt::syncdomain::checkPort(port, "port");
    static std::once_flag routed;
    std::call_once(routed, [] { apache::thrift::GlobalOutput.setOutputFunction(&thriftOutput); });
    deadline = std::make_shared<DeadlineTransport>(socket);
    layerOverSocket();
}

void TimescaleProxyThriftClient::layerOverSocket() {
    transport = std::make_shared<TBufferedTransport>(deadline);
    auto binary = std::make_shared<TBinaryProtocol>(transport, kMaxDaemonStringBytes, kMaxDaemonListSize,
                                                    /*strict_read=*/true, /*strict_write=*/true);
    protocol = binary;
    client = std::make_unique<timestampservice::timestampServiceClient>(protocol);
}

TimescaleProxyThriftClient::~TimescaleProxyThriftClient() { close(); }

void TimescaleProxyThriftClient::open() {
    // Every attempt starts here: connect, request and reply share one deadline.
    deadline->arm(socketTimeout_ms);
    if (transport->isOpen()) return;
    // A reply the protocol gave up on may have left bytes of the old
    // connection in the buffers; the new connection starts with empty ones.
    if (opened) layerOverSocket();
    opened = true;
    transport->open();
}

void TimescaleProxyThriftClient::close() noexcept {
    try {
        transport->close();
    } catch (...) {
        // Closing a broken connection may fail to flush; it is closed anyway.
        try {
            socket->close();
        } catch (...) {
        }
    }
}

bool TimescaleProxyThriftClient::isOpen() const { return transport->isOpen(); }

std::int32_t TimescaleProxyThriftClient::getApiVersion() {
    client->send_getApiVersion();
    readReplyHeader(*protocol, "getApiVersion");
    std::int32_t version = 0;
    timestampservice::timestampService_getApiVersion_presult result;
    result.success = &version;
    readReplyBody(*protocol, result, "getApiVersion");
    return version;
}

void TimescaleProxyThriftClient::getTime(timestampservice::TimestampInfo& info, std::int32_t id) {
    client->send_getTime(id);
    readReplyHeader(*protocol, "getTime");
    timestampservice::timestampService_getTime_presult result;
    result.success = &info;
    try {
        readReplyBody(*protocol, result, "getTime");
    } catch (const TApplicationException&) {
        if (result.__isset.err) throw result.err;
        throw;
    }
    checkNanos(info.nanos, "getTime");
}

void TimescaleProxyThriftClient::getTimeAndCurrentTimescales(timestampservice::TimeInfo& info) {
    client->send_getTimeAndCurrentTimescales();
    readReplyHeader(*protocol, "getTimeAndCurrentTimescales");
    timestampservice::timestampService_getTimeAndCurrentTimescales_presult result;
    result.success = &info;
    try {
        readReplyBody(*protocol, result, "getTimeAndCurrentTimescales");
    } catch (const TApplicationException&) {
        if (result.__isset.err) throw result.err;
        throw;
    }
    checkNanos(info.timestamp.nanos, "getTimeAndCurrentTimescales");
}

namespace {

template <std::size_t N>
std::string kindName(const char* family, int code, const char* const (&names)[N]) {
    std::string text(family);
    if (code >= 0 && static_cast<std::size_t>(code) < N) {
        text += "::";
        text += names[code];
    }
    return text;
}

}  // namespace

RpcFailure describeRpcFailure(const std::exception& e) {
    RpcFailure failure;
    failure.what = e.what() ? e.what() : "";
    if (auto* t = dynamic_cast<const TTransportException*>(&e)) {
        static const char* const names[] = {"UNKNOWN",     "NOT_OPEN",       "TIMED_OUT",
                                            "END_OF_FILE", "INTERRUPTED",    "BAD_ARGS",
                                            "CORRUPTED_DATA", "INTERNAL_ERROR", "CLIENT_DISCONNECT"};
        failure.typeCode = static_cast<std::int32_t>(t->getType());
        failure.type = kindName("TTransportException", failure.typeCode, names);
        failure.transport = true;
    } else if (auto* p = dynamic_cast<const TProtocolException*>(&e)) {
        static const char* const names[] = {"UNKNOWN",     "INVALID_DATA",    "NEGATIVE_SIZE", "SIZE_LIMIT",
                                            "BAD_VERSION", "NOT_IMPLEMENTED", "DEPTH_LIMIT"};
        failure.typeCode = static_cast<std::int32_t>(p->getType());
        failure.type = kindName("TProtocolException", failure.typeCode, names);
    } else if (auto* a = dynamic_cast<const TApplicationException*>(&e)) {
        static const char* const names[] = {"UNKNOWN",           "UNKNOWN_METHOD",   "INVALID_MESSAGE_TYPE",
                                            "WRONG_METHOD_NAME", "BAD_SEQUENCE_ID",  "MISSING_RESULT",
                                            "INTERNAL_ERROR",    "PROTOCOL_ERROR",   "INVALID_TRANSFORM",
                                            "INVALID_PROTOCOL",  "UNSUPPORTED_CLIENT_TYPE"};
        failure.typeCode = static_cast<std::int32_t>(a->getType());
        failure.type = kindName("TApplicationException", failure.typeCode, names);
    } else if (auto* z = dynamic_cast<const timestampservice::thrift_zterr*>(&e)) {
        failure.typeCode = z->code;
        failure.type = "thrift_zterr";
    } else if (dynamic_cast<const TException*>(&e)) {
        failure.type = "TException";
    } else {
        failure.type = "std::exception";
    }
    return failure;
}

}  // namespace ztsdlib
