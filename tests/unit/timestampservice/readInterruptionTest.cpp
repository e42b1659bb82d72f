// A daemon connection's reply wait ended by another thread, against a Thrift
// server socket on 127.0.0.1 that takes the call and never answers (Thrift's
// portable sockets: it runs where the interruption is a Winsock pair, too);
// and its connect, against a port that never answers the handshake.
#include <gtest/gtest.h>

#include <thread>

#include <thrift/transport/TServerSocket.h>
#include <thrift/transport/TTransportException.h>

#include "timestampservice/timescaleProxyThriftClient.h"
#include "unit/support/timing.h"
#include "unit/support/unansweredListener.h"

namespace {

using apache::thrift::transport::TTransportException;

TEST(ReadInterruption, EndsAHeldReplyWaitAtOnceAndRefusesLaterConnects) {
    apache::thrift::transport::TServerSocket server("127.0.0.1", 0);
    server.setAcceptTimeout(5000);
    server.listen();
    auto interruption = std::make_shared<ztsdlib::ReadInterruption>();
    ztsdlib::TimescaleProxyThriftClient client("127.0.0.1", static_cast<std::uint32_t>(server.getPort()), 5000,
                                               interruption);
    client.open();
    int type = -1;
    long long waited_ms = -1;
    std::thread caller([&] {
        const auto start = std::chrono::steady_clock::now();
        try {
            (void)client.getApiVersion();
        } catch (const TTransportException& e) {
            type = e.getType();
        }
        waited_ms = ztsdtest::msSince(start);
    });
    // Accepted once the request is in (the server socket defers until data
    // arrives); nothing is read or written on it.
    std::shared_ptr<apache::thrift::transport::TTransport> accepted;
    EXPECT_NO_THROW(accepted = server.accept());
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    interruption->raise();
    caller.join();
    EXPECT_EQ(type, TTransportException::INTERRUPTED);
    EXPECT_GE(waited_ms, 100);
    EXPECT_LT(waited_ms, 1000);  // far from the 5 s time-out
    client.close();
    EXPECT_THROW(client.open(), TTransportException);
    if (accepted) accepted->close();
}

// A connect to a host that never answers ends at a raise, long before its
// time-out, and without a raise at its time-out.
TEST(ReadInterruption, EndsAConnectTheHostNeverAnswers) {
    ztsdtest::UnansweredListener host;
    if (!host.hangs()) GTEST_SKIP() << "this system refuses connects beyond a full backlog";
    for (const bool raised : {true, false}) {
        SCOPED_TRACE(raised ? "raised" : "time-out");
        auto interruption = std::make_shared<ztsdlib::ReadInterruption>();
        ztsdlib::TimescaleProxyThriftClient client("127.0.0.1", static_cast<std::uint32_t>(host.port()),
                                                   raised ? 5000 : 300, interruption);
        int type = -1;
        long long waited_ms = -1;
        // Counted from before the caller starts, so the 100 ms before the
        // raise are all inside it whenever the caller thread gets to run.
        const auto start = std::chrono::steady_clock::now();
        std::thread caller([&] {
            try {
                client.open();
            } catch (const TTransportException& e) {
                type = e.getType();
            }
            waited_ms = ztsdtest::msSince(start);
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        if (raised) interruption->raise();
        caller.join();
        EXPECT_EQ(type, raised ? TTransportException::INTERRUPTED : TTransportException::NOT_OPEN);
        EXPECT_GE(waited_ms, raised ? 100 : 290);
        EXPECT_LT(waited_ms, raised ? 1000 : 1500);
    }
}

}  // namespace
