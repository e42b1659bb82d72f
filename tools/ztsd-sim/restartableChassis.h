// A simulated chassis that can be taken down (both servers stop, their ports
// close) and brought up again on the same ports, as a chassis that restarts.
// Each up() starts a fresh SimulatedChassis, so what it should hold
// (devices, timescales, faults, a clock) is the owner's to put on again;
// a chassis taken down stays readable (its names and URIs) until the next
// up() replaces it.
//
// Threads: up() and down() from one thread; the live chassis as its own
// class says.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "ztsd-sim/simulatedChassis.h"

namespace ztsdsim {

class RestartableChassis {
public:
    // The first up() listens on webOptions.port and daemonPort (0: ephemeral
    // ones); every later up() on the ports the first one got.
    RestartableChassis(std::string plugin, SimulatorOptions webOptions, std::uint16_t daemonPort = 0);
    ~RestartableChassis();  // down

    // Starts a fresh chassis unless one is up; throws when its ports cannot be had.
    SimulatedChassis& up();
    void down();  // idempotent
    bool isUp() const { return running; }

    // The chassis that is up, or was up last (null before the first up()).
    SimulatedChassis* chassis() { return current.get(); }
    std::uint16_t webPort() const { return webOptions.port; }
    std::uint16_t daemonPort() const { return daemonListenPort; }

private:
    std::string plugin;
    SimulatorOptions webOptions;
    std::uint16_t daemonListenPort;
    std::unique_ptr<SimulatedChassis> current;
    bool running = false;
};

}  // namespace ztsdsim
