// The RPC client of one timestamp daemon "zttimestampd": a TSocket to
// host:port, a buffered transport over it, the binary protocol over that and
// the generated timestampServiceClient.
//
// The transport stays open between calls; open() opens it only when it is
// closed, and the owner closes it after a failure so that the next open()
// starts a fresh connection, with fresh buffers. Every operation throws what Thrift throws:
// transport exceptions for socket failures and time-outs, protocol and
// application exceptions for bad replies, thrift_zterr for the daemon's own
// failures.
//
// Deadlines: every open() starts an attempt whose connect, request and reply
// together must end within the socket time-out (the receive time-out); each
// socket wait gets what is left of it, so a daemon that drips its reply a
// byte at a time cannot hold the caller longer. A late attempt fails with a
// TTransportException TIMED_OUT.
//
// A daemon is untrusted. Replies are read strictly (a versioned message
// header is required) with limits that fit the service's messages: strings
// of at most kMaxDaemonStringBytes, lists of at most kMaxDaemonListSize
// entries and kMaxDaemonReplyBytes read per reply, so no announced length
// sizes an allocation. A reply of another message type, for another method
// or with another sequence id than the request fails at once with a
// TApplicationException (INVALID_MESSAGE_TYPE, WRONG_METHOD_NAME,
// BAD_SEQUENCE_ID) instead of being skipped while the next one is awaited.
// A time whose nanos lies outside 0..999999999 (the only field of a reply
// with a range: seconds and fractionalNanos carry bit patterns) fails with a
// TProtocolException INVALID_DATA whose text names the field and its value;
// the reply has been read whole, so the connection stays in step.
//
// libthrift's own messages ("Thrift: ... TSocket::open() error ...") go to
// the library's debug trace (platform/debugOutput.h), never to the host
// application's standard error.
//
// Interruption: a client made with a ReadInterruption ends a connect or a
// reply wait at once with a TTransportException INTERRUPTED once another
// thread raises it, and refuses to connect from then on the same way
// (timestampservice/interruptibleSocket.h).
//
// Threads: none of this is safe for concurrent use; the owner serialises it.
#pragma once

#include <atomic>
#include <cstdint>
#include <exception>
#include <memory>
#include <string>

#include <thrift/transport/PlatformSocket.h>

#include "timestampservice/timestampService.h"

namespace apache {
namespace thrift {
namespace transport {
class TSocket;
class TTransport;
}  // namespace transport
namespace protocol {
class TProtocol;
}  // namespace protocol
}  // namespace thrift
}  // namespace apache

namespace ztsdlib {

// Lets one thread end another's connect and reply waits: a socket pair
// whose listening end the connection's socket polls beside the connection
// (Thrift's own interruption of a socket while it reads, ours while it
// connects), made readable by raise(), and a flag checked before connecting. The pair comes from Thrift's socket layer: a local
// pair on POSIX, a loopback TCP pair over Winsock on Windows. It is never
// drained: once raised, every later wait ends at once.
class ReadInterruption {
public:
    // Throws zterr::Exception (-52008 "ztapalerr_osFault") when the pair
    // cannot be made.
    ReadInterruption();
    ~ReadInterruption();
    ReadInterruption(const ReadInterruption&) = delete;
    ReadInterruption& operator=(const ReadInterruption&) = delete;

    // From any thread, any number of times.
    void raise() noexcept;
    bool raised() const noexcept { return raised_.load(); }
    // The end a socket polls.
    const THRIFT_SOCKET& listener() const { return pair_[0]; }

private:
    THRIFT_SOCKET pair_[2] = {THRIFT_INVALID_SOCKET, THRIFT_INVALID_SOCKET};  // [0] polled, [1] written
    std::atomic<bool> raised_{false};
};

// Default connect, receive and send time-out of the daemon's socket, and the
// deadline of one attempt.
constexpr std::uint32_t kTimestampDaemonSocketTimeout_ms = 5000;
// Limits of what one reply of a daemon may hold or announce.
constexpr std::int32_t kMaxDaemonStringBytes = 16 * 1024;
constexpr std::int32_t kMaxDaemonListSize = 1024;
constexpr std::uint32_t kMaxDaemonReplyBytes = 256 * 1024;

class DeadlineTransport;

class TimescaleProxyThriftClientInterface {
public:
    virtual ~TimescaleProxyThriftClientInterface() = default;
    // Opens the transport when it is closed and sets the socket time-outs.
    virtual void open() = 0;
    // Closes the transport; never throws. The next open() reconnects.
    virtual void close() noexcept = 0;
    virtual bool isOpen() const = 0;
    virtual std::int32_t getApiVersion() = 0;
    virtual void getTime(timestampservice::TimestampInfo& result, std::int32_t id) = 0;
    virtual void getTimeAndCurrentTimescales(timestampservice::TimeInfo& result) = 0;
};

class TimescaleProxyThriftClient : public TimescaleProxyThriftClientInterface {
public:
    // host and port are checked first (remote/hostCheck.h): an empty host,
    // one with spaces or control characters, or a port outside 1..65535
    // raises -52005 naming "host" or "port" before any socket is made.
    // socketTimeout_ms bounds the connect and every receive and send.
    // interruption, when given, ends its waits (see above); the client keeps
    // it alive.
    TimescaleProxyThriftClient(const std::string& host, std::uint32_t port,
                               std::uint32_t socketTimeout_ms = kTimestampDaemonSocketTimeout_ms,
                               std::shared_ptr<ReadInterruption> interruption = nullptr);
    ~TimescaleProxyThriftClient() override;

    void open() override;
    void close() noexcept override;
    bool isOpen() const override;
    std::int32_t getApiVersion() override;
    void getTime(timestampservice::TimestampInfo& result, std::int32_t id) override;
    void getTimeAndCurrentTimescales(timestampservice::TimeInfo& result) override;

private:
    // A fresh buffered transport, protocol and generated client over socket.
    void layerOverSocket();

    std::shared_ptr<apache::thrift::transport::TSocket> socket;
    std::shared_ptr<DeadlineTransport> deadline;
    std::shared_ptr<apache::thrift::transport::TTransport> transport;
    std::shared_ptr<apache::thrift::protocol::TProtocol> protocol;
    std::unique_ptr<timestampservice::timestampServiceClient> client;
    int socketTimeout_ms;
    bool opened = false;  // open() has succeeded or been tried before
};

// What an RPC failure was, for reports: the exception's what() text, its
// numeric kind ("type_code") and a text naming it ("type", for example
// "TTransportException::TIMED_OUT").
struct RpcFailure {
    std::string what;
    std::int32_t typeCode = 0;
    std::string type;
    // A transport failure (socket, time-out, closed connection): worth
    // another attempt on a fresh connection.
    bool transport = false;
};

// Describes the exception e (any Thrift exception or standard exception).
RpcFailure describeRpcFailure(const std::exception& e);

}  // namespace ztsdlib
