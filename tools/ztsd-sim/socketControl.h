// The operating-system side of the simulator: the socket calls its raw
// servers make, closing a connection that the HTTP server holds without going
// through the server, and the process-wide settings a server needs. The calls
// whose form differs by system live in socketControlPosix.cpp (connections
// found among the descriptors listed in /proc/self/fd) and
// socketControlWindows.cpp (Winsock; connections found by probing the
// process's handle values); the build takes this system's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace ztsdsim::net {

// A socket: a descriptor, or a Winsock SOCKET.
#ifdef _WIN32
using Socket = std::uintptr_t;
constexpr Socket kNoSocket = ~static_cast<Socket>(0);
#else
using Socket = int;
constexpr Socket kNoSocket = -1;
#endif

// Shuts down, in both directions, the accepted TCP connection of this
// process whose local port is localPort and whose peer is peerAddress
// (numeric text, as the HTTP server reports it) : peerPort. The socket
// stays open for its owner, whose next read or write fails. Returns whether
// such a connection was found.
bool shutdownConnection(std::uint16_t localPort, const std::string& peerAddress, int peerPort);

// Shuts down every connected TCP socket of this process whose local port is
// localPort (a listening socket has no peer and is left alone). Returns how
// many it shut down.
std::size_t shutdownConnectionsOnPort(std::uint16_t localPort);

// A TCP socket listening on 127.0.0.1 at an ephemeral port, written to
// port; throws std::runtime_error naming `what` when that fails.
Socket listenOnLoopback(std::uint16_t& port, int backlog, const char* what);

// A TCP socket listening on host (a numeric address) and port (0: any free
// one), its port written to boundPort; kNoSocket when that fails.
Socket listenOn(const std::string& host, std::uint16_t port, int backlog, std::uint16_t& boundPort);

// A blocking TCP connection to host (numeric) and port, or kNoSocket.
Socket connectTo(const std::string& host, std::uint16_t port);

// The next connection waiting on a listening socket, or kNoSocket.
Socket acceptOne(Socket listener);

// Whether the socket has bytes (or an end, or a connection) within timeout_ms.
bool waitReadable(Socket socket, int timeout_ms);

// Bytes received (0: the peer closed; below 0: failed).
long receiveSome(Socket socket, char* buffer, std::size_t size);

// Bytes sent (below 0: failed); a closed peer never raises a signal.
long sendSome(Socket socket, const char* bytes, std::size_t size);

// Shuts down both directions; the socket stays open for its owner.
void shutdownBoth(Socket socket);
void closeSocket(Socket socket);

// Closing the socket then resets the connection instead of ending it.
void resetOnClose(Socket socket);

// For a listening socket before it binds: a restarted server binds its port
// again at once, while a port another socket listens on is refused.
void bindExclusively(Socket socket);

// Sets the accept-queue length of a socket that is already listening.
void setListenBacklog(Socket listeningSocket, int backlog);

// Makes writes to a closed peer fail instead of killing the process (on
// Linux: SIGPIPE ignored unless the process already handles it), and starts
// the system's socket layer where it needs starting (Winsock).
void ignoreBrokenPipes();

namespace system {
// The per-system calls the portable ones above are made of.
void start();
void close(Socket socket);
bool waitReadable(Socket socket, int timeout_ms);
int sendFlags();
int shutdownBothHow();
// Shuts down both directions of a connection that another thread of this
// process owns, and sees that the owner's wait on it ends.
bool cutConnection(Socket socket);
void setExclusiveBind(Socket socket);
// Calls visit(s) for every socket of this process; returns how often visit
// returned true.
std::size_t forEachSocket(const std::function<bool(Socket)>& visit);
}  // namespace system

}  // namespace ztsdsim::net
