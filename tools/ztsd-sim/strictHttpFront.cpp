#include "ztsd-sim/strictHttpFront.h"


#include <charconv>
#include <stdexcept>

namespace ztsdsim {
namespace {

constexpr std::size_t kMaxHead = 64 * 1024;
constexpr std::size_t kMaxBody = 16 * 1024 * 1024;

std::string lowered(std::string text) {
    for (char& c : text) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    return text;
}

// The value of a header in a head whose names were lowered, or "" .
std::string headerValue(const std::string& lowerHead, const std::string& name) {
    const std::size_t at = lowerHead.find("\r\n" + name + ":");
    if (at == std::string::npos) return "";
    std::size_t from = at + 2 + name.size() + 1;
    while (from < lowerHead.size() && lowerHead[from] == ' ') ++from;
    return lowerHead.substr(from, lowerHead.find("\r\n", from) - from);
}

// Reads more bytes into buffer; false when the peer closed, the stop flag
// is set or nothing came for a second.
bool readMore(net::Socket fd, std::string& buffer, const std::atomic<bool>& stopping) {
    for (int quiet_ms = 0; !stopping && quiet_ms < 1000; quiet_ms += 100) {
        if (!net::waitReadable(fd, 100)) continue;
        char chunk[16384];
        const long n = net::receiveSome(fd, chunk, sizeof chunk);
        if (n <= 0) return false;
        buffer.append(chunk, static_cast<std::size_t>(n));
        return true;
    }
    return false;
}

// One HTTP message (head and Content-Length body) from buffer/fd; the head's
// end is returned in headEnd. A peer that closes between messages ends it.
bool readMessage(net::Socket fd, std::string& buffer, std::size_t& headEnd, std::size_t& bodyLength,
                 const std::atomic<bool>& stopping, bool& chunked) {
    while ((headEnd = buffer.find("\r\n\r\n")) == std::string::npos) {
        if (buffer.size() > kMaxHead || !readMore(fd, buffer, stopping)) return false;
    }
    headEnd += 4;
    const std::string lowerHead = lowered(buffer.substr(0, headEnd));
    chunked = headerValue(lowerHead, "transfer-encoding").find("chunked") != std::string::npos;
    if (chunked) return true;
    // A length that is not a plain decimal number, or beyond kMaxBody, ends
    // the conversation (a hostile peer must not stop the simulator).
    const std::string length = headerValue(lowerHead, "content-length");
    bodyLength = 0;
    if (!length.empty()) {
        const auto parsed = std::from_chars(length.data(), length.data() + length.size(), bodyLength);
        if (parsed.ec != std::errc() || parsed.ptr != length.data() + length.size()) return false;
    }
    if (bodyLength > kMaxBody) return false;
    while (buffer.size() < headEnd + bodyLength) {
        if (!readMore(fd, buffer, stopping)) return false;
    }
    return true;
}

bool sendAll(net::Socket fd, const std::string& bytes) {
    for (std::size_t at = 0; at < bytes.size();) {
        const long n = net::sendSome(fd, bytes.data() + at, bytes.size() - at);
        if (n <= 0) return false;
        at += static_cast<std::size_t>(n);
    }
    return true;
}

}  // namespace

StrictHttpFront::StrictHttpFront(const std::string& host, std::uint16_t port, std::uint16_t backendPort)
    : host_(host), backendPort_(backendPort) {
    listener_ = net::listenOn(host, port, 128, port_);
    if (listener_ == net::kNoSocket)
        throw std::runtime_error("ztsd-sim: the strict HTTP front cannot listen on " + host + " port " +
                                 std::to_string(port));
    acceptor_ = std::thread([this] { acceptLoop(); });
}

StrictHttpFront::~StrictHttpFront() { stop(); }

void StrictHttpFront::stop() {
    if (stopping_.exchange(true)) return;
    if (acceptor_.joinable()) acceptor_.join();
    std::vector<std::thread> workers;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const net::Socket fd : open_) net::shutdownBoth(fd);
        workers.swap(workers_);
    }
    for (auto& w : workers) w.join();
    net::closeSocket(listener_);
}

void StrictHttpFront::track(net::Socket fd, bool add) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (add)
        open_.insert(fd);
    else
        open_.erase(fd);
}

void StrictHttpFront::acceptLoop() {
    while (!stopping_) {
        if (!net::waitReadable(listener_, 100)) continue;
        const net::Socket client = net::acceptOne(listener_);
        if (client == net::kNoSocket) continue;
        track(client, true);
        std::lock_guard<std::mutex> lock(mutex_);
        workers_.emplace_back([this, client] { serve(client); });
    }
}

net::Socket StrictHttpFront::connectBackend() const { return net::connectTo(host_, backendPort_); }

void StrictHttpFront::serve(net::Socket client) {
    net::Socket backend = net::kNoSocket;
    std::string fromClient, fromBackend;
    while (!stopping_) {
        std::size_t headEnd = 0, bodyLength = 0;
        bool chunked = false;
        if (!readMessage(client, fromClient, headEnd, bodyLength, stopping_, chunked)) break;
        if (chunked) {  // refused, as servers without chunked uploads do
            sendAll(client, "HTTP/1.1 411 Length Required\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
            break;
        }
        // Forwarded without its Expect line, which this server never answers.
        std::string head = fromClient.substr(0, headEnd);
        const std::string lowerHead = lowered(head);
        const std::size_t expect = lowerHead.find("\r\nexpect:");
        if (expect != std::string::npos) head.erase(expect, lowerHead.find("\r\n", expect + 2) - expect);
        const std::string request = head + fromClient.substr(headEnd, bodyLength);
        fromClient.erase(0, headEnd + bodyLength);
        if (backend == net::kNoSocket) {
            backend = connectBackend();
            if (backend == net::kNoSocket) break;
            track(backend, true);
        }
        std::size_t answerHead = 0, answerBody = 0;
        bool answerChunked = false;
        if (!sendAll(backend, request) ||
            !readMessage(backend, fromBackend, answerHead, answerBody, stopping_, answerChunked) || answerChunked)
            break;
        const bool sent = sendAll(client, fromBackend.substr(0, answerHead + answerBody));
        fromBackend.erase(0, answerHead + answerBody);
        if (!sent) break;
    }
    if (backend != net::kNoSocket) {
        track(backend, false);
        net::closeSocket(backend);
    }
    track(client, false);
    net::closeSocket(client);
}

}  // namespace ztsdsim
