#include "simulatedChassis.h"

#include <utility>

namespace ztsdsim {

SimulatedChassis::SimulatedChassis(std::string plugin, SimulatorOptions webOptions)
    : web(std::move(plugin), std::move(webOptions)) {}

SimulatedChassis::SimulatedChassis(std::string plugin, SimulatorOptions webOptions, std::uint16_t daemonPort)
    : web(std::move(plugin), webOptions), daemonListenHost(webOptions.host), daemonListenPort(daemonPort) {}

SimulatedChassis::~SimulatedChassis() { stop(); }

void SimulatedChassis::start() {
    daemon.start(daemonListenHost, daemonListenPort);
    try {
        web.start();
    } catch (...) {
        daemon.stop();
        throw;
    }
}

void SimulatedChassis::stop() {
    web.stop();
    daemon.stop();
}

std::string SimulatedChassis::addTimescale(const std::string& gmId) {
    std::string uri = web.addTimescale(gmId);
    daemon.addTimescale(gmId);
    return uri;
}

void SimulatedChassis::removeTimescale(const std::string& gmId) {
    web.removeTimescale(gmId);
    daemon.removeTimescale(gmId);
}

}  // namespace ztsdsim
