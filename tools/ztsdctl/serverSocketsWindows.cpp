#include "serverSockets.h"

#include <winsock2.h>
#include <ws2tcpip.h>

#include <mutex>
#include <stdexcept>

namespace ztsdctl {
namespace serverSockets {

namespace {

SOCKET sock(Handle socket) { return static_cast<SOCKET>(socket); }
Handle handle(SOCKET socket) { return socket == INVALID_SOCKET ? kNone : static_cast<Handle>(socket); }

// Winsock 2.2, started once for the process and never cleaned up (the
// library and anything else in the process may use it too).
void startWinsock() {
    static std::once_flag once;
    static int error = 0;
    std::call_once(once, [] {
        WSADATA data;
        error = ::WSAStartup(MAKEWORD(2, 2), &data);
    });
    if (error != 0) throw std::runtime_error("Winsock did not start (error " + std::to_string(error) + ")");
}

// Non-blocking and not inherited by child processes.
bool prepare(SOCKET socket) {
    u_long nonBlocking = 1;
    return ::ioctlsocket(socket, FIONBIO, &nonBlocking) == 0 &&
           ::SetHandleInformation(reinterpret_cast<HANDLE>(socket), HANDLE_FLAG_INHERIT, 0);
}

std::ptrdiff_t moved(int result) {
    if (result != SOCKET_ERROR) return result;
    const int error = ::WSAGetLastError();
    return error == WSAEWOULDBLOCK || error == WSAEINTR ? kWouldBlock : kFailed;
}

}  // namespace

Handle listenOn(const std::string& host, std::uint16_t port, std::uint16_t& boundPort) {
    startWinsock();
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE;
    addrinfo* found = nullptr;
    const int resolved = ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
    if (resolved != 0)
        throw std::runtime_error("cannot listen on " + host + ": error " + std::to_string(resolved));
    SOCKET listener = INVALID_SOCKET;
    for (const addrinfo* at = found; at != nullptr && listener == INVALID_SOCKET; at = at->ai_next) {
        const SOCKET candidate = ::socket(at->ai_family, at->ai_socktype, at->ai_protocol);
        if (candidate == INVALID_SOCKET) continue;
        // No other socket may take the port while it listens.
        const BOOL yes = TRUE;
        ::setsockopt(candidate, SOL_SOCKET, SO_EXCLUSIVEADDRUSE, reinterpret_cast<const char*>(&yes), sizeof yes);
        if (prepare(candidate) && ::bind(candidate, at->ai_addr, static_cast<int>(at->ai_addrlen)) == 0 &&
            ::listen(candidate, 128) == 0) {
            listener = candidate;
        } else {
            ::closesocket(candidate);
        }
    }
    ::freeaddrinfo(found);
    if (listener == INVALID_SOCKET)
        throw std::runtime_error("cannot listen on " + host + " port " + std::to_string(port));
    sockaddr_storage bound{};
    int length = sizeof bound;
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&bound), &length);
    boundPort = ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<const sockaddr_in6*>(&bound)->sin6_port
                                                  : reinterpret_cast<const sockaddr_in*>(&bound)->sin_port);
    return handle(listener);
}

Handle acceptOne(Handle listener, bool& outOfDescriptors) {
    for (;;) {
        const SOCKET accepted = ::accept(sock(listener), nullptr, nullptr);
        if (accepted == INVALID_SOCKET) {
            const int error = ::WSAGetLastError();
            if (error == WSAEINTR) continue;
            outOfDescriptors = error == WSAEMFILE || error == WSAENOBUFS;
            return kNone;
        }
        outOfDescriptors = false;
        if (prepare(accepted)) return handle(accepted);
        ::closesocket(accepted);  // a connection that cannot be served without blocking the server
    }
}

std::ptrdiff_t receiveSome(Handle socket, char* buffer, std::size_t size) {
    return moved(::recv(sock(socket), buffer, static_cast<int>(size), 0));
}

std::ptrdiff_t sendSome(Handle socket, const char* data, std::size_t size) {
    return moved(::send(sock(socket), data, static_cast<int>(size), 0));
}

void finishAndClose(Handle socket) {
    ::shutdown(sock(socket), SD_SEND);
    ::closesocket(sock(socket));
}

void closeSocket(Handle socket) {
    if (socket != kNone) ::closesocket(sock(socket));
}

bool waitForAny(std::vector<Waiting>& entries, int timeout_ms) {
    std::vector<WSAPOLLFD> polled;
    polled.reserve(entries.size());
    for (const Waiting& entry : entries)
        polled.push_back({sock(entry.socket), static_cast<SHORT>(entry.toSend ? POLLWRNORM : POLLRDNORM), 0});
    const int result = ::WSAPoll(polled.data(), static_cast<ULONG>(polled.size()), timeout_ms);
    for (std::size_t i = 0; i < entries.size(); ++i) entries[i].ready = result > 0 && polled[i].revents != 0;
    return result != SOCKET_ERROR || ::WSAGetLastError() == WSAEINTR;
}

// Windows cannot wait on a pipe and sockets at once: the wake-up is a UDP
// socket on the loopback address that sends itself one datagram.
Wakeup::Wakeup() {
    startWinsock();
    const SOCKET socket = ::socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    sockaddr_in loopback{};
    loopback.sin_family = AF_INET;
    loopback.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int length = sizeof loopback;
    if (socket == INVALID_SOCKET || !prepare(socket) ||
        ::bind(socket, reinterpret_cast<const sockaddr*>(&loopback), sizeof loopback) != 0 ||
        ::getsockname(socket, reinterpret_cast<sockaddr*>(&loopback), &length) != 0 ||
        ::connect(socket, reinterpret_cast<const sockaddr*>(&loopback), sizeof loopback) != 0) {
        if (socket != INVALID_SOCKET) ::closesocket(socket);
        throw std::runtime_error("the metrics server has no wake-up socket");
    }
    ends_[0] = handle(socket);
}

Wakeup::~Wakeup() { closeSocket(ends_[0]); }

Handle Wakeup::waitOn() const { return ends_[0]; }

void Wakeup::wake() {
    const char byte = 0;
    ::send(sock(ends_[0]), &byte, 1, 0);
}

}  // namespace serverSockets
}  // namespace ztsdctl
