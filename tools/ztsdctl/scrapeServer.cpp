#include "scrapeServer.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <vector>

namespace ztsdctl {

namespace {

namespace net = serverSockets;
using Clock = std::chrono::steady_clock;

struct Connection {
    net::Handle socket;
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

}  // namespace

ScrapeServer::~ScrapeServer() { stop(); }

std::uint16_t ScrapeServer::start(const std::string& host, std::uint16_t port, Handler handler) {
    stop();
    handler_ = std::move(handler);
    std::uint16_t boundPort = 0;
    listener_ = net::listenOn(host, port, boundPort);
    try {
        wakeup_ = std::make_unique<net::Wakeup>();
    } catch (...) {
        net::closeSocket(listener_);
        listener_ = net::kNone;
        throw;
    }
    thread_ = std::thread([this] { serve(); });
    return boundPort;
}

void ScrapeServer::stop() {
    if (thread_.joinable()) {
        wakeup_->wake();
        thread_.join();
    }
    wakeup_.reset();
    net::closeSocket(listener_);
    listener_ = net::kNone;
}

void ScrapeServer::serve() {
    std::vector<Connection> connections;
    std::vector<net::Waiting> waiting;
    for (;;) {
        // Close every connection past its deadline; wait until the next one.
        const Clock::time_point now = Clock::now();
        int wait_ms = kExchangeTimeout_ms;
        for (std::size_t i = 0; i < connections.size();) {
            if (connections[i].deadline <= now) {
                net::closeSocket(connections[i].socket);
                connections.erase(connections.begin() + static_cast<std::ptrdiff_t>(i));
                continue;
            }
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(connections[i].deadline - now);
            wait_ms = std::min<int>(wait_ms, static_cast<int>(left.count()) + 1);
            ++i;
        }
        waiting.assign({{wakeup_->waitOn(), false}, {listener_, false}});
        for (const Connection& connection : connections) waiting.push_back({connection.socket, connection.answering});
        if (!net::waitForAny(waiting, wait_ms)) return;
        if (waiting[0].ready) return;  // stop()

        // Serve the open connections first (their entries are in order).
        std::vector<bool> done(connections.size(), false);
        for (std::size_t i = 0; i < connections.size(); ++i) {
            if (!waiting[i + 2].ready) continue;
            Connection& connection = connections[i];
            if (!connection.answering) {
                char buffer[2048];
                const std::ptrdiff_t got = net::receiveSome(connection.socket, buffer, sizeof buffer);
                if (got <= 0) {
                    done[i] = got != net::kWouldBlock;
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
            const std::ptrdiff_t sent =
                net::sendSome(connection.socket, connection.answer.data(), connection.answer.size());
            if (sent > 0) connection.answer.erase(0, static_cast<std::size_t>(sent));
            if (connection.answer.empty() || sent == net::kFailed) done[i] = true;
        }
        for (std::size_t i = connections.size(); i-- > 0;) {
            if (!done[i]) continue;
            net::finishAndClose(connections[i].socket);
            connections.erase(connections.begin() + static_cast<std::ptrdiff_t>(i));
        }

        // Then take every waiting connection, making room by closing the
        // oldest one still sending its request.
        if (!waiting[1].ready) continue;
        for (;;) {
            bool outOfDescriptors = false;
            const net::Handle socket = net::acceptOne(listener_, outOfDescriptors);
            if (socket == net::kNone && !outOfDescriptors) break;  // none left, or a connection already gone
            if (connections.size() >= kMaxConnections || outOfDescriptors) {
                if (connections.empty()) break;
                // Connections are kept in the order they came.
                auto oldest = std::find_if(connections.begin(), connections.end(),
                                           [](const Connection& c) { return !c.answering; });
                if (oldest == connections.end()) oldest = connections.begin();
                net::closeSocket(oldest->socket);
                connections.erase(oldest);
                if (outOfDescriptors) continue;
            }
            connections.push_back(
                Connection{socket, Clock::now() + std::chrono::milliseconds(kExchangeTimeout_ms), {}, {}, false});
        }
    }
}

}  // namespace ztsdctl
