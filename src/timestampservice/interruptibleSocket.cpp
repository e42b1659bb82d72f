#include "timestampservice/interruptibleSocket.h"

#include <chrono>
#include <cstring>
#include <memory>
#include <string>

#ifdef _WIN32
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#endif

#include <thrift/TOutput.h>
#include <thrift/transport/PlatformSocket.h>
#include <thrift/transport/TTransportException.h>

#include "timestampservice/timescaleProxyThriftClient.h"

namespace ztsdlib {

using apache::thrift::transport::TTransportException;

namespace {

using Clock = std::chrono::steady_clock;

// Closes a socket unless it was handed on.
class OwnedSocket {
public:
    explicit OwnedSocket(THRIFT_SOCKET s) : socket(s) {}
    ~OwnedSocket() {
        if (socket != THRIFT_INVALID_SOCKET) THRIFT_CLOSESOCKET(socket);
    }
    OwnedSocket(const OwnedSocket&) = delete;
    OwnedSocket& operator=(const OwnedSocket&) = delete;
    THRIFT_SOCKET get() const { return socket; }
    THRIFT_SOCKET release() {
        const THRIFT_SOCKET s = socket;
        socket = THRIFT_INVALID_SOCKET;
        return s;
    }

private:
    THRIFT_SOCKET socket;
};

struct AddressesFree {
    void operator()(addrinfo* list) const { freeaddrinfo(list); }
};
using Addresses = std::unique_ptr<addrinfo, AddressesFree>;

[[noreturn]] void throwInterrupted() { throw TTransportException(TTransportException::INTERRUPTED, "Interrupted"); }

// The addresses of host:port, as TSocket looks them up: those of the
// families the machine has configured first, any family when that finds none.
Addresses lookUp(const std::string& host, int port) {
    addrinfo hints;
    std::memset(&hints, 0, sizeof hints);
    hints.ai_family = PF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_ADDRCONFIG;
    const std::string service = std::to_string(port);
    addrinfo* list = nullptr;
    int error = getaddrinfo(host.c_str(), service.c_str(), &hints, &list);
    if (error != 0) {
        hints.ai_flags = 0;
        list = nullptr;
        error = getaddrinfo(host.c_str(), service.c_str(), &hints, &list);
    }
    if (error != 0 || list == nullptr) {
        apache::thrift::GlobalOutput(("Daemon connection: cannot resolve " + host + ": " + THRIFT_GAI_STRERROR(error)).c_str());
        throw TTransportException(TTransportException::NOT_OPEN, "Could not resolve host for client socket.");
    }
    return Addresses(list);
}

// How one address's connect ended.
enum class Outcome { Connected, Failed, TimedOut };

// Connects `s` (non-blocking) to `address` by `deadline` (none when
// unlimited), watching `listener`: its readability means the interruption
// was raised. error receives the system's code of a failure.
Outcome connectOne(THRIFT_SOCKET s, const addrinfo& address, THRIFT_SOCKET listener, bool unlimited,
                   Clock::time_point deadline, int& error) {
    if (::connect(s, address.ai_addr, static_cast<int>(address.ai_addrlen)) == 0) return Outcome::Connected;
    error = THRIFT_GET_SOCKET_ERROR;
    if (error != THRIFT_EINPROGRESS && error != THRIFT_EWOULDBLOCK) return Outcome::Failed;
    for (;;) {
        int wait_ms = -1;
        if (!unlimited) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
            if (left <= 0) return Outcome::TimedOut;
            wait_ms = left > 0x7fffffff ? 0x7fffffff : static_cast<int>(left);
        }
        THRIFT_POLLFD waits[2];
        std::memset(waits, 0, sizeof waits);
        waits[0].fd = s;
        waits[0].events = THRIFT_POLLOUT;
        waits[1].fd = listener;
        waits[1].events = THRIFT_POLLIN;
        const int ready = THRIFT_POLL(waits, 2, wait_ms);
        if (ready < 0) {
            error = THRIFT_GET_SOCKET_ERROR;
            if (error == THRIFT_EINTR) continue;
            return Outcome::Failed;
        }
        if (waits[1].revents != 0) throwInterrupted();
        if (ready == 0 || waits[0].revents == 0) continue;  // the deadline is checked above
        int value = 0;
        socklen_t length = sizeof value;
        if (::getsockopt(s, SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&value), &length) != 0) {
            error = THRIFT_GET_SOCKET_ERROR;
            return Outcome::Failed;
        }
        if (value == 0) return Outcome::Connected;
        error = value;
        return Outcome::Failed;
    }
}

}  // namespace

