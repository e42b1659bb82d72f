// The habits of minimal embedded web servers, in front of a simulated
// chassis: it never answers "Expect: 100-continue" (a client that waits for
// "100 Continue" waits in vain), refuses a chunked request body with 411
// Length Required, and reads a body only by its Content-Length. Requests
// that pass go on, without their Expect line, to the chassis' own server
// behind it on the loopback, and its answers come back unchanged.
//
// Threads: one accept thread and one thread per client connection, each
// with its own connection to the server behind; stop() shuts every socket
// down and joins them all. Every wait is bounded by a poll of 100 ms and the
// stopping flag.
#pragma once

#include "ztsd-sim/socketControl.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace ztsdsim {

class StrictHttpFront {
public:
    // Listens on host:port (0 = ephemeral) and forwards to host:backendPort.
    // Throws std::runtime_error when it cannot listen.
    StrictHttpFront(const std::string& host, std::uint16_t port, std::uint16_t backendPort);
    ~StrictHttpFront();  // stops
    StrictHttpFront(const StrictHttpFront&) = delete;
    StrictHttpFront& operator=(const StrictHttpFront&) = delete;

    std::uint16_t port() const { return port_; }
    void stop();

private:
    void acceptLoop();
    void serve(net::Socket client);
    net::Socket connectBackend() const;
    void track(net::Socket fd, bool add);

    std::string host_;
    std::uint16_t backendPort_;
    net::Socket listener_ = net::kNoSocket;
    std::uint16_t port_ = 0;
    std::atomic<bool> stopping_{false};
    std::mutex mutex_;  // guards open_ and workers_
    std::set<net::Socket> open_;
    std::vector<std::thread> workers_;
    std::thread acceptor_;
};

}  // namespace ztsdsim
