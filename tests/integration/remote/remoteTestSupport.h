// Shared pieces of the remote-access integration tests: a started simulator
// with one device and one timescale, the loading description of a chassis,
// a raw loopback connection, and the text an export hands over.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
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

// The networkDeviceParams document for a chassis (daemonPort < 0: none named).
inline std::string networkDeviceParams(const std::string& remoteHost, int daemonPort = -1) {
    return "{\"version\":1,\"type\":\"networkDeviceParams\",\"params\":{\"remoteHost\":\"" + remoteHost + "\"" +
           (daemonPort < 0 ? "" : ",\"timestampDaemonPort\":" + std::to_string(daemonPort)) + "}}";
}

// A TCP connection to 127.0.0.1:port; -1 when it cannot be made.
inline int connectLoopback(std::uint16_t port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return fd;
    if (fd >= 0) ::close(fd);
    return -1;
}

}  // namespace remotetest
