// One conversation with one timestamp daemon about one timescale.
//
// Creation asks the daemon for its API version (one attempt; a failure is
// -52024 "ztapalerr_communicationsFault"), and a daemon that answers with a
// version below 1 stops the process: that is a broken invariant the library
// does not recover from. The handshake's connection is then closed, so a
// timescale that is never read holds no connection at the daemon (a chassis
// listing may create proxies for many timescales).
//
// Reading the time makes up to maxAttempts attempts (5 by default). An
// attempt opens the transport when it is closed, then makes one call:
// getTime (API version 1) or getTimeAndCurrentTimescales (version 2 and up).
// The connection stays open after a successful reading, so the next reading
// costs one round trip; it is closed after any failure that may have left it
// out of step, and the next attempt or reading opens a fresh one. Only
// transport failures (refused or dropped connections, time-outs) are worth
// another attempt; once the attempts are spent the last one is reported as
// -52024. A reply the daemon sent but the client could not use (protocol or
// application exception) is -52024 at once, and so is an interrupted reading
// (TTransportException INTERRUPTED: its reader was told to stop).
//
// Siblings: makeSibling gives another session with the same daemon about
// the same timescale, over a connection of its own, that takes the version
// this one asked instead of asking again (it opens its connection at its
// first reading). Only a session made over a client maker can make them.
//
// The expected local URI: the daemon knows a timescale by a URI of its own.
// A timescale URI as callers name it,
//   /<remoteHost>/<webService>/<resource>/<plugin>/<trId>/<gmId>
//   e.g. /127.0.0.1:41234/ztsdwebs/resources/ztsd/timescales/00-80-2F-AA-BB-CC-DD-EE,
// is split into those six keys and the daemon's URI is
//   /localhost/ztsds/timescales/<gmId>
// (the form of the host's own "/localhost/ztsds/timescales/system"). A URI
// that does not split into exactly six parts is refused by the URI key
// parser (-52005) before the daemon is contacted.
//
// Timestamps from the wire: seconds (i64) carry the bit pattern of the
// record's unsigned count, nanos and fractionalNanos (i32) likewise; the
// record is checked by the exact decimal conversion (nanos below 1e9, else
// -52005 "Nano seconds field greater than 1e+9") and handed to the caller
// with its fractionalNanos as it came.
//
// Threads: a session is not safe for concurrent use; TimescaleProxy
// serialises the calls.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "timestampservice/timescaleProxyThriftClient.h"
#include "ztsdlib/ztsdlib.h"

namespace ztsdlib {

// Default number of attempts of one reading.
constexpr std::uint32_t kTimestampDaemonAttempts = 5;
// The id passed to getTime of a version 1 daemon: its (only) timescale.
constexpr std::int32_t kTimestampDaemonTimescaleId = 0;

class TimescaleProxySessionInterface {
public:
    virtual ~TimescaleProxySessionInterface() = default;
    // Fills timestamp with the remote timescale's time; throws zterr::Exception.
    virtual void getTime(ztsdlib_Timestamp& timestamp) = 0;
    virtual std::int32_t getServerApiVersion() const = 0;
    virtual const std::string& getThisTimescaleUri() const = 0;
    virtual const std::string& getExpectedLocalUri() const = 0;
    // A session of its own for another reader (see above); interruption,
    // when given, ends its connection's waits. Safe beside a reading of
    // this session (reads only what creation fixed).
    virtual std::unique_ptr<TimescaleProxySessionInterface> makeSibling(
        std::shared_ptr<ReadInterruption> interruption = nullptr) const = 0;
};

// Makes a client with a fresh connection to one daemon, interruptible
// when an interruption is given.
using ThriftClientMaker = std::function<std::shared_ptr<TimescaleProxyThriftClientInterface>(
    std::shared_ptr<ReadInterruption> interruption)>;

class TimescaleProxySession : public TimescaleProxySessionInterface {
public:
    // Derives the expected local URI, then makes the version handshake.
    // maxAttempts below 1 counts as 1.
    TimescaleProxySession(std::shared_ptr<TimescaleProxyThriftClientInterface> client, std::string thisTimescaleUri,
                          std::uint32_t maxAttempts = kTimestampDaemonAttempts);
    // The same over a client made by makeClient, which also makes the
    // siblings' clients.
    TimescaleProxySession(ThriftClientMaker makeClient, std::string thisTimescaleUri,
                          std::uint32_t maxAttempts = kTimestampDaemonAttempts);
    ~TimescaleProxySession() override = default;

    void getTime(ztsdlib_Timestamp& timestamp) override;
    std::int32_t getServerApiVersion() const override { return serverApiVersion; }
    const std::string& getThisTimescaleUri() const override { return thisTimescaleUri; }
    const std::string& getExpectedLocalUri() const override { return expectedLocalUri; }
    // Throws std::logic_error for a session made over a given client.
    std::unique_ptr<TimescaleProxySessionInterface> makeSibling(
        std::shared_ptr<ReadInterruption> interruption = nullptr) const override;

    // "/localhost/ztsds/timescales/<gmId>" for a caller's timescale URI.
    static std::string expectedLocalUriOf(const std::string& thisTimescaleUri);

private:
    // A sibling of origin over client: no handshake.
    TimescaleProxySession(const TimescaleProxySession& origin,
                          std::shared_ptr<TimescaleProxyThriftClientInterface> client);
    void askServerApiVersion();
    bool readOnce(ztsdlib_Timestamp& timestamp);
    [[noreturn]] void raiseTimescaleRemoved(const std::vector<std::string>* currentTimescaleUris) const;
    [[noreturn]] void raiseCommunicationsFault(const char* message, const RpcFailure& failure) const;
    // The -52024 report of a failed RPC: "timescaleUri", "std_exception_what"
    // and the debug object with "type_code", "type" and message.
    zterr_Status communicationsFault(const char* message, const RpcFailure& failure) const;
    [[noreturn]] void raiseDaemonError(const timestampservice::thrift_zterr& error) const;

    std::shared_ptr<TimescaleProxyThriftClientInterface> client;
    std::int32_t serverApiVersion = -1;
    std::string thisTimescaleUri;
    std::string expectedLocalUri;
    std::uint32_t maxAttempts;
    ThriftClientMaker makeClient;  // empty for a session over a given client
};

// The caller's record for a timestamp from the wire, checked as described
// above. Throws zterr::Exception (-52005) for nanos of 1e9 or more.
ztsdlib_Timestamp timestampFromWire(std::int64_t seconds, std::int32_t nanos, std::int32_t fractionalNanos,
                                    bool isNegative);

}  // namespace ztsdlib
