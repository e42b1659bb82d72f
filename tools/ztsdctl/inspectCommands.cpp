// list, device and time: one look at a chassis, a device or a remote clock.
#include <iostream>

#include "commands.h"
#include "jsonText.h"

namespace ztsdctl {

namespace {

struct DeviceState {
    bool coherent = false;
    std::uint32_t lossCount = 0;
    std::string json;
};

// Every failure names the device (its URI).
DeviceState askDevice(ztsdlib_SyncableDevice* device, const std::string& uri) try {
    DeviceState state;
    state.coherent = call("ztsdlib_SyncableDevice_isCoherent", [&](zterr_Status* status) {
        return ztsdlib_SyncableDevice_isCoherent(device, &state.lossCount, status);
    });
    state.json = takeText(call("ztsdlib_SyncableDevice_toJson",
                               [&](zterr_Status* status) { return ztsdlib_SyncableDevice_toJson(device, status); }));
    return state;
} catch (LibraryError& error) {
    error.setContext(uri);
    throw;
}

std::string timescaleJson(ztsdlib_Timescale* timescale) {
    return takeText(
        call("ztsdlib_Timescale_toJson", [&](zterr_Status* status) { return ztsdlib_Timescale_toJson(timescale, status); }));
}

std::string lossesText(std::uint32_t count) {
    return std::to_string(count) + (count == 1 ? " coherency loss" : " coherency losses");
}

}  // namespace

int runList(const ListOptions& options, bool json) {
    const LoadedChassis chassis = loadChassis(options.chassis);
    // Every device the chassis lists; the one loading made is asked through
    // its own proxy, the others through one made here.
    struct Device {
        std::string uri;
        DeviceState state;
    };
    std::vector<Device> devices;
    for (const std::string& uri : listDeviceUris(options.chassis)) {
        if (uri == uriOf(chassis.device.get())) {
            devices.push_back({uri, askDevice(chassis.device.get(), uri)});
        } else {
            const DeviceHandle other = makeDeviceProxy(uri);
            devices.push_back({uri, askDevice(other.get(), uri)});
        }
    }
    std::vector<std::string> timescaleUris, timescaleTexts;
    for (const TimescaleHandle& timescale : chassis.timescales) {
        timescaleUris.push_back(uriOf(timescale.get()));
        timescaleTexts.push_back(timescaleJson(timescale.get()));
    }

    if (json) {
        std::vector<std::string> timescales, deviceObjects;
        for (std::size_t i = 0; i < timescaleUris.size(); ++i)
            timescales.push_back(JsonObject().addString("uri", timescaleUris[i]).addRaw("json", timescaleTexts[i]).text());
        for (const Device& device : devices) {
            deviceObjects.push_back(JsonObject()
                                        .addString("uri", device.uri)
                                        .addBool("isCoherent", device.state.coherent)
                                        .addInteger("coherencyLossCount", device.state.lossCount)
                                        .addRaw("json", device.state.json)
                                        .text());
        }
        // "device" is the one a domain over HOST uses; "devices" all of them.
        const std::string loaded = uriOf(chassis.device.get());
        std::string loadedObject = "null";
        for (std::size_t i = 0; i < devices.size(); ++i)
            if (devices[i].uri == loaded) loadedObject = deviceObjects[i];
        std::cout << JsonObject()
                         .addString("remoteHost", chassis.remoteHost)
                         .addRaw("device", loadedObject)
                         .addRaw("devices", jsonArray(deviceObjects))
                         .addRaw("timescales", jsonArray(timescales))
                         .text()
                  << "\n";
        return kExitOk;
    }
    std::cout << "chassis " << chassis.remoteHost << "\n";
    for (const Device& device : devices) {
        std::cout << "  device     " << device.uri << "\n"
                  << "             " << (device.state.coherent ? "coherent" : "NOT coherent") << ", "
                  << lossesText(device.state.lossCount) << "\n";
    }
    for (std::size_t i = 0; i < timescaleUris.size(); ++i) {
        std::cout << "  timescale  " << timescaleUris[i] << "\n"
                  << "             " << timescaleTexts[i] << "\n";
    }
    if (timescaleUris.empty()) std::cout << "  (no timescales listed)\n";
    return kExitOk;
}

int runDevice(const DeviceOptions& options, bool json) {
    const DeviceHandle device = makeDeviceProxy(options.uri);
    const DeviceState state = askDevice(device.get(), options.uri);
    if (json) {
        std::cout << JsonObject()
                         .addString("uri", options.uri)
                         .addBool("isCoherent", state.coherent)
                         .addInteger("coherencyLossCount", state.lossCount)
                         .addRaw("json", state.json)
                         .text()
                  << "\n";
    } else {
        std::cout << "device    " << options.uri << "\n"
                  << "coherent  " << (state.coherent ? "yes" : "NO") << "\n"
                  << "losses    " << state.lossCount << "\n"
                  << "json      " << state.json << "\n";
    }
    return state.coherent ? kExitOk : kExitNotCoherent;
}

int runTime(const TimeOptions& options, bool json) try {
    const TimescaleHandle host = makeHostTimescale();
    const TimescaleHandle remote = makeTimescaleProxy(options.uri, options.host, options.port);

    // The host is read just before and just after the remote clock; the
    // remote reading is set against the middle of the two.
    const ztsdlib_Timestamp before = readTime(host.get());
    const ztsdlib_Timestamp remoteTime = readTime(remote.get());
    const ztsdlib_Timestamp after = readTime(host.get());
    const Nanos bracket_ns = toNanos(after) - toNanos(before);
    const ztsdlib_Timestamp hostTime = fromNanos(toNanos(before) + bracket_ns / 2);
    const Nanos difference_ns = toNanos(remoteTime) - toNanos(hostTime);

    if (json) {
        std::cout << JsonObject()
                         .addString("uri", options.uri)
                         .addRaw("remote", timestampJson(remoteTime))
                         .addRaw("host", timestampJson(hostTime))
                         .addInteger("remoteMinusHost_ns", difference_ns)
                         .addInteger("hostReadingsApart_ns", bracket_ns)
                         .addRaw("timescale", timescaleJson(remote.get()))
                         .text()
                  << "\n";
        return kExitOk;
    }
    std::cout << "remote         " << decimalSeconds(remoteTime) << "  " << utcText(remoteTime) << "  " << options.uri
              << "\n"
              << "host           " << decimalSeconds(hostTime) << "  " << utcText(hostTime) << "  "
              << ZTSDLIB_HOST_TIMESCALE_URI << "\n"
              << "remote - host  " << durationText(difference_ns) << "  (host read before and after, "
              << durationText(bracket_ns).substr(1) << " apart)\n";
    return kExitOk;
} catch (LibraryError& error) {
    throw error.setContext(options.uri).setDaemon(hostPortText(options.host, options.port));
}

}  // namespace ztsdctl
