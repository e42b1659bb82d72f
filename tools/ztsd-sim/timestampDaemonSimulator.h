// A simulated timestamp daemon "zttimestampd": a real Thrift server (binary
// protocol, buffered transport, one thread per connection) on a loopback
// address that serves the timestamp service of one simulated target. Tests
// start it in-process on an ephemeral port, beside a ChassisSimulator (see
// SimulatedChassis).
//
// The target has one clock, the host's wall clock (the same 1601-based clock
// the library's host timescale reads) run at a configurable offset and rate:
//   remote_ns = host_ns + offset_ns + floor((host_ns - reference_ns) * rate_ppb / 1e9)
// where reference_ns is the host time at the last setClock() (or at
// construction). timeAt() gives that true mapping for any host time, so
// tests can check what a correlator recovers.
//
// Served timescales: the target is on a list of timescales, each known by
// its local URI "/localhost/ztsds/timescales/<gmId>" (localTimescaleUri()).
// API version 1 answers getTime(id) with the clock's time and the URI of
// entry id of the list (the library asks for id 0); an id outside the list
// is a thrift_zterr with -52006 "ztapalerr_resourceNotFound". Version 2 and
// above also answer getTimeAndCurrentTimescales with the time and the whole
// list. getApiVersion answers the version set (any value, including ones
// below 1 that no client accepts).
//
// Controls (each takes effect on the next connection or call):
//   setReportedUri      getTime answers with this URI instead of the list's
//   refuseConnections   the next n connections are accepted and reset at once
//                       (SO_LINGER 0): the client's first read fails, as it
//                       would against a daemon that is not there
//   dropCalls           the next n calls are read, then their connection is
//                       shut down without an answer (a close mid-call)
//   stallCalls          the next n calls are held, unanswered, until
//                       releaseStalls() or stop(), or for hold_ms when it is
//                       given (a late daemon) and then answered
//   failCalls           the next n time calls (getTime,
//                       getTimeAndCurrentTimescales) throw thrift_zterr with
//                       the given code and JSON text
//   dropConnections     shuts down every open connection now
// A call meets the faults in the order stall, drop, fail.
// setReplyDelay holds every time reply (getTime, getTimeAndCurrentTimescales)
// back by a fixed delay plus a random jitter (uniform, fixed seed) after the
// clock is read: the return path is slower than the outward one, as on a
// congested link, which a reader that pairs its own clock with the start of
// the round trip mistakes for offset. It is a setting, not a fault:
// clearFaults() leaves it.
// setDriftingDelay makes both legs of a time call wander over seconds, as on
// a path shared with other traffic: the call is held before the clock is
// read (the outward leg) and its reply after (the return leg), each by a
// delay between 0 and its amplitude that follows its own smooth curve (three
// sines of 1.7 s, 3.1 s and 7.3 s, no common period within minutes). Equal
// amplitudes leave the legs alike on average, the asymmetry wandering both
// ways; one amplitude 0 makes the path lopsided. A setting too, kept by
// clearFaults().
//
// Personality (setPersonality): how the time calls are answered, to play
// daemons, and things that are not daemons, met in the field. The version
// handshake is always answered faithfully, so a proxy can be made first.
//   faithful            the replies above
//   wrongMethodName     the reply names another method (first letter's case
//                       flipped: "GetTime")
//   invalidMessageType  the reply is sent as a message of type call (1)
//   wrongSequenceId     the reply carries sequence id 7, not the request's
//   hugeLengths         the reply announces a URI of 0x7fffffff bytes (in
//                       getTimeAndCurrentTimescales a list of 26,000,000
//                       URIs) and sends nothing more
//   httpServer          "HTTP/1.1 400 Bad Request" (a web server on the port)
//   byteAtATime         the faithful reply, one byte every dripInterval_ms
// A dripping call ends promptly at stop().
//
// Threads: every control and counter may be used from any thread; the state
// sits under one mutex and held calls wait on a condition variable that
// releaseStalls() and stop() signal. stop() returns promptly even with
// stalled calls and connected clients.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ztsdlib/ztsdlib.h"

namespace ztsdsim {

class DaemonState;  // everything the server threads share

enum class DaemonPersonality {
    faithful, wrongMethodName, invalidMessageType, wrongSequenceId, hugeLengths, httpServer, byteAtATime
};

// The personalities by their names on ztsd-sim's command line
// ("faithful", "wrong-method-name", ..., "byte-at-a-time").
const std::vector<std::pair<std::string, DaemonPersonality>>& daemonPersonalityNames();

class TimestampDaemonSimulator {
public:
    TimestampDaemonSimulator();
    ~TimestampDaemonSimulator();  // stops
    TimestampDaemonSimulator(const TimestampDaemonSimulator&) = delete;
    TimestampDaemonSimulator& operator=(const TimestampDaemonSimulator&) = delete;

    // Listens on 127.0.0.1, an ephemeral port; returns once connections are
    // accepted. Throws std::runtime_error when the server cannot listen,
    // std::logic_error when called a second time.
    void start();
    // The same on a given address and port (0 = ephemeral); a port another
    // socket listens on already is refused (std::runtime_error).
    void start(const std::string& host, std::uint16_t port);
    void stop();  // idempotent
    bool isRunning() const;
    std::uint16_t port() const;  // 0 before start()
    std::string host() const;  // "127.0.0.1" unless started on another address

    // "/localhost/ztsds/timescales/<gmId>"
    static std::string localTimescaleUri(const std::string& gmId);

    // Adds the timescale at the end of the list (no change when listed
    // already); returns its local URI.
    std::string addTimescale(const std::string& gmId);
    void removeTimescale(const std::string& gmId);
    std::vector<std::string> timescaleUris() const;  // local URIs, in order

    void setApiVersion(std::int32_t version);  // 2 unless set
    std::int32_t apiVersion() const;

    // Offset in nanoseconds and rate deviation in parts per billion (50 ppm
    // = 50000); the reference instant becomes the host's present time.
    void setClock(std::int64_t offset_ns, std::int64_t rate_ppb);
    // The target's time at a given host time (the true mapping).
    ztsdlib_Timestamp timeAt(const ztsdlib_Timestamp& hostTime) const;
    // The target's time now.
    ztsdlib_Timestamp now() const;

    // Both in microseconds; 0, 0 (the default) answers at once.
    void setReplyDelay(std::uint32_t delay_us, std::uint32_t jitter_us);
    // Amplitudes of the wandering outward and return delays, in
    // microseconds; 0, 0 (the default) holds nothing.
    void setDriftingDelay(std::uint32_t outward_us, std::uint32_t return_us);
    void setReportedUri(std::optional<std::string> uri);  // nullopt: the list's URI
    void refuseConnections(std::uint32_t count);
    void dropCalls(std::uint32_t count);
    void stallCalls(std::uint32_t count, std::uint32_t hold_ms = 0);
    void releaseStalls();
    void failCalls(std::uint32_t count, std::int32_t code, std::string json);
    void dropConnections();
    void setPersonality(DaemonPersonality personality, std::uint32_t dripInterval_ms = 1000);
    // Clears every pending refusal, drop, stall and failure, the reported
    // URI and the personality, and releases held calls.
    void clearFaults();

    std::uint64_t connectionCount() const;  // connections accepted, refused ones included
    std::uint64_t refusedCount() const;     // connections reset at once
    std::uint64_t callCount() const;        // calls received, every method
    std::size_t openConnectionCount() const;
    std::size_t stalledCallCount() const;   // calls held right now

private:
    std::unique_ptr<DaemonState> state;
};

}  // namespace ztsdsim
