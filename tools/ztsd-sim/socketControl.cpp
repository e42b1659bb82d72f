// The simulator's socket calls that read the same on every system; what
// differs is in socketControlPosix.cpp and socketControlWindows.cpp.
#include "ztsd-sim/socketControl.h"

#ifdef _WIN32
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#endif

#include <cstdlib>
#include <stdexcept>
#include <string>

namespace ztsdsim::net {
namespace {

struct Endpoint {
    std::string address;
    int port = -1;
};

bool endpointOf(Socket s, bool peer, Endpoint& out) {
    sockaddr_storage storage{};
    socklen_t length = sizeof storage;
    auto* address = reinterpret_cast<sockaddr*>(&storage);
    const int rc = peer ? ::getpeername(s, address, &length) : ::getsockname(s, address, &length);
    if (rc != 0) return false;
    if (storage.ss_family != AF_INET && storage.ss_family != AF_INET6) return false;
    char host[NI_MAXHOST];
    char service[NI_MAXSERV];
    if (::getnameinfo(address, length, host, sizeof host, service, sizeof service,
                      NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
        return false;
    }
    out.address = host;
    out.port = std::atoi(service);
    return true;
}

bool isStreamSocket(Socket s) {
    int type = 0;
    socklen_t length = sizeof type;
    return ::getsockopt(s, SOL_SOCKET, SO_TYPE, reinterpret_cast<char*>(&type), &length) == 0 &&
           type == SOCK_STREAM;
}

// The connected stream socket's local endpoint when its local port is
// localPort (listening sockets have no peer and fail here).
bool connectedOnPort(Socket s, std::uint16_t localPort, Endpoint& peer) {
    Endpoint local;
    return isStreamSocket(s) && endpointOf(s, false, local) && local.port == localPort && endpointOf(s, true, peer);
}

// A numeric address for host:port (passive: for listening).
addrinfo* resolveNumeric(const std::string& host, std::uint16_t port, bool passive) {
    system::start();
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | (passive ? AI_PASSIVE : 0);
    addrinfo* found = nullptr;
    if (::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) return nullptr;
    return found;
}

}  // namespace

bool shutdownConnection(std::uint16_t localPort, const std::string& peerAddress, int peerPort) {
    const std::size_t found = system::forEachSocket([&](Socket s) {
        Endpoint peer;
        if (!connectedOnPort(s, localPort, peer) || peer.port != peerPort || peer.address != peerAddress) return false;
        return system::cutConnection(s);
    });
    return found > 0;
}

std::size_t shutdownConnectionsOnPort(std::uint16_t localPort) {
    return system::forEachSocket([&](Socket s) {
        Endpoint peer;
        return connectedOnPort(s, localPort, peer) && system::cutConnection(s);
    });
}

Socket listenOn(const std::string& host, std::uint16_t port, int backlog, std::uint16_t& boundPort) {
    addrinfo* found = resolveNumeric(host, port, true);
    if (found == nullptr) return kNoSocket;
    Socket listener = ::socket(found->ai_family, SOCK_STREAM, 0);
    bool listening = listener != kNoSocket;
    if (listening) {
        system::setExclusiveBind(listener);
        listening = ::bind(listener, found->ai_addr, static_cast<socklen_t>(found->ai_addrlen)) == 0 &&
                    ::listen(listener, backlog) == 0;
    }
    ::freeaddrinfo(found);
    sockaddr_storage bound{};
    socklen_t length = sizeof bound;
    if (!listening || ::getsockname(listener, reinterpret_cast<sockaddr*>(&bound), &length) != 0) {
        if (listener != kNoSocket) system::close(listener);
        return kNoSocket;
    }
    boundPort = ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&bound)->sin6_port
                                                  : reinterpret_cast<sockaddr_in*>(&bound)->sin_port);
    return listener;
}

Socket listenOnLoopback(std::uint16_t& port, int backlog, const char* what) {
    const Socket listener = listenOn("127.0.0.1", 0, backlog, port);
    if (listener == kNoSocket) throw std::runtime_error(std::string(what) + " cannot listen on 127.0.0.1");
    return listener;
}

Socket connectTo(const std::string& host, std::uint16_t port) {
    addrinfo* found = resolveNumeric(host, port, false);
    if (found == nullptr) return kNoSocket;
    Socket s = ::socket(found->ai_family, SOCK_STREAM, 0);
    if (s != kNoSocket && ::connect(s, found->ai_addr, static_cast<socklen_t>(found->ai_addrlen)) != 0) {
        system::close(s);
        s = kNoSocket;
    }
    ::freeaddrinfo(found);
    return s;
}

Socket acceptOne(Socket listener) {
    const Socket s = ::accept(listener, nullptr, nullptr);
    return s == static_cast<Socket>(-1) ? kNoSocket : s;
}

bool waitReadable(Socket socket, int timeout_ms) { return system::waitReadable(socket, timeout_ms); }

long receiveSome(Socket socket, char* buffer, std::size_t size) {
    return static_cast<long>(::recv(socket, buffer, static_cast<int>(size), 0));
}

long sendSome(Socket socket, const char* bytes, std::size_t size) {
    return static_cast<long>(::send(socket, bytes, static_cast<int>(size), system::sendFlags()));
}

void shutdownBoth(Socket socket) { ::shutdown(socket, system::shutdownBothHow()); }

void closeSocket(Socket socket) {
    if (socket != kNoSocket) system::close(socket);
}

void resetOnClose(Socket socket) {
    linger reset{};
    reset.l_onoff = 1;
    reset.l_linger = 0;
    ::setsockopt(socket, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&reset), sizeof reset);
}

void bindExclusively(Socket socket) { system::setExclusiveBind(socket); }

void setListenBacklog(Socket listeningSocket, int backlog) {
    if (listeningSocket != kNoSocket && backlog > 0) ::listen(listeningSocket, backlog);
}

}  // namespace ztsdsim::net
