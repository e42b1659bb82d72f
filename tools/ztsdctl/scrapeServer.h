// A small HTTP/1.1 server for a metrics scraper that no idle, slow or hostile
// client can block: one thread waits on the listening socket and every open
// connection at once (serverSockets.h), so a connection costs a socket and a
// buffer, never a thread.
//
// Each connection gets one exchange: the request (its head, at most
// kMaxRequestBytes), then the answer with "Connection: close". Limits:
//   - the whole exchange, request and answer, has kExchangeTimeout_ms from
//     the accept; a client that sends or reads a byte a second is closed then;
//   - at most kMaxConnections are open; a new connection closes the oldest
//     one that has not finished sending its request, so a scrape that
//     arrives behind any number of idle connections is served at once.
//
// Threads: start() and stop() from the owner's thread; the answer callback
// runs on the server's thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "serverSockets.h"

namespace ztsdctl {

struct ScrapeAnswer {
    int status = 200;  // 200, 404 or 405
    std::string contentType;
    std::string body;
};

class ScrapeServer {
public:
    static constexpr std::size_t kMaxConnections = 64;
    static constexpr std::size_t kMaxRequestBytes = 8192;
    static constexpr int kExchangeTimeout_ms = 10000;

    // path -> the answer to GET (or HEAD) of that path; the query is cut off.
    using Handler = std::function<ScrapeAnswer(const std::string& path)>;

    ScrapeServer() = default;
    ~ScrapeServer();  // stops
    ScrapeServer(const ScrapeServer&) = delete;
    ScrapeServer& operator=(const ScrapeServer&) = delete;

    // Listens on host (a numeric address or a name) and port (0: any free
    // one) and serves from a thread of its own. Returns the port it listens
    // on. Throws std::runtime_error when it cannot listen.
    std::uint16_t start(const std::string& host, std::uint16_t port, Handler handler);
    void stop();

private:
    void serve();

    Handler handler_;
    serverSockets::Handle listener_ = serverSockets::kNone;
    std::unique_ptr<serverSockets::Wakeup> wakeup_;  // stop() ends the serving thread's wait
    std::thread thread_;
};

}  // namespace ztsdctl
