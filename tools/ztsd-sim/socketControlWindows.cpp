// The simulator's socket calls on Windows (Winsock). Windows lists no
// process's sockets, so connections are found by probing the handle values a
// process's kernel handles take (multiples of 4): a value that is no socket
// fails the probe with WSAENOTSOCK. The simulator's own sockets sit among its
// first few thousand handles.
#include "ztsd-sim/socketControl.h"

#include <winsock2.h>
#include <ws2tcpip.h>

#include <chrono>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

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

namespace {
// A select or WSAPoll on a socket does not end when another thread shuts the
// socket down (its owner would wait out its own time-out: 5 s for a kept-alive
// HTTP connection), but it ends when its I/O is cancelled. So a cut
// connection's waits are cancelled every 2 ms for a second, since its owner may
// be between two waits when the cut comes. The cancelling goes through a
// duplicate of the handle, which refers to the same socket even once the
// owner has closed its handle and the value is reused for another socket.
struct WaitCanceller {
    std::mutex mutex;
    std::vector<std::pair<HANDLE, std::chrono::steady_clock::time_point>> handles;
    bool running = false;

    void run() {
        std::unique_lock<std::mutex> lock(mutex);
        while (!handles.empty()) {
            const auto now = std::chrono::steady_clock::now();
            for (auto it = handles.begin(); it != handles.end();) {
                ::CancelIoEx(it->first, nullptr);
                if (now < it->second) {
                    ++it;
                    continue;
                }
                ::CloseHandle(it->first);
                it = handles.erase(it);
            }
            lock.unlock();
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            lock.lock();
        }
        running = false;
    }
};

// Never destroyed: its thread may still run while the process exits.
WaitCanceller& waitCanceller() {
    static auto* canceller = new WaitCanceller;
    return *canceller;
}
}  // namespace

bool cutConnection(Socket socket) {
    if (::shutdown(socket, SD_BOTH) != 0) return false;
    HANDLE copy = nullptr;
    const HANDLE self = ::GetCurrentProcess();
    if (!::DuplicateHandle(self, reinterpret_cast<HANDLE>(socket), self, &copy, 0, FALSE, DUPLICATE_SAME_ACCESS)) {
        return true;
    }
    WaitCanceller& canceller = waitCanceller();
    std::lock_guard<std::mutex> lock(canceller.mutex);
    canceller.handles.emplace_back(copy, std::chrono::steady_clock::now() + std::chrono::seconds(1));
    if (!canceller.running) {
        canceller.running = true;
        std::thread([&canceller] { canceller.run(); }).detach();
    }
    return true;
}

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
