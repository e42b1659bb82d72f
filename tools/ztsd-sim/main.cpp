// ztsd-sim: serves one or more simulated chassis on loopback until SIGINT or
// SIGTERM. Each chassis is its own HTTP server (its own port, so its own
// remoteHost) with its devices and timescale entries; the program prints
// every URI it serves, then "ready", and exits 0 after a signal.
//
//   ztsd-sim --port 0 --chassis 3 --devices-per-chassis 1 --timescales 1
//
// Device d of chassis c is named "chassis<c>" for d = 0 and "chassis<c>-<d>"
// after; timescale t of chassis c has the gmId "00-80-2F-00-00-00-<c>-<t>"
// (two hexadecimal digits each). --port P with P > 0 gives chassis c the port
// P + c.
#include <CLI/CLI.hpp>

#include <pthread.h>
#include <signal.h>

#include <cstdio>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ztsd-sim/chassisSimulator.h"

namespace {

std::string hex2(unsigned value) {
    char text[3];
    std::snprintf(text, sizeof text, "%02X", value & 0xFFu);
    return text;
}

std::string deviceName(unsigned chassis, unsigned device) {
    std::string name = "chassis" + std::to_string(chassis);
    return device == 0 ? name : name + "-" + std::to_string(device);
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Simulated chassis web service for ztsdlib tests and demos"};
    std::string host = "127.0.0.1";
    unsigned port = 0;
    unsigned chassisCount = 1;
    unsigned devicesPerChassis = 1;
    unsigned timescalesPerChassis = 1;
    std::string plugin = "ztsd";
    int latency_ms = 0;
    bool incoherent = false;
    std::size_t maxWorkers = 512;
    app.add_option("--host", host, "Address to listen on")->capture_default_str();
    app.add_option("--port", port, "First port (0 = ephemeral ports)")
        ->capture_default_str()->check(CLI::Range(0, 65535));
    app.add_option("--chassis", chassisCount, "Number of chassis")->capture_default_str()->check(CLI::Range(1, 256));
    app.add_option("--devices-per-chassis", devicesPerChassis, "Syncable devices per chassis")
        ->capture_default_str()->check(CLI::Range(0, 4096));
    app.add_option("--timescales", timescalesPerChassis, "Timescale entries per chassis")
        ->capture_default_str()->check(CLI::Range(0, 256));
    app.add_option("--plugin", plugin, "Plugin segment of every resource path")->capture_default_str();
    app.add_option("--latency-ms", latency_ms, "Delay before every answer, in milliseconds")
        ->capture_default_str()->check(CLI::Range(0, 600000));
    app.add_flag("--incoherent", incoherent, "Devices start out not coherent");
    app.add_option("--max-workers", maxWorkers, "Connections served at once per chassis")->capture_default_str();
    ztsdsim::ListingForm listingForm = ztsdsim::ListingForm::withHosts;
    const std::map<std::string, ztsdsim::ListingForm> listingForms = {
        {"hosts", ztsdsim::ListingForm::withHosts},
        {"paths", ztsdsim::ListingForm::pathsOnly},
        {"mixed", ztsdsim::ListingForm::mixed}};
    app.add_option("--listing-form", listingForm,
                   "How the listing names resources: hosts (/<host>/ztsdwebs/...), paths (/ztsdwebs/..., "
                   "without the host) or mixed")
        ->transform(CLI::CheckedTransformer(listingForms, CLI::ignore_case))
        ->default_str("hosts");
    CLI11_PARSE(app, argc, argv);

    if (port != 0 && port + chassisCount - 1 > 65535) {
        std::cerr << "ztsd-sim: ports " << port << " to " << port + chassisCount - 1 << " do not all exist\n";
        return 2;
    }

    // Block the stop signals in every thread (the servers' threads inherit the
    // mask) and take them with sigwait below.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    std::vector<std::unique_ptr<ztsdsim::ChassisSimulator>> chassis;
    try {
        for (unsigned c = 0; c < chassisCount; ++c) {
            ztsdsim::SimulatorOptions options;
            options.host = host;
            options.port = static_cast<std::uint16_t>(port == 0 ? 0 : port + c);
            options.maxWorkers = maxWorkers;
            options.listingForm = listingForm;
            auto simulator = std::make_unique<ztsdsim::ChassisSimulator>(plugin, options);
            simulator->start();
            std::cout << "chassis " << c << " http://" << simulator->remoteHost() << "/\n";
            for (unsigned d = 0; d < devicesPerChassis; ++d) {
                const std::string name = deviceName(c, d);
                std::cout << "  " << simulator->addDevice(name) << "\n";
                if (incoherent) simulator->setCoherent(name, false);
            }
            for (unsigned t = 0; t < timescalesPerChassis; ++t) {
                std::cout << "  " << simulator->addTimescale("00-80-2F-00-00-00-" + hex2(c) + "-" + hex2(t)) << "\n";
            }
            if (latency_ms > 0) {
                ztsdsim::Fault slow;
                slow.latency_ms = latency_ms;
                simulator->setFault("", slow);
            }
            chassis.push_back(std::move(simulator));
        }
    } catch (const std::exception& error) {
        std::cerr << "ztsd-sim: " << error.what() << "\n";
        return 1;
    }
    std::cout << "ready" << std::endl;

    int received = 0;
    sigwait(&stopSignals, &received);
    for (auto& simulator : chassis) simulator->stop();
    std::cout << "stopped on " << (received == SIGINT ? "SIGINT" : "SIGTERM") << std::endl;
    return 0;
}
