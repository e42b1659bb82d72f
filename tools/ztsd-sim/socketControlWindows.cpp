// The simulator's socket calls on Windows (Winsock). Windows lists no
// process's sockets, so connections are found by probing the handle values a
// process's kernel handles take (multiples of 4): a value that is no socket
// fails the probe with WSAENOTSOCK. The simulator's own sockets sit among its
// first few thousand handles.
#include "ztsd-sim/socketControl.h"

#include <winsock2.h>
#include <ws2tcpip.h>

#include <mutex>

namespace ztsdsim::net {

void ignoreBrokenPipes() { system::start(); }  // Winsock raises no signal; it only needs starting

namespace system {

void start() {
    static std::once_flag once;
    std::call_once(once, [] {
        WSADATA data;
        WSAStartup(MAKEWORD(2, 2), &data);  // held for the process's life
    });
}

void close(Socket socket) { ::closesocket(socket); }

bool waitReadable(Socket socket, int timeout_ms) {
    WSAPOLLFD p{};
    p.fd = socket;
    p.events = POLLRDNORM;
    return ::WSAPoll(&p, 1, timeout_ms) == 1;
}

int sendFlags() { return 0; }

int shutdownBothHow() { return SD_BOTH; }

// Windows' SO_REUSEADDR would let a second socket take a port that one
// listens on; SO_EXCLUSIVEADDRUSE refuses it, and Windows lets a restarted
// server bind again while old connections linger.
void setExclusiveBind(Socket socket) {
    BOOL yes = TRUE;
    ::setsockopt(socket, SOL_SOCKET, SO_EXCLUSIVEADDRUSE, reinterpret_cast<const char*>(&yes), sizeof yes);
}

std::size_t forEachSocket(const std::function<bool(Socket)>& visit) {
    constexpr Socket kLastHandle = 1 << 16;
    std::size_t acted = 0;
    for (Socket s = 4; s <= kLastHandle; s += 4) {
        int type = 0;
        int length = sizeof type;
        if (::getsockopt(s, SOL_SOCKET, SO_TYPE, reinterpret_cast<char*>(&type), &length) != 0) continue;
        if (visit(s)) ++acted;
    }
    return acted;
}

}  // namespace system
}  // namespace ztsdsim::net
