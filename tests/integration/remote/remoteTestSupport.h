// Shared pieces of the remote-access integration tests: a started simulator
// with one device and one timescale, and a look at this process's TCP
// connections to it.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "ztsd-sim/chassisSimulator.h"

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

}  // namespace remotetest
