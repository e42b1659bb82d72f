// The operating-system side of the simulator's connection controls: closing
// a connection that the HTTP server holds without going through the server,
// and the process-wide settings a server needs. Linux: connections are found
// among the descriptors listed in /proc/self/fd.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace ztsdsim::net {

// Shuts down, in both directions, the accepted TCP connection of this
// process whose local port is localPort and whose peer is peerAddress
// (numeric text, as the HTTP server reports it) : peerPort. The descriptor
// stays open for its owner, whose next read or write fails. Returns whether
// such a connection was found.
bool shutdownConnection(std::uint16_t localPort, const std::string& peerAddress, int peerPort);

// Shuts down every connected TCP socket of this process whose local port is
// localPort (a listening socket has no peer and is left alone). Returns how
// many it shut down.
std::size_t shutdownConnectionsOnPort(std::uint16_t localPort);

// A TCP socket listening on 127.0.0.1 at an ephemeral port, written to
// port; throws std::runtime_error naming `what` when that fails.
int listenOnLoopback(std::uint16_t& port, int backlog, const char* what);

// Sets the accept-queue length of a socket that is already listening.
void setListenBacklog(int listeningSocket, int backlog);

// Makes writes to a closed peer fail with EPIPE instead of killing the
// process: sets SIGPIPE to be ignored unless the process already handles it.
void ignoreBrokenPipes();

}  // namespace ztsdsim::net
