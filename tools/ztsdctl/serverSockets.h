// The socket calls of the metrics server (scrapeServer.cpp), one file per
// system: serverSocketsPosix.cpp (BSD sockets, poll, a pipe to wake the
// waiting thread); a serverSocketsWindows.cpp maps the same calls onto
// Winsock (WSAPoll, ioctlsocket, closesocket). The build takes this system's.
//
// Every socket is non-blocking and not inherited by child processes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace ztsdctl {
namespace serverSockets {

// A socket (a descriptor, or a Winsock SOCKET, which fits).
using Handle = std::intptr_t;
constexpr Handle kNone = -1;

// What a receive or send did besides moving bytes.
constexpr std::ptrdiff_t kWouldBlock = -1;  // nothing now; wait for the socket again
constexpr std::ptrdiff_t kFailed = -2;      // the connection is broken

// Listens on host (a numeric address or a name) and port (0: any free one);
// `boundPort` is the port it listens on. Throws std::runtime_error when it
// cannot listen.
Handle listenOn(const std::string& host, std::uint16_t port, std::uint16_t& boundPort);

// The next waiting connection, or kNone when there is none (or it is already
// gone); `outOfDescriptors` says that one waits but the process has no
// descriptor left for it.
Handle acceptOne(Handle listener, bool& outOfDescriptors);

// Bytes received (0: the peer finished sending), kWouldBlock or kFailed.
std::ptrdiff_t receiveSome(Handle socket, char* buffer, std::size_t size);
// Bytes sent, kWouldBlock or kFailed; never raises a signal.
std::ptrdiff_t sendSome(Handle socket, const char* data, std::size_t size);

// Says the answer is complete (no more sending), then closes.
void finishAndClose(Handle socket);
void closeSocket(Handle socket);

struct Waiting {
    Handle socket;
    bool toSend;         // wait until it can send; otherwise until it has bytes (or a connection)
    bool ready = false;  // set by waitForAny: it can go on (or has an error)
};

// Waits until one entry is ready or timeout_ms passed; false when the wait
// itself failed (an interruption counts as a wait with nothing ready).
bool waitForAny(std::vector<Waiting>& entries, int timeout_ms);

// A way for another thread to end a waitForAny: `waitOn` is put among its
// entries and becomes ready once wake() is called.
class Wakeup {
public:
    Wakeup();  // throws std::runtime_error when the system has none to give
    ~Wakeup();
    Wakeup(const Wakeup&) = delete;
    Wakeup& operator=(const Wakeup&) = delete;

    Handle waitOn() const;
    void wake();

private:
    Handle ends_[2] = {kNone, kNone};
};

}  // namespace serverSockets
}  // namespace ztsdctl
