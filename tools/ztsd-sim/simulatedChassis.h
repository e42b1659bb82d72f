// One simulated chassis: its web service "ztsdwebs" (ChassisSimulator) and
// its timestamp daemon "zttimestampd" (TimestampDaemonSimulator), started
// and stopped together on 127.0.0.1.
//
// A timescale added here is listed by the web service under the URI callers
// name it by, "/<remoteHost>/ztsdwebs/resources/<plugin>/timescales/<gmId>",
// and served by the daemon under its local URI
// "/localhost/ztsds/timescales/<gmId>"; so a timescale proxy created from a
// listed URI with daemonHost() and daemonPort() reads the daemon's clock.
//
// Threads: as for the two simulators; start() and stop() from one thread.
#pragma once

#include <cstdint>
#include <string>

#include "ztsd-sim/chassisSimulator.h"
#include "ztsd-sim/timestampDaemonSimulator.h"

namespace ztsdsim {

class SimulatedChassis {
public:
    explicit SimulatedChassis(std::string plugin = "ztsd", SimulatorOptions webOptions = {});
    // The daemon listens on webOptions.host, port daemonPort (0 = ephemeral).
    SimulatedChassis(std::string plugin, SimulatorOptions webOptions, std::uint16_t daemonPort);
    ~SimulatedChassis();  // stops
    SimulatedChassis(const SimulatedChassis&) = delete;
    SimulatedChassis& operator=(const SimulatedChassis&) = delete;

    void start();  // the daemon first, then the web service
    void stop();   // idempotent

    ChassisSimulator& webService() { return web; }
    TimestampDaemonSimulator& timestampDaemon() { return daemon; }

    // Listed and served; returns the URI callers use. Needs a started chassis.
    std::string addTimescale(const std::string& gmId);
    // Neither listed nor served any more.
    void removeTimescale(const std::string& gmId);

    std::string daemonHost() const { return daemon.host(); }
    std::uint16_t daemonPort() const { return daemon.port(); }

private:
    ChassisSimulator web;
    TimestampDaemonSimulator daemon;
    std::string daemonListenHost = "127.0.0.1";
    std::uint16_t daemonListenPort = 0;
};

}  // namespace ztsdsim
