// The system's socket layer, started once per process before the library's
// first socket (Winsock on Windows; nothing to start elsewhere).
#pragma once

#include <functional>
#include <mutex>

namespace ztsdlib {
namespace platform {

// Starts a socket layer through `startup` (0 on success, else the system's
// error code) the first time it is asked to, from any number of threads at
// once; a start that failed is tried again by the next call. Tests give it
// a startup of their own.
class SocketLayer {
public:
    explicit SocketLayer(std::function<int()> startup) : startup_(std::move(startup)) {}

    // True when sockets can be used; otherwise `error` holds the startup's code.
    bool ensureStarted(int& error);

private:
    std::function<int()> startup_;
    std::mutex mutex_;
    bool started_ = false;
};

// The process' own socket layer (WSAStartup for Winsock 2.2 on Windows; it
// is never cleaned up, as other parts of the process may use it as well).
SocketLayer& processSocketLayer();

}  // namespace platform
}  // namespace ztsdlib
