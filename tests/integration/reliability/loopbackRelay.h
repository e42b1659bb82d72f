// A TCP relay on 127.0.0.1 that forwards every connection it accepts to a
// target port on 127.0.0.1, and that can be stopped (nothing listens on its
// port any more, and every relayed connection is cut) and started again on
// the same port. It stands between a client and a server that cannot leave
// and come back on one port by itself (the simulated timestamp daemon binds
// an ephemeral port once), so a test can show a client the "nothing is
// listening" refusal and then the same client's recovery.
//
// Threads: start() and stop() from one controlling thread; one accept thread
// and one pump thread per relayed connection, all joined by stop().
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

namespace reliability {

class LoopbackRelay {
public:
    explicit LoopbackRelay(std::uint16_t targetPort) : targetPort_(targetPort) {}
    ~LoopbackRelay() { stop(); }
    LoopbackRelay(const LoopbackRelay&) = delete;
    LoopbackRelay& operator=(const LoopbackRelay&) = delete;

    // Listens on the port of the previous start (an ephemeral one the first
    // time). Throws std::runtime_error when the port cannot be bound.
    void start() {
        stopping_ = false;
        listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (listener_ < 0) throw std::runtime_error("relay: socket");
        const int one = 1;
        ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        sockaddr_in address = loopback(port_);
        if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(listener_, 64) != 0) {
            ::close(listener_);
            listener_ = -1;
            throw std::runtime_error("relay: cannot listen");
        }
        socklen_t length = sizeof address;
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
        acceptor_ = std::thread([this] { acceptLoop(); });
    }

    // Closes the listener and cuts every relayed connection; idempotent.
    void stop() {
        if (listener_ < 0) return;
        stopping_ = true;
        acceptor_.join();
        ::close(listener_);
        listener_ = -1;
        std::vector<std::thread> pumps;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            pumps.swap(pumps_);
        }
        for (std::thread& pump : pumps) pump.join();
    }

    std::uint16_t port() const { return port_; }

private:
    static sockaddr_in loopback(std::uint16_t port) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return address;
    }

    void acceptLoop() {
        while (!stopping_) {
            pollfd waiting{listener_, POLLIN, 0};
            if (::poll(&waiting, 1, 20) <= 0) continue;
            const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (client < 0) continue;
            const int server = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            sockaddr_in target = loopback(targetPort_);
            if (server < 0 || ::connect(server, reinterpret_cast<sockaddr*>(&target), sizeof target) != 0) {
                if (server >= 0) ::close(server);
                ::close(client);
                continue;
            }
            std::lock_guard<std::mutex> lock(mutex_);
            pumps_.emplace_back([this, client, server] { pump(client, server); });
        }
    }

    // Copies bytes both ways until either side closes or the relay stops.
    void pump(int client, int server) {
        char buffer[16384];
        pollfd ends[2] = {{client, POLLIN, 0}, {server, POLLIN, 0}};
        bool open = true;
        while (open && !stopping_) {
            if (::poll(ends, 2, 20) <= 0) continue;
            for (int i = 0; i < 2 && open; ++i) {
                if (ends[i].revents == 0) continue;
                const ssize_t n = ::recv(ends[i].fd, buffer, sizeof buffer, 0);
                if (n <= 0 || !sendAll(ends[1 - i].fd, buffer, static_cast<std::size_t>(n))) open = false;
            }
        }
        ::shutdown(client, SHUT_RDWR);
        ::shutdown(server, SHUT_RDWR);
        ::close(client);
        ::close(server);
    }

    static bool sendAll(int fd, const char* data, std::size_t size) {
        while (size > 0) {
            const ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
            if (n <= 0) return false;
            data += n;
            size -= static_cast<std::size_t>(n);
        }
        return true;
    }

    const std::uint16_t targetPort_;
    std::uint16_t port_ = 0;
    int listener_ = -1;
    std::atomic<bool> stopping_{false};
    std::thread acceptor_;
    std::mutex mutex_;  // guards pumps_
    std::vector<std::thread> pumps_;
};

}  // namespace reliability
