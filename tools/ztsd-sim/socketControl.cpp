#include "ztsd-sim/socketControl.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <functional>

namespace ztsdsim::net {
namespace {

struct Endpoint {
    std::string address;
    int port = -1;
};

bool endpointOf(int fd, bool peer, Endpoint& out) {
    sockaddr_storage storage{};
    socklen_t length = sizeof storage;
    auto* address = reinterpret_cast<sockaddr*>(&storage);
    const int rc = peer ? ::getpeername(fd, address, &length) : ::getsockname(fd, address, &length);
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

bool isStreamSocket(int fd) {
    int type = 0;
    socklen_t length = sizeof type;
    return ::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) == 0 && type == SOCK_STREAM;
}

// Calls visit(fd) for a duplicate of every descriptor of this process. The
// duplicate refers to the same socket even if the original descriptor is
// closed and its number reused meanwhile, so whatever visit checks on it
// still holds when it acts on it.
std::size_t forEachDescriptor(const std::function<bool(int)>& visit) {
    DIR* directory = ::opendir("/proc/self/fd");
    if (directory == nullptr) return 0;
    const int own = ::dirfd(directory);
    std::size_t acted = 0;
    while (const dirent* entry = ::readdir(directory)) {
        char* end = nullptr;
        const long fd = std::strtol(entry->d_name, &end, 10);
        if (end == entry->d_name || *end != '\0' || fd == own) continue;
        const int copy = ::fcntl(static_cast<int>(fd), F_DUPFD_CLOEXEC, 0);
        if (copy < 0) continue;
        if (visit(copy)) ++acted;
        ::close(copy);
    }
    ::closedir(directory);
    return acted;
}

}  // namespace

bool shutdownConnection(std::uint16_t localPort, const std::string& peerAddress, int peerPort) {
    const std::size_t found = forEachDescriptor([&](int fd) {
        Endpoint local;
        Endpoint peer;
        if (!isStreamSocket(fd) || !endpointOf(fd, false, local) || local.port != localPort) return false;
        if (!endpointOf(fd, true, peer) || peer.port != peerPort || peer.address != peerAddress) return false;
        return ::shutdown(fd, SHUT_RDWR) == 0;
    });
    return found > 0;
}

std::size_t shutdownConnectionsOnPort(std::uint16_t localPort) {
    return forEachDescriptor([&](int fd) {
        Endpoint local;
        Endpoint peer;
        if (!isStreamSocket(fd) || !endpointOf(fd, false, local) || local.port != localPort) return false;
        if (!endpointOf(fd, true, peer)) return false;
        return ::shutdown(fd, SHUT_RDWR) == 0;
    });
}

int listenOnLoopback(std::uint16_t& port, int backlog, const char* what) {
    const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listener < 0 || ::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener, backlog) != 0 ||
        ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        if (listener >= 0) ::close(listener);
        throw std::runtime_error(std::string(what) + " cannot listen on 127.0.0.1");
    }
    port = ntohs(address.sin_port);
    return listener;
}

void setListenBacklog(int listeningSocket, int backlog) {
    if (listeningSocket >= 0 && backlog > 0) ::listen(listeningSocket, backlog);
}

void ignoreBrokenPipes() {
    struct sigaction current {};
    if (::sigaction(SIGPIPE, nullptr, &current) == 0 && current.sa_handler == SIG_DFL) {
        struct sigaction ignore {};
        ignore.sa_handler = SIG_IGN;
        sigemptyset(&ignore.sa_mask);
        ::sigaction(SIGPIPE, &ignore, nullptr);
    }
}

}  // namespace ztsdsim::net
