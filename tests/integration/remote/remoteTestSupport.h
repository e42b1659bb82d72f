// Shared pieces of the remote-access integration tests: a started simulator
// with one device and one timescale, the loading description of a chassis,
// a raw loopback connection, and the text an export hands over.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "ztsd-sim/chassisSimulator.h"
#include "ztsd-sim/socketControl.h"

namespace remotetest {

constexpr const char* kMediaType = "vnd.zt.syncDomain.v0/json; charset=utf-8";

class SimulatorTest : public ::testing::Test {
protected:
    void SetUp() override {
        sim.start();
        deviceUri = sim.addDevice("chassis0");
        timescaleUri = sim.addTimescale("00-80-2F-AA-BB-CC");
        devicePath = sim.deviceResourcePath("chassis0");
        host = sim.remoteHost();
        hostPrefix = "http://" + host;
        prefix = hostPrefix + "/ztsdwebs";
    }
    void TearDown() override {
        sim.clearFaults();
        sim.stop();
    }

    // The device's address relative to prefix.
    std::string deviceRelative() const { return devicePath.substr(std::string("/ztsdwebs/").size()); }

    ztsdsim::ChassisSimulator sim;
    std::string deviceUri, timescaleUri, devicePath, host, hostPrefix, prefix;
};

// A fault that answers every request with this body instead of the real one.
inline ztsdsim::Fault rawBody(std::string body, int status = 0) {
    ztsdsim::Fault f;
    f.hasRawBody = true;
    f.rawBody = std::move(body);
    f.httpStatus = status;
    return f;
}

inline ztsdsim::Fault status(int httpStatus) {
    ztsdsim::Fault f;
    f.httpStatus = httpStatus;
    return f;
}

// The networkDeviceParams document for a chassis (daemonPort < 0: none named).
inline std::string networkDeviceParams(const std::string& remoteHost, int daemonPort = -1) {
    return "{\"version\":1,\"type\":\"networkDeviceParams\",\"params\":{\"remoteHost\":\"" + remoteHost + "\"" +
           (daemonPort < 0 ? "" : ",\"timestampDaemonPort\":" + std::to_string(daemonPort)) + "}}";
}

// A TCP connection to 127.0.0.1:port; kNoSocket when it cannot be made.
inline ztsdsim::net::Socket connectLoopback(std::uint16_t port) { return ztsdsim::net::connectTo("127.0.0.1", port); }

}  // namespace remotetest
