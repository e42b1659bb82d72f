#include "scrapeServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <vector>

namespace ztsdctl {

namespace {

using Clock = std::chrono::steady_clock;

struct Connection {
    int fd;
    Clock::time_point deadline;  // of the whole exchange
    std::string request;         // received so far
    std::string answer;          // once the request is complete: what is left to send
    bool answering = false;
};

const char* reason(int status) {
    switch (status) {
        case 200: return "OK";
        case 400: return "Bad Request";
        case 404: return "Not Found";
        case 405: return "Method Not Allowed";
        default: return "Internal Server Error";
    }
}

std::string response(int status, const std::string& contentType, const std::string& body, bool withBody) {
    std::string text = "HTTP/1.1 " + std::to_string(status) + " " + reason(status) + "\r\n";
    if (status == 405) text += "Allow: GET, HEAD\r\n";
    text += "Content-Type: " + (contentType.empty() ? std::string("text/plain; charset=utf-8") : contentType) +
            "\r\nContent-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n";
    return withBody ? text + body : text;
}

// The answer to a complete request head.
std::string answerTo(const std::string& head, const ScrapeServer::Handler& handler) {
    const std::size_t lineEnd = head.find("\r\n");
    const std::string line = head.substr(0, lineEnd);
    const std::size_t space = line.find(' ');
    const std::size_t secondSpace = space == std::string::npos ? space : line.find(' ', space + 1);
    if (secondSpace == std::string::npos || line.compare(secondSpace + 1, 5, "HTTP/") != 0)
        return response(400, "", "bad request\n", true);
    const std::string method = line.substr(0, space);
    std::string path = line.substr(space + 1, secondSpace - space - 1);
    path = path.substr(0, path.find('?'));
    if (method != "GET" && method != "HEAD") return response(405, "", "GET only\n", true);
    const ScrapeAnswer answer = handler(path);
    return response(answer.status, answer.contentType, answer.body, method == "GET");
}

void closeQuietly(int fd) {
    if (fd >= 0) ::close(fd);
}

}  // namespace

ScrapeServer::~ScrapeServer() { stop(); }

std::uint16_t ScrapeServer::start(const std::string& host, std::uint16_t port, Handler handler) {
    stop();
    handler_ = std::move(handler);
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE;
    addrinfo* found = nullptr;
    const int resolved = ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
    if (resolved != 0) throw std::runtime_error("cannot listen on " + host + ": " + ::gai_strerror(resolved));
    for (const addrinfo* at = found; at != nullptr && listener_ < 0; at = at->ai_next) {
        const int fd = ::socket(at->ai_family, at->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, at->ai_protocol);
        if (fd < 0) continue;
        const int yes = 1;
        ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        if (::bind(fd, at->ai_addr, at->ai_addrlen) == 0 && ::listen(fd, 128) == 0) {
            listener_ = fd;
        } else {
            ::close(fd);
        }
    }
    ::freeaddrinfo(found);
    if (listener_ < 0) throw std::runtime_error("cannot listen on " + host + " port " + std::to_string(port));
    sockaddr_storage bound{};
    socklen_t length = sizeof bound;
    ::getsockname(listener_, reinterpret_cast<sockaddr*>(&bound), &length);
    const std::uint16_t boundPort = ntohs(bound.ss_family == AF_INET6
                                              ? reinterpret_cast<const sockaddr_in6*>(&bound)->sin6_port
                                              : reinterpret_cast<const sockaddr_in*>(&bound)->sin_port);
    if (::pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0) {
        closeQuietly(listener_);
        listener_ = -1;
        throw std::runtime_error("the metrics server has no wake-up pipe");
    }
    thread_ = std::thread([this] { serve(); });
    return boundPort;
}

void ScrapeServer::stop() {
    if (thread_.joinable()) {
        const char stopByte = 0;
        while (::write(wake_[1], &stopByte, 1) < 0 && errno == EINTR) {
        }
        thread_.join();
    }
    for (int* fd : {&listener_, &wake_[0], &wake_[1]}) {
        closeQuietly(*fd);
        *fd = -1;
    }
}

void ScrapeServer::serve() {
    std::vector<Connection> connections;
    std::vector<pollfd> waiting;
    for (;;) {
        // Close every connection past its deadline; poll until the next one.
        const Clock::time_point now = Clock::now();
        int wait_ms = kExchangeTimeout_ms;
        for (std::size_t i = 0; i < connections.size();) {
            if (connections[i].deadline <= now) {
                ::close(connections[i].fd);
                connections.erase(connections.begin() + static_cast<std::ptrdiff_t>(i));
                continue;
            }
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(connections[i].deadline - now);
            wait_ms = std::min<int>(wait_ms, static_cast<int>(left.count()) + 1);
            ++i;
        }
        waiting.assign({{wake_[0], POLLIN, 0}, {listener_, POLLIN, 0}});
        for (const Connection& connection : connections)
            waiting.push_back({connection.fd, static_cast<short>(connection.answering ? POLLOUT : POLLIN), 0});
        if (::poll(waiting.data(), waiting.size(), wait_ms) < 0 && errno != EINTR) return;
        if (waiting[0].revents != 0) return;  // stop()

        // Serve the open connections first (their entries are in order).
        std::vector<bool> done(connections.size(), false);
        for (std::size_t i = 0; i < connections.size(); ++i) {
            const short events = waiting[i + 2].revents;
            if (events == 0) continue;
            Connection& connection = connections[i];
            if (!connection.answering) {
                char buffer[2048];
                const ssize_t got = ::recv(connection.fd, buffer, sizeof buffer, 0);
                if (got <= 0) {
                    done[i] = got == 0 || (errno != EAGAIN && errno != EINTR);
                    continue;
                }
                connection.request.append(buffer, static_cast<std::size_t>(got));
                const std::size_t headEnd = connection.request.find("\r\n\r\n");
                if (headEnd == std::string::npos && connection.request.size() < kMaxRequestBytes) continue;
                connection.answer = headEnd == std::string::npos || headEnd + 4 > kMaxRequestBytes
                                        ? response(400, "", "request head too long\n", true)
                                        : answerTo(connection.request.substr(0, headEnd), handler_);
                connection.request.clear();
                connection.answering = true;
            }
            const ssize_t sent = ::send(connection.fd, connection.answer.data(), connection.answer.size(), MSG_NOSIGNAL);
            if (sent > 0) connection.answer.erase(0, static_cast<std::size_t>(sent));
            if (connection.answer.empty() || (sent < 0 && errno != EAGAIN && errno != EINTR)) done[i] = true;
        }
        for (std::size_t i = connections.size(); i-- > 0;) {
            if (!done[i]) continue;
            ::shutdown(connections[i].fd, SHUT_WR);
            ::close(connections[i].fd);
            connections.erase(connections.begin() + static_cast<std::ptrdiff_t>(i));
        }

        // Then take every waiting connection, making room by closing the
        // oldest one still sending its request.
        if (waiting[1].revents == 0) continue;
        for (;;) {
            const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (fd < 0 && errno == EINTR) continue;
            const bool outOfDescriptors = fd < 0 && (errno == EMFILE || errno == ENFILE);
            if (fd < 0 && !outOfDescriptors) break;  // none left (EAGAIN) or a connection already gone
            if (connections.size() >= kMaxConnections || outOfDescriptors) {
                if (connections.empty()) break;
                // Connections are kept in the order they came.
                auto oldest = std::find_if(connections.begin(), connections.end(),
                                           [](const Connection& c) { return !c.answering; });
                if (oldest == connections.end()) oldest = connections.begin();
                ::close(oldest->fd);
                connections.erase(oldest);
                if (outOfDescriptors) continue;
            }
            connections.push_back(
                Connection{fd, Clock::now() + std::chrono::milliseconds(kExchangeTimeout_ms), {}, {}, false});
        }
    }
}

}  // namespace ztsdctl
