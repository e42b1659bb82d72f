#include "ztsd-sim/rawTimestampDaemon.h"
#include "ztsd-sim/socketControl.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>

namespace ztsdsim {
namespace {

// Field and element types of the binary protocol.
constexpr char kBool = 2, kI32 = 8, kI64 = 10, kString = 11, kStruct = 12, kList = 15, kStop = 0;
// Message types.
constexpr std::int32_t kCall = 1, kReply = 2;

std::string i16(std::int16_t v) {
    return {static_cast<char>((v >> 8) & 0xFF), static_cast<char>(v & 0xFF)};
}
std::string i32(std::int32_t v) {
    const auto u = static_cast<std::uint32_t>(v);
    return {static_cast<char>(u >> 24), static_cast<char>((u >> 16) & 0xFF), static_cast<char>((u >> 8) & 0xFF),
            static_cast<char>(u & 0xFF)};
}
std::string i64(std::int64_t v) {
    return i32(static_cast<std::int32_t>(static_cast<std::uint64_t>(v) >> 32)) +
           i32(static_cast<std::int32_t>(static_cast<std::uint64_t>(v) & 0xFFFFFFFFu));
}
std::string string(const std::string& text) { return i32(static_cast<std::int32_t>(text.size())) + text; }
std::string field(char type, std::int16_t id) { return std::string(1, type) + i16(id); }
// A strict message header: version 1 with the message type, name, sequence id.
std::string header(std::int32_t type, const std::string& name, std::int32_t sequenceId) {
    return i32(static_cast<std::int32_t>(0x80010000u | static_cast<std::uint32_t>(type))) + string(name) +
           i32(sequenceId);
}

// Reads exactly n bytes, waiting at most a second for each piece; false when
// the peer closed, went quiet or the daemon stops.
bool readExactly(net::Socket connection, std::string& out, std::size_t n, const std::atomic<bool>& stopping) {
    out.clear();
    int quiet_ms = 0;
    while (out.size() < n && !stopping && quiet_ms < 1000) {
        if (!net::waitReadable(connection, 50)) {
            quiet_ms += 50;
            continue;
        }
        char buffer[512];
        const std::size_t want = std::min(sizeof buffer, n - out.size());
        const long got = net::receiveSome(connection, buffer, want);
        if (got <= 0) return false;
        out.append(buffer, static_cast<std::size_t>(got));
    }
    return out.size() == n;
}

std::int32_t toI32(const std::string& b) {
    return static_cast<std::int32_t>((static_cast<std::uint32_t>(static_cast<unsigned char>(b[0])) << 24) |
                                     (static_cast<std::uint32_t>(static_cast<unsigned char>(b[1])) << 16) |
                                     (static_cast<std::uint32_t>(static_cast<unsigned char>(b[2])) << 8) |
                                     static_cast<std::uint32_t>(static_cast<unsigned char>(b[3])));
}

}  // namespace

RawTimestampDaemon::RawTimestampDaemon(Options options) : options_(std::move(options)) {
    listener_ = net::listenOnLoopback(port_, 16, "ztsd-sim: the raw timestamp daemon");
    server_ = std::thread([this] { serve(); });
}

RawTimestampDaemon::~RawTimestampDaemon() {
    stopping_ = true;
    server_.join();
    net::closeSocket(listener_);
}

void RawTimestampDaemon::serve() {
    while (!stopping_) {
        if (!net::waitReadable(listener_, 50)) continue;
        const net::Socket connection = net::acceptOne(listener_);
        if (connection == net::kNoSocket) continue;
        converse(connection);
        net::closeSocket(connection);
    }
}

// Reads calls (a strict header and an argument struct of i32 fields at most)
// and answers each, until the peer closes or sends what no client sends.
void RawTimestampDaemon::converse(net::Socket connection) {
    std::string bytes;
    while (!stopping_) {
        if (!readExactly(connection, bytes, 4, stopping_)) return;
        const std::int32_t versionAndType = toI32(bytes);
        if (static_cast<std::uint32_t>(versionAndType) != (0x80010000u | kCall)) return;
        if (!readExactly(connection, bytes, 4, stopping_)) return;
        const std::int32_t nameLength = toI32(bytes);
        if (nameLength < 0 || nameLength > 64 || !readExactly(connection, bytes, nameLength, stopping_)) return;
        const std::string method = bytes;
        if (!readExactly(connection, bytes, 4, stopping_)) return;
        const std::int32_t sequenceId = toI32(bytes);
        // The argument struct as the definition has it: getTime(1: i32 id),
        // the other methods none.
        const std::size_t argumentBytes = method == "getTime" ? 1 + 2 + 4 + 1 : 1;
        if (!readExactly(connection, bytes, argumentBytes, stopping_)) return;
        const std::string expected = method == "getTime" ? field(kI32, 1) + bytes.substr(3, 4) + kStop
                                                         : std::string(1, kStop);
        const bool known = method == "getTime" || method == "getApiVersion" || method == "getTimeAndCurrentTimescales";
        if (!known || sequenceId != 0 || bytes != expected) {
            ++malformed_;
            return;
        }
        ++calls_;
        if (!send(connection, replyTo(method, sequenceId))) return;
    }
}

std::string RawTimestampDaemon::replyTo(const std::string& method, std::int32_t sequenceId) const {
    using P = Personality;
    const P personality = options_.personality;
    if (method == "getApiVersion")
        return header(kReply, method, sequenceId) + field(kI32, 0) + i32(options_.apiVersion) + kStop;

    if (personality == P::httpServer) return "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n";
    const std::string uri = "/localhost/ztsds/timescales/" + options_.gmId;
    const std::string timestampFields = field(kI64, 1) + i64(options_.seconds) + field(kI32, 2) + i32(options_.nanos) +
                                        field(kI32, 3) + i32(0) + field(kBool, 4) + '\0';
    if (personality == P::daemonError) {
        // result { 1: thrift_zterr { 1: i32 code, 2: string json } }
        return header(kReply, method, sequenceId) + field(kStruct, 1) + field(kI32, 1) + i32(options_.errorCode) +
               field(kString, 2) + string(options_.errorJson) + kStop + kStop;
    }
    if (method == "getTime") {
        std::string name = method;
        std::int32_t type = kReply, sequence = sequenceId;
        if (personality == P::wrongMethodName) name = "getTimeX";
        if (personality == P::invalidMessageType) type = kCall;
        if (personality == P::wrongSequenceId) sequence = 7;
        // result { 0: TimestampInfo { 1 seconds, 2 nanos, 3 fractionalNanos, 4 isNegative, 5 uri } }
        const std::string uriField = personality == P::hugeString
                                         ? field(kString, 5) + i32(0x7fffffff) + "/localhost"
                                         : field(kString, 5) + string(uri) + kStop;
        return header(type, name, sequence) + field(kStruct, 0) + timestampFields + uriField + kStop;
    }
    if (method == "getTimeAndCurrentTimescales") {
        // result { 0: TimeInfo { 1: Timestamp {1..4}, 2: list<string> timescaleUris } }
        const std::string list = personality == P::hugeList
                                     ? field(kList, 2) + kString + i32(26000000) + string(uri) + string(uri)
                                     : field(kList, 2) + kString + i32(1) + string(uri) + kStop;
        return header(kReply, method, sequenceId) + field(kStruct, 0) + field(kStruct, 1) + timestampFields + kStop +
               list + kStop;
    }
    return std::string();  // an unknown method: no answer
}

bool RawTimestampDaemon::send(net::Socket connection, const std::string& bytes) const {
    const bool drip = options_.personality == Personality::drip;
    for (std::size_t at = 0; at < bytes.size() && !stopping_;) {
        const std::size_t n = drip ? 1 : bytes.size() - at;
        const long sent = net::sendSome(connection, bytes.data() + at, n);
        if (sent <= 0) return false;
        at += static_cast<std::size_t>(sent);
        if (drip) std::this_thread::sleep_for(std::chrono::milliseconds(options_.dripInterval_ms));
    }
    return !stopping_;
}

}  // namespace ztsdsim