InterruptibleSocket::InterruptibleSocket(const std::string& host, int port, std::shared_ptr<ReadInterruption> raisedBy)
    : TSocket(host, port), interruption(std::move(raisedBy)) {
    // Shares the interruption's ownership, so the listener outlives the socket.
    interruptListener_ =
        std::shared_ptr<THRIFT_SOCKET>(interruption, const_cast<THRIFT_SOCKET*>(&interruption->listener()));
}

void InterruptibleSocket::open() {
    if (interruption->raised()) throwInterrupted();
    if (isOpen()) return;
    if (port_ < 0 || port_ > 0xFFFF) throw TTransportException(TTransportException::BAD_ARGS, "Specified port is invalid");
    const bool unlimited = connTimeout_ <= 0;
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(unlimited ? 0 : connTimeout_);
    const Addresses addresses = lookUp(host_, port_);
    const THRIFT_SOCKET listener = interruption->listener();

    int error = 0;
    bool timedOut = false;
    for (const addrinfo* address = addresses.get(); address != nullptr && !timedOut; address = address->ai_next) {
        if (interruption->raised()) throwInterrupted();
        OwnedSocket s(::socket(address->ai_family, address->ai_socktype, address->ai_protocol));
        if (s.get() == THRIFT_INVALID_SOCKET) {
            error = THRIFT_GET_SOCKET_ERROR;
            continue;
        }
        const int flags = THRIFT_FCNTL(s.get(), THRIFT_F_GETFL, 0);
        if (flags == -1 || THRIFT_FCNTL(s.get(), THRIFT_F_SETFL, flags | THRIFT_O_NONBLOCK) == -1) {
            error = THRIFT_GET_SOCKET_ERROR;
            continue;
        }
        const Outcome outcome = connectOne(s.get(), *address, listener, unlimited, deadline, error);
        if (outcome == Outcome::TimedOut) timedOut = true;
        if (outcome != Outcome::Connected) continue;
        // Blocking again: TSocket's reads and writes wait with the socket's
        // own time-outs, after polling the listener.
        if (THRIFT_FCNTL(s.get(), THRIFT_F_SETFL, flags) == -1) {
            error = THRIFT_GET_SOCKET_ERROR;
            continue;
        }
        socket_ = s.release();
        // What TSocket sets on a socket it makes itself; each setter applies
        // to the open socket.
        if (sendTimeout_ > 0) setSendTimeout(sendTimeout_);
        if (recvTimeout_ > 0) setRecvTimeout(recvTimeout_);
        if (keepAlive_) setKeepAlive(keepAlive_);
        setLinger(lingerOn_, lingerVal_);
        setNoDelay(noDelay_);
        setCachedAddress(address->ai_addr, static_cast<socklen_t>(address->ai_addrlen));
        return;
    }
    if (timedOut) {
        apache::thrift::GlobalOutput(("Daemon connection: connect timed out " + getSocketInfo()).c_str());
        throw TTransportException(TTransportException::NOT_OPEN, "open() timed out");
    }
    apache::thrift::GlobalOutput.perror("Daemon connection: connect() " + getSocketInfo(), error);
    throw TTransportException(TTransportException::NOT_OPEN, "connect() failed", error);
}

}  // namespace ztsdlib
