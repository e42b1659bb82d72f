#include "timestampservice/timescaleProxyThriftClient.h"

#include <climits>
#include <iterator>

#include <thrift/TApplicationException.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/protocol/TProtocolException.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>
#include <thrift/transport/TTransportException.h>

namespace ztsdlib {

using apache::thrift::TApplicationException;
using apache::thrift::TException;
using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::protocol::TProtocolException;
using apache::thrift::transport::TBufferedTransport;
using apache::thrift::transport::TSocket;
using apache::thrift::transport::TTransportException;

TimescaleProxyThriftClient::TimescaleProxyThriftClient(const std::string& host, std::uint32_t port,
                                                       std::uint32_t timeout_ms)
    // A port beyond int's range becomes -1, which the socket refuses at open().
    : socket(std::make_shared<TSocket>(host, port > static_cast<std::uint32_t>(INT_MAX) ? -1 : static_cast<int>(port))),
      socketTimeout_ms(timeout_ms > static_cast<std::uint32_t>(INT_MAX) ? INT_MAX : static_cast<int>(timeout_ms)) {
    layerOverSocket();
}

void TimescaleProxyThriftClient::layerOverSocket() {
    transport = std::make_shared<TBufferedTransport>(socket);
    protocol = std::make_shared<TBinaryProtocol>(transport);
    client = std::make_unique<timestampservice::timestampServiceClient>(protocol);
}

TimescaleProxyThriftClient::~TimescaleProxyThriftClient() { close(); }

void TimescaleProxyThriftClient::open() {
    if (transport->isOpen()) return;
    // A reply the protocol gave up on may have left bytes of the old
    // connection in the buffers; the new connection starts with empty ones.
    if (opened) layerOverSocket();
    opened = true;
    // Without a connect time-out an unreachable host would hold the caller
    // for the operating system's own (minutes).
    socket->setConnTimeout(socketTimeout_ms);
    transport->open();
    socket->setRecvTimeout(socketTimeout_ms);
    socket->setSendTimeout(socketTimeout_ms);
}

void TimescaleProxyThriftClient::close() noexcept {
    try {
        transport->close();
    } catch (...) {
        // Closing a broken connection may fail to flush; it is closed anyway.
        try {
            socket->close();
        } catch (...) {
        }
    }
}

bool TimescaleProxyThriftClient::isOpen() const { return transport->isOpen(); }

std::int32_t TimescaleProxyThriftClient::getApiVersion() { return client->getApiVersion(); }

void TimescaleProxyThriftClient::getTime(timestampservice::TimestampInfo& result, std::int32_t id) {
    client->getTime(result, id);
}

void TimescaleProxyThriftClient::getTimeAndCurrentTimescales(timestampservice::TimeInfo& result) {
    client->getTimeAndCurrentTimescales(result);
}

namespace {

template <std::size_t N>
std::string kindName(const char* family, int code, const char* const (&names)[N]) {
    std::string text(family);
    if (code >= 0 && static_cast<std::size_t>(code) < N) {
        text += "::";
        text += names[code];
    }
    return text;
}

}  // namespace

RpcFailure describeRpcFailure(const std::exception& e) {
    RpcFailure failure;
    failure.what = e.what() ? e.what() : "";
    if (auto* t = dynamic_cast<const TTransportException*>(&e)) {
        static const char* const names[] = {"UNKNOWN",     "NOT_OPEN",       "TIMED_OUT",
                                            "END_OF_FILE", "INTERRUPTED",    "BAD_ARGS",
                                            "CORRUPTED_DATA", "INTERNAL_ERROR", "CLIENT_DISCONNECT"};
        failure.typeCode = static_cast<std::int32_t>(t->getType());
        failure.type = kindName("TTransportException", failure.typeCode, names);
        failure.transport = true;
    } else if (auto* p = dynamic_cast<const TProtocolException*>(&e)) {
        static const char* const names[] = {"UNKNOWN",     "INVALID_DATA",    "NEGATIVE_SIZE", "SIZE_LIMIT",
                                            "BAD_VERSION", "NOT_IMPLEMENTED", "DEPTH_LIMIT"};
        failure.typeCode = static_cast<std::int32_t>(p->getType());
        failure.type = kindName("TProtocolException", failure.typeCode, names);
    } else if (auto* a = dynamic_cast<const TApplicationException*>(&e)) {
        static const char* const names[] = {"UNKNOWN",           "UNKNOWN_METHOD",   "INVALID_MESSAGE_TYPE",
                                            "WRONG_METHOD_NAME", "BAD_SEQUENCE_ID",  "MISSING_RESULT",
                                            "INTERNAL_ERROR",    "PROTOCOL_ERROR",   "INVALID_TRANSFORM",
                                            "INVALID_PROTOCOL",  "UNSUPPORTED_CLIENT_TYPE"};
        failure.typeCode = static_cast<std::int32_t>(a->getType());
        failure.type = kindName("TApplicationException", failure.typeCode, names);
    } else if (dynamic_cast<const TException*>(&e)) {
        failure.type = "TException";
    } else {
        failure.type = "std::exception";
    }
    return failure;
}

}  // namespace ztsdlib
