#include "timestampservice/timescaleProxySession.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <unordered_map>
#include <utility>

#include <thrift/transport/TTransportException.h>

#include "errors/exception.h"
#include "errors/jsonWriter.h"
#include "errors/status.h"
#include "json/jsonz.h"
#include "platform/debugOutput.h"
#include "remote/uriKeyParser.h"
#include "time/timestampDecimal.h"

namespace ztsdlib {

namespace tss = timestampservice;
using apache::thrift::transport::TTransportException;
using zterr::Detail;
using zterr::Details;

namespace {

constexpr const char* kFile = "source\\ztsdlib\\timescaleProxySession";
constexpr const char* kDebugKey = "ztsyncdomain_debug";
constexpr const char* kVersionFailedMessage =
    "Encountered error getting server API version from zttimestampd on remote target.";
constexpr const char* kTimeFailedMessage = "Encountered error getting time from zttimestampd on remote target.";
constexpr const char* kRemovedMessage =
    "Timestamp received from remote target is on a different timescale than expected.";

// The members of `details`, in order, at the end of the report's top-level object.
void appendMembers(zterr_Status* status, Details details) {
    zterr_JsonCursor cursor = zterr::beginAppend(status);
    char* p = cursor.position;
    for (const Detail& d : details) {
        if (!(p = d.append(p, &cursor))) return;
    }
}

// The diagnostic object "ztsyncdomain_debug" holding `details`, in order.
void appendDebugObject(zterr_Status* status, Details details) {
    zterr_JsonCursor cursor = zterr::beginAppend(status);
    char* p = zterr::appendEmptyObject(cursor.position, kDebugKey, &cursor);
    if (!p) return;
    p -= 1;  // inside the new object
    for (const Detail& d : details) {
        if (!(p = d.append(p, &cursor))) return;
    }
}

[[noreturn]] void raiseStatus(zterr_Status& status) { throw zterr::Exception(std::move(status)); }

// "\"a\",\"b\"": the URIs quoted and separated by ",".
std::string quotedList(const std::vector<std::string>& uris) {
    std::string text;
    for (const std::string& uri : uris) {
        if (!text.empty()) text += ',';
        text += '"';
        text += uri;
        text += '"';
    }
    return text;
}

}  // namespace

ztsdlib_Timestamp timestampFromWire(std::int64_t seconds, std::int32_t nanos, std::int32_t fractionalNanos,
                                    bool isNegative) {
    ztsdlib_Timestamp t{};
    t.seconds = static_cast<std::uint64_t>(seconds);
    t.nanos = static_cast<std::uint32_t>(nanos);
    t.fractionalNanos = static_cast<std::uint32_t>(fractionalNanos);
    t.isNegative = isNegative;
    // The exact conversion owns the record's validity rules and their report.
    (void)toDecimal(t);
    return t;
}

std::string TimescaleProxySession::expectedLocalUriOf(const std::string& uri) {
    static const std::vector<std::string> keys{"remoteHost", "webService", "resource", "plugin", "trId", "gmId"};
    std::unordered_map<std::string, std::string> parts;
    ztsdtools::parseUriKeys(uri, keys, parts);
    return "/localhost/ztsds/timescales/" + parts["gmId"];
}

TimescaleProxySession::TimescaleProxySession(std::shared_ptr<TimescaleProxyThriftClientInterface> rpcClient,
                                             std::string uri, std::uint32_t attempts)
    : client(std::move(rpcClient)),
      thisTimescaleUri(std::move(uri)),
      expectedLocalUri(expectedLocalUriOf(thisTimescaleUri)),
      maxAttempts(std::max<std::uint32_t>(attempts, 1)) {
    askServerApiVersion();
    if (serverApiVersion < 1) {
        char line[256];
        std::snprintf(line, sizeof line, "[%s|%s|%d] !!ASSERT!!\n", zterr::kComponent, kFile, __LINE__);
        platform::writeDebugOutput(line);
        platform::writeDebugOutput("ASSERT(serverApiVersion > 0)\n");
        platform::stopProcess();
    }
}

TimescaleProxySession::TimescaleProxySession(ThriftClientMaker maker, std::string uri, std::uint32_t attempts)
    : TimescaleProxySession(maker(nullptr), std::move(uri), attempts) {
    makeClient = std::move(maker);
}

TimescaleProxySession::TimescaleProxySession(const TimescaleProxySession& origin,
                                             std::shared_ptr<TimescaleProxyThriftClientInterface> rpcClient)
    : client(std::move(rpcClient)),
      serverApiVersion(origin.serverApiVersion),
      thisTimescaleUri(origin.thisTimescaleUri),
      expectedLocalUri(origin.expectedLocalUri),
      maxAttempts(origin.maxAttempts),
      makeClient(origin.makeClient) {}

std::unique_ptr<TimescaleProxySessionInterface> TimescaleProxySession::makeSibling(
    std::shared_ptr<ReadInterruption> interruption) const {
    if (!makeClient) throw std::logic_error("a session over a given client makes no siblings");
    return std::unique_ptr<TimescaleProxySessionInterface>(
        new TimescaleProxySession(*this, makeClient(std::move(interruption))));
}

void TimescaleProxySession::askServerApiVersion() {
    try {
        client->open();
        serverApiVersion = client->getApiVersion();
    } catch (const std::exception& e) {
        client->close();
        raiseCommunicationsFault(kVersionFailedMessage, describeRpcFailure(e));
    }
    client->close();
}

void TimescaleProxySession::getTime(ztsdlib_Timestamp& timestamp) {
    RpcFailure lastFailure;
    for (std::uint32_t attempt = 0; attempt < maxAttempts; ++attempt) {
        try {
            if (readOnce(timestamp)) return;
        } catch (const TTransportException& e) {
            client->close();
            lastFailure = describeRpcFailure(e);
            if (e.getType() == TTransportException::INTERRUPTED) break;  // told to stop: no other attempt
        }
    }
    raiseCommunicationsFault(kTimeFailedMessage, lastFailure);
}

// One attempt. Transport exceptions pass to the caller's loop; everything
// else ends the reading here.
bool TimescaleProxySession::readOnce(ztsdlib_Timestamp& timestamp) {
    try {
        client->open();
        if (serverApiVersion == 1) {
            tss::TimestampInfo info;
            client->getTime(info, kTimestampDaemonTimescaleId);
            if (info.uri != expectedLocalUri) raiseTimescaleRemoved(nullptr);
            timestamp = timestampFromWire(info.seconds, info.nanos, info.fractionalNanos, info.isNegative);
        } else {
            tss::TimeInfo info;
            client->getTimeAndCurrentTimescales(info);
            const auto& uris = info.timescaleUris;
            if (std::find(uris.begin(), uris.end(), expectedLocalUri) == uris.end()) raiseTimescaleRemoved(&uris);
            const tss::Timestamp& t = info.timestamp;
            timestamp = timestampFromWire(t.seconds, t.nanos, t.fractionalNanos, t.isNegative);
        }
        return true;
    } catch (const zterr::ExceptionBase&) {
        throw;  // a complete answer that says no: the connection is in step
    } catch (const tss::thrift_zterr& e) {
        raiseDaemonError(e);
    } catch (const TTransportException&) {
        throw;
    } catch (const std::exception& e) {
        // The reply could not be read as sent: the stream may be out of step.
        client->close();
        raiseCommunicationsFault(kTimeFailedMessage, describeRpcFailure(e));
    }
}

void TimescaleProxySession::raiseTimescaleRemoved(const std::vector<std::string>* currentTimescaleUris) const {
    zterr_Status status = zterr::makeOwnedStatus();
    zterr::setError(&status, zterr::code::ztapalerr_resourceRemoved,
                    ZTERR_SITE(kFile, zterr::name::ztapalerr_resourceRemoved));
    appendMembers(&status, {{"expectedLocalUri", expectedLocalUri}, {"thisTimescaleUri", thisTimescaleUri}});
    appendDebugObject(&status, {{"message", kRemovedMessage}});
    if (currentTimescaleUris) appendMembers(&status, {{"currentTimescaleUris", quotedList(*currentTimescaleUris)}});
    raiseStatus(status);
}

zterr_Status TimescaleProxySession::communicationsFault(const char* message, const RpcFailure& failure) const {
    zterr_Status status = zterr::makeOwnedStatus();
    zterr::setError(&status, zterr::code::ztapalerr_communicationsFault,
                    ZTERR_SITE(kFile, zterr::name::ztapalerr_communicationsFault));
    appendMembers(&status, {{"timescaleUri", thisTimescaleUri}, {"std_exception_what", failure.what}});
    appendDebugObject(&status, {{"type_code", failure.typeCode}, {"type", failure.type}, {"message", message}});
    return status;
}

void TimescaleProxySession::raiseCommunicationsFault(const char* message, const RpcFailure& failure) const {
    zterr_Status status = communicationsFault(message, failure);
    raiseStatus(status);
}

void TimescaleProxySession::raiseDaemonError(const timestampservice::thrift_zterr& error) const {
    // The report of a failed time read ("type" "thrift_zterr", "type_code"
    // the daemon's code), with the daemon's own status nested.
    zterr_Status status = communicationsFault(kTimeFailedMessage, describeRpcFailure(error));
    const std::int32_t code = error.code;
    const std::string& json = error.json;

    // The daemon's status as the nested error: its report when that is a
    // JSON object, else an object carrying the text as a string.
    zterr_Status daemon = zterr::makeOwnedStatus();
    daemon.code = code;
    const std::size_t first = json.find_first_not_of(" \t\r\n");
    const bool isObject = json.find('\0') == std::string::npos && first != std::string::npos && json[first] == '{' &&
                          jsonz::validate(json.c_str()).error == jsonz::errorNone;
    if (isObject) {
        zterr::placeText(&daemon, json.c_str());
    } else {
        zterr::placeText(&daemon, "{}");
        appendMembers(&daemon, {{"json", json}});
    }
    zterr::attachNestedError(&status, &daemon);
    zterr::releaseStatus(&daemon);
    raiseStatus(status);
}

}  // namespace ztsdlib
