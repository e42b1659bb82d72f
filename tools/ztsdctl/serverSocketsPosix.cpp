#include "serverSockets.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

namespace ztsdctl {
namespace serverSockets {

namespace {

int fd(Handle socket) { return static_cast<int>(socket); }

std::ptrdiff_t moved(ssize_t result) {
    if (result >= 0) return result;
    return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR ? kWouldBlock : kFailed;
}

}  // namespace

Handle listenOn(const std::string& host, std::uint16_t port, std::uint16_t& boundPort) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE;
    addrinfo* found = nullptr;
    const int resolved = ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
    if (resolved != 0) throw std::runtime_error("cannot listen on " + host + ": " + ::gai_strerror(resolved));
    int listener = -1;
    for (const addrinfo* at = found; at != nullptr && listener < 0; at = at->ai_next) {
        const int candidate = ::socket(at->ai_family, at->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, at->ai_protocol);
        if (candidate < 0) continue;
        const int yes = 1;
        ::setsockopt(candidate, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        if (::bind(candidate, at->ai_addr, at->ai_addrlen) == 0 && ::listen(candidate, 128) == 0) {
            listener = candidate;
        } else {
            ::close(candidate);
        }
    }
    ::freeaddrinfo(found);
    if (listener < 0) throw std::runtime_error("cannot listen on " + host + " port " + std::to_string(port));
    sockaddr_storage bound{};
    socklen_t length = sizeof bound;
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&bound), &length);
    boundPort = ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<const sockaddr_in6*>(&bound)->sin6_port
                                                  : reinterpret_cast<const sockaddr_in*>(&bound)->sin_port);
    return listener;
}

Handle acceptOne(Handle listener, bool& outOfDescriptors) {
    for (;;) {
        const int accepted = ::accept4(fd(listener), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (accepted < 0 && errno == EINTR) continue;
        outOfDescriptors = accepted < 0 && (errno == EMFILE || errno == ENFILE);
        return accepted < 0 ? kNone : accepted;
    }
}

std::ptrdiff_t receiveSome(Handle socket, char* buffer, std::size_t size) {
    return moved(::recv(fd(socket), buffer, size, 0));
}

std::ptrdiff_t sendSome(Handle socket, const char* data, std::size_t size) {
    return moved(::send(fd(socket), data, size, MSG_NOSIGNAL));
}

void finishAndClose(Handle socket) {
    ::shutdown(fd(socket), SHUT_WR);
    ::close(fd(socket));
}

void closeSocket(Handle socket) {
    if (socket != kNone) ::close(fd(socket));
}

bool waitForAny(std::vector<Waiting>& entries, int timeout_ms) {
    std::vector<pollfd> polled;
    polled.reserve(entries.size());
    for (const Waiting& entry : entries)
        polled.push_back({fd(entry.socket), static_cast<short>(entry.toSend ? POLLOUT : POLLIN), 0});
    const int result = ::poll(polled.data(), polled.size(), timeout_ms);
    for (std::size_t i = 0; i < entries.size(); ++i) entries[i].ready = result > 0 && polled[i].revents != 0;
    return result >= 0 || errno == EINTR;
}

Wakeup::Wakeup() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) throw std::runtime_error("the metrics server has no wake-up pipe");
    ends_[0] = ends[0];
    ends_[1] = ends[1];
}

Wakeup::~Wakeup() {
    closeSocket(ends_[0]);
    closeSocket(ends_[1]);
}

Handle Wakeup::waitOn() const { return ends_[0]; }

void Wakeup::wake() {
    const char byte = 0;
    while (::write(fd(ends_[1]), &byte, 1) < 0 && errno == EINTR) {
    }
}

}  // namespace serverSockets
}  // namespace ztsdctl
