// A daemon connection's socket that another thread can interrupt at any
// moment of its life: while it connects as well as while it waits for a
// reply.
#pragma once

#include <memory>
#include <string>

#include <thrift/transport/TSocket.h>

namespace ztsdlib {

class ReadInterruption;

// A TSocket whose waits end with a TTransportException INTERRUPTED once its
// interruption is raised. Reply waits are Thrift's own (TSocket polls the
// interruption's listener beside the connection). The connect is made here:
// Thrift's waits for the handshake alone, so a host that silently drops
// connection attempts would hold a raise for the whole connect time-out.
// open() connects non-blocking to each address of the host in turn, waiting
// on the connecting socket and the listener together, all addresses within
// one connect time-out counted from the call; the connected socket is then
// handed to TSocket with the options TSocket would have set. A raised
// interruption refuses every later open() at once.
//
// The host name is looked up before the connect starts, and that look-up
// (the system's resolver) cannot be interrupted.
class InterruptibleSocket : public apache::thrift::transport::TSocket {
public:
    InterruptibleSocket(const std::string& host, int port, std::shared_ptr<ReadInterruption> raisedBy);
    void open() override;

private:
    std::shared_ptr<ReadInterruption> interruption;
};

}  // namespace ztsdlib
