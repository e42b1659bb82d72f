// A stand-in for the daemon's RPC client, for tests of the session and the
// proxy without a network: each call runs the next scripted step (which may
// throw what Thrift would), then answers with the prepared reply.
#pragma once

#include <deque>
#include <functional>
#include <string>

#include <thrift/transport/TTransportException.h>

#include "timestampservice/timescaleProxyThriftClient.h"

namespace ztsdtest {

namespace tss = ztsdlib::timestampservice;
using apache::thrift::transport::TTransportException;

class ScriptedThriftClient : public ztsdlib::TimescaleProxyThriftClientInterface {
public:
    std::int32_t version = 2;
    tss::TimestampInfo timestampInfo;  // getTime's answer
    tss::TimeInfo timeInfo;            // getTimeAndCurrentTimescales's answer
    std::deque<std::function<void()>> callSteps;  // run one per call, in order
    int openFailures = 0;              // the next opens that fail as a refused connection would

    int opens = 0;                     // successful opens
    int closes = 0;                    // closes of an open transport
    int versionCalls = 0;
    int getTimeCalls = 0;
    int timeInfoCalls = 0;
    std::int32_t lastId = -1;

    ScriptedThriftClient() {
        timestampInfo.seconds = 13300000000;
        timestampInfo.nanos = 123456789;
        timestampInfo.uri = "/localhost/ztsds/timescales/GM";
        timeInfo.timestamp.seconds = 13300000001;
        timeInfo.timestamp.nanos = 987654321;
        timeInfo.timescaleUris = {"/localhost/ztsds/timescales/GM"};
    }

    int calls() const { return versionCalls + getTimeCalls + timeInfoCalls; }

    // Queues n transport failures, the k-th (from 1) with the text "<what> k".
    void failTransport(int n, TTransportException::TTransportExceptionType type = TTransportException::END_OF_FILE,
                       const std::string& what = "No more data to read.") {
        for (int k = 1; k <= n; ++k)
            callSteps.push_back([=] { throw TTransportException(type, what + " " + std::to_string(k)); });
    }

    void open() override {
        if (isOpenNow) return;
        if (openFailures > 0) {
            --openFailures;
            throw TTransportException(TTransportException::NOT_OPEN, "TSocket::open() connect() refused");
        }
        ++opens;
        isOpenNow = true;
    }
    void close() noexcept override {
        if (isOpenNow) ++closes;
        isOpenNow = false;
    }
    bool isOpen() const override { return isOpenNow; }
    std::int32_t getApiVersion() override {
        ++versionCalls;
        step();
        return version;
    }
    void getTime(tss::TimestampInfo& result, std::int32_t id) override {
        ++getTimeCalls;
        lastId = id;
        step();
        result = timestampInfo;
    }
    void getTimeAndCurrentTimescales(tss::TimeInfo& result) override {
        ++timeInfoCalls;
        step();
        result = timeInfo;
    }

private:
    void step() {
        if (!isOpenNow) throw TTransportException(TTransportException::NOT_OPEN, "Called write on non-open socket");
        if (callSteps.empty()) return;
        auto f = std::move(callSteps.front());
        callSteps.pop_front();
        f();
    }
    bool isOpenNow = false;
};

}  // namespace ztsdtest
