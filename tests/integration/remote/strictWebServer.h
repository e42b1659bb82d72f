// A web server with the habits of minimal embedded HTTP stacks, for the
// request-framing tests: it never answers "Expect: 100-continue" (a client
// that waits for "100 Continue" waits in vain), refuses a chunked request
// body with 411, and reads a body only by its Content-Length. Every request
// gets the service's success envelope with a null result; what each request
// carried is recorded. One thread on 127.0.0.1, one connection at a time,
// every wait bounded; stops with its destructor.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace remotetest {

class StrictWebServer {
public:
    struct Request {
        std::string head;  // request line and headers, as received
        std::string body;
    };

    StrictWebServer() {
        listener = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (listener < 0 || ::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(listener, 8) != 0 || ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0)
            throw std::runtime_error("StrictWebServer: cannot listen on 127.0.0.1");
        port = ntohs(address.sin_port);
        server = std::thread([this] { serve(); });
    }
    ~StrictWebServer() {
        stopping = true;
        server.join();
        ::close(listener);
    }

    std::string remoteHost() const { return "127.0.0.1:" + std::to_string(port); }
    std::vector<Request> requests() const {
        std::lock_guard<std::mutex> lock(mutex);
        return received;
    }

private:
    // Waits up to 100 ms for fd to be readable; false when it is not.
    static bool readable(int fd) {
        pollfd p{fd, POLLIN, 0};
        return ::poll(&p, 1, 100) == 1;
    }

    void serve() {
        while (!stopping) {
            if (!readable(listener)) continue;
            const int connection = ::accept(listener, nullptr, nullptr);
            if (connection < 0) continue;
            converse(connection);
            ::close(connection);
        }
    }

    // Answers requests on one kept-alive connection until the peer closes,
    // goes quiet for a second, or the server stops.
    void converse(int connection) {
        std::string pending;
        int quiet_ms = 0;
        while (!stopping && quiet_ms < 1000) {
            const std::size_t headEnd = pending.find("\r\n\r\n");
            if (headEnd != std::string::npos) {
                Request request{pending.substr(0, headEnd + 4), ""};
                if (lowered(request.head).find("transfer-encoding: chunked") != std::string::npos) {
                    record(request);
                    reply(connection, "411 Length Required", "");
                    return;
                }
                const std::size_t length = contentLength(request.head);
                if (pending.size() - request.head.size() >= length) {
                    request.body = pending.substr(request.head.size(), length);
                    pending.erase(0, request.head.size() + length);
                    record(request);
                    reply(connection, "200 OK",
                          "{\"error\":{\"success\":true,\"errorCode\":0,\"errorText\":\"\",\"errorInfo\":{}},"
                          "\"result\":null}");
                    continue;
                }
            }
            if (!readable(connection)) {
                quiet_ms += 100;
                continue;
            }
            char chunk[4096];
            const ssize_t n = ::recv(connection, chunk, sizeof chunk, 0);
            if (n <= 0 || pending.size() > (1u << 20)) return;
            pending.append(chunk, static_cast<std::size_t>(n));
            quiet_ms = 0;
        }
    }

    static std::string lowered(std::string text) {
        for (char& c : text) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
        return text;
    }
    static std::size_t contentLength(const std::string& head) {
        const std::string lower = lowered(head);
        const std::size_t at = lower.find("\r\ncontent-length:");
        return at == std::string::npos ? 0 : std::stoul(lower.substr(at + 17));
    }
    void record(const Request& request) {
        std::lock_guard<std::mutex> lock(mutex);
        received.push_back(request);
    }
    static void reply(int connection, const std::string& status, const std::string& body) {
        const std::string text = "HTTP/1.1 " + status +
                                 "\r\nContent-Type: vnd.zt.syncDomain.v0/json; charset=utf-8\r\nContent-Length: " +
                                 std::to_string(body.size()) + "\r\n\r\n" + body;
        ::send(connection, text.data(), text.size(), MSG_NOSIGNAL);
    }

    int listener = -1;
    std::uint16_t port = 0;
    std::atomic<bool> stopping{false};
    mutable std::mutex mutex;
    std::vector<Request> received;
    std::thread server;
};

}  // namespace remotetest
