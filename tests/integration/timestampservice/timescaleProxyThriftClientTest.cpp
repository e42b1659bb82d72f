// The RPC client against a loopback peer that answers with bytes the test
// chooses: a reply the protocol gives up on must not leak into the next
// connection, and a well-formed reply is read as the daemon meant it.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/protocol/TProtocolException.h>
#include <thrift/transport/TBufferTransports.h>

#include "timestampservice/timescaleProxyThriftClient.h"
#include "ztsd-sim/socketControl.h"

namespace {

namespace tss = ztsdlib::timestampservice;
namespace net = ztsdsim::net;
using apache::thrift::protocol::TProtocolException;

// A loopback listener that answers its n-th connection's first request with
// replies[n] and then waits, at most 3 s, for the peer to close.
class CannedPeer {
public:
    explicit CannedPeer(std::vector<std::string> cannedReplies) : replies(std::move(cannedReplies)) {
        listener = ztsdsim::net::listenOnLoopback(port, 4, "the canned peer");
        server = std::thread([this] { serve(); });
    }
    ~CannedPeer() {
        server.join();
        net::closeSocket(listener);
    }
    std::uint16_t port = 0;

private:
    static bool readable(net::Socket s, int timeout_ms) { return net::waitReadable(s, timeout_ms); }
    void serve() {
        for (const std::string& reply : replies) {
            if (!readable(listener, 3000)) return;
            const net::Socket connection = net::acceptOne(listener);
            if (connection == net::kNoSocket) return;
            char request[512];
            if (readable(connection, 3000) && net::receiveSome(connection, request, sizeof request) > 0)
                net::sendSome(connection, reply.data(), reply.size());
            while (readable(connection, 3000) && net::receiveSome(connection, request, sizeof request) > 0) {
            }
            net::closeSocket(connection);
        }
    }
    std::vector<std::string> replies;
    ztsdsim::net::Socket listener = ztsdsim::net::kNoSocket;
    std::thread server;
};

// The bytes of a getApiVersion reply carrying version.
std::string versionReply(std::int32_t version) {
    auto buffer = std::make_shared<apache::thrift::transport::TMemoryBuffer>();
    apache::thrift::protocol::TBinaryProtocol protocol(buffer);
    tss::timestampService_getApiVersion_result result;
    result.success = version;
    result.__isset.success = true;
    protocol.writeMessageBegin("getApiVersion", apache::thrift::protocol::T_REPLY, 0);
    result.write(&protocol);
    protocol.writeMessageEnd();
    return buffer->getBufferAsString();
}

TEST(TimescaleProxyThriftClient, AnUnreadableReplyLeavesNothingForTheNextConnection) {
    // A reply with an unknown protocol version, then more bytes in the same
    // segment, which the buffered transport has read ahead.
    std::string garbled("\x80\x02\x00\x02", 4);
    garbled += versionReply(99).substr(4);
    CannedPeer peer({garbled, versionReply(7)});

    ztsdlib::TimescaleProxyThriftClient client("127.0.0.1", peer.port, 2000);
    client.open();
    EXPECT_TRUE(client.isOpen());
    try {
        client.getApiVersion();
        ADD_FAILURE() << "a reply of another protocol version was read";
    } catch (const TProtocolException& e) {
        EXPECT_EQ(e.getType(), TProtocolException::BAD_VERSION);
    }
    client.close();
    EXPECT_FALSE(client.isOpen());
    client.open();
    EXPECT_EQ(client.getApiVersion(), 7);
    client.close();
    client.close();  // closing twice is harmless
}

}  // namespace
