#include "restartableChassis.h"

#include <utility>

namespace ztsdsim {

RestartableChassis::RestartableChassis(std::string plugin, SimulatorOptions webOptions, std::uint16_t daemonPort)
    : plugin(std::move(plugin)), webOptions(std::move(webOptions)), daemonListenPort(daemonPort) {}

RestartableChassis::~RestartableChassis() { down(); }

SimulatedChassis& RestartableChassis::up() {
    if (running) return *current;
    auto fresh = std::make_unique<SimulatedChassis>(plugin, webOptions, daemonListenPort);
    fresh->start();
    webOptions.port = fresh->webService().port();
    daemonListenPort = fresh->daemonPort();
    current = std::move(fresh);
    running = true;
    return *current;
}

void RestartableChassis::down() {
    if (running) current->stop();
    running = false;
}

}  // namespace ztsdsim
