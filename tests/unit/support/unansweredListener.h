// A port on 127.0.0.1 that never answers a connect, like a host that drops
// connection attempts: a listening socket with a backlog of 0 whose queue is
// filled with connections it never accepts (Linux then drops every further
// handshake's first packet); hangs() is false where the system refuses instead.
#pragma once

#include <chrono>
#include <memory>
#include <vector>

#include <thrift/transport/TSocket.h>  // with the system's socket headers

#include "timestampservice/socketLayer.h"

namespace ztsdtest {

class UnansweredListener {
public:
    UnansweredListener() {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (listener == THRIFT_INVALID_SOCKET || ::bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            ::listen(listener, 0) != 0 || ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0)
            return;
        port_ = ntohs(address.sin_port);
        // Connects until one waits out 200 ms (a backlog of 0 queues one on Linux).
        for (int i = 0; i < 8 && !hangs_; ++i) {
            fillers.push_back(std::make_shared<apache::thrift::transport::TSocket>("127.0.0.1", port_));
            fillers.back()->setConnTimeout(200);
            const auto start = std::chrono::steady_clock::now();
            try {
                fillers.back()->open();
            } catch (const std::exception&) {
                if (std::chrono::steady_clock::now() - start < std::chrono::milliseconds(150)) return;  // refused
                hangs_ = true;
            }
        }
    }
    ~UnansweredListener() { if (listener != THRIFT_INVALID_SOCKET) THRIFT_CLOSESOCKET(listener); }
    UnansweredListener(const UnansweredListener&) = delete;

    int port() const { return port_; }
    bool hangs() const { return hangs_; }  // a connect to port() waits for its time-out

private:
    THRIFT_SOCKET listener = (ztsdlib::requireSocketLayer(), ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
    int port_ = 0;
    bool hangs_ = false;
    std::vector<std::shared_ptr<apache::thrift::transport::TSocket>> fillers;
};

}  // namespace ztsdtest
