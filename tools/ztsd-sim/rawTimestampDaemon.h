// A timestamp daemon written byte by byte: it reads each call of the
// timestamp service and writes its reply by hand in the binary protocol
// (strict message header, network byte order), without the generated code.
// Its faithful replies pin the service's method names, field ids and types
// independently of the code generated from the IDL; its personalities play
// the daemons and non-daemons a client may meet in the field:
//
//   faithful            correct replies (API version as set)
//   wrongMethodName     getTime answered as "getTimeX"
//   invalidMessageType  getTime answered with a message of type call (1)
//   wrongSequenceId     getTime answered with sequence id 7
//   hugeString          getTime's uri announced as 0x7fffffff bytes long
//   httpServer          getTime answered by "HTTP/1.1 400 Bad Request" (a
//                       web server on the daemon's port)
//   hugeList            (API version 2) getTimeAndCurrentTimescales' list
//                       announced with 26,000,000 entries
//   drip                faithful replies sent one byte every dripInterval_ms
//   daemonError         the time calls answered with the declared exception
//                       thrift_zterr { 1: code, 2: json } (field 1 of the result)
//
// Requests are checked byte for byte against what the service's definition
// says a client sends: a strict call header with sequence id 0 and, for
// getTime, exactly the argument field 1 (i32 id); the others no field at
// all. A request that differs is counted in malformedRequests() and its
// connection closed without an answer.
//
// The version handshake (getApiVersion) is always answered faithfully, so a
// proxy can be made before the personality shows. One thread on 127.0.0.1
// serves one connection at a time; every wait is bounded, and the
// destructor stops it.
#pragma once

#include "ztsd-sim/socketControl.h"

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

namespace ztsdsim {

class RawTimestampDaemon {
public:
    enum class Personality {
        faithful, wrongMethodName, invalidMessageType, wrongSequenceId, hugeString, httpServer, hugeList, drip,
        daemonError
    };
    struct Options {
        Personality personality = Personality::faithful;
        std::int32_t apiVersion = 1;
        std::string gmId = "00-80-2F-AA-BB-CC";  // served as /localhost/ztsds/timescales/<gmId>
        int dripInterval_ms = 50;
        // The time every reading gives.
        std::int64_t seconds = 13000000000;
        std::int32_t nanos = 123456789;
        // What daemonError reports.
        std::int32_t errorCode = -52006;
        std::string errorJson = "{\"where\":\"daemon\"}";
    };

    explicit RawTimestampDaemon(Options options);
    ~RawTimestampDaemon();
    RawTimestampDaemon(const RawTimestampDaemon&) = delete;
    RawTimestampDaemon& operator=(const RawTimestampDaemon&) = delete;

    std::uint16_t port() const { return port_; }
    std::uint64_t callCount() const { return calls_.load(); }
    std::uint64_t malformedRequests() const { return malformed_.load(); }

private:
    void serve();
    void converse(net::Socket connection);
    // The reply to one call, as the personality writes it.
    std::string replyTo(const std::string& method, std::int32_t sequenceId) const;
    bool send(net::Socket connection, const std::string& bytes) const;

    Options options_;
    net::Socket listener_ = net::kNoSocket;
    std::uint16_t port_ = 0;
    std::atomic<bool> stopping_{false};
    std::atomic<std::uint64_t> calls_{0};
    std::atomic<std::uint64_t> malformed_{0};
    std::thread server_;
};

}  // namespace ztsdsim
