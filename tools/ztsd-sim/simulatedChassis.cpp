#include "simulatedChassis.h"

#include <utility>

namespace ztsdsim {

SimulatedChassis::SimulatedChassis(std::string plugin, SimulatorOptions webOptions)
    : web(std::move(plugin), std::move(webOptions)) {}

SimulatedChassis::~SimulatedChassis() { stop(); }

void SimulatedChassis::start() {
    daemon.start();
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
