// The client-side representative of one remote syncable device.
//
// Named by a URI "/<remoteHost>/<webService>/<resource>/<plugin>/<type>/<name>"
// (one leading "/" optional), e.g.
//   /127.0.0.1:41234/ztsdwebs/resources/ztsd/syncableDevices/chassis0
// it reads and writes the device resource
//   <resourcePath> = /<webService>/<resource>/<plugin>/<type>/<name>
// on "http://" + remoteHost through its own resource manager proxy, and keeps
// the record of which sync domains have placed requirements on the device.
// A URI that does not split into those six parts, or whose host part is no
// host[:port] (remote/hostCheck.h), is refused with -52005 naming "uri" when
// the proxy is made, before any request.
//
// Threads: safe to call from any number of threads at once (several domains'
// pool tasks, tasks a failed fan-out left running, the caller's own threads).
// Requests go through the resource manager proxy, which gives each request a
// connection of its own; the record of the domains whose requirements are in
// force is guarded by one mutex, never held across a request. A placement
// in flight counts as holding the device, so a conflicting placement made
// meanwhile is refused rather than overwriting it.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_set>

#include "remote/resourceManagerInterface.h"
#include "syncdomain/syncableDeviceInterface.h"

namespace ztsdlib {

// 64-bit FNV-1a over the bytes of a string.
struct Fnv1aHash {
    std::size_t operator()(const std::string& text) const noexcept;
};

// Whether two timescale URIs name the same timescale: each is reduced to its
// last "/" segment, "-" read as ":" and letters lowered, then compared.
bool sameTimescaleUri(const std::string& a, const std::string& b);

class SyncableDeviceProxy : public SyncableDeviceInterface {
public:
    explicit SyncableDeviceProxy(std::string uri);
    // For tests: a whole-request HTTP time-out other than the default.
    SyncableDeviceProxy(std::string uri, unsigned requestTimeoutInMS);
    // For tests: another way to the resources (must not be null).
    SyncableDeviceProxy(std::string uri, std::unique_ptr<zt::syncdomain::ResourceManagerInterface> resources);
    ~SyncableDeviceProxy() override;
    SyncableDeviceProxy(const SyncableDeviceProxy&) = delete;
    SyncableDeviceProxy& operator=(const SyncableDeviceProxy&) = delete;

    // Refuses requirements that differ from those in force while another
    // domain (or this one) holds the device; otherwise PUTs the document and
    // only then records it.
    void setCoherencyRequirements(const std::string& jsonRequirements, const std::string& syncDomainUri) override;
    void clearCoherencyRequirements(const std::string& syncDomainUri) override;
    bool isCoherent(std::uint32_t* coherencyLossCount) override;
    const std::string& getUri() const override { return uri; }
    // The device's own JSON with "uri" replaced by this proxy's URI and
    // "syncDomainUris" listing the domains whose requirements are in force.
    std::string toJson() override;

    const std::string& getHostUrl() const { return hostUrl; }
    const std::string& getResourcePath() const { return resourcePath; }
    std::size_t syncDomainCount() const;

private:
    void splitUri();
    // Raises the conflict error unless the requirements agree with those in
    // force (or none are); called with requirementsMutex held.
    void checkAgreesWithRequirementsInForce(std::uint32_t newMaxOffset_ns, std::uint32_t newMinSyncDuration_ms,
                                            const std::string& newTimescaleUri, const std::string& syncDomainUri) const;
    // GETs the device resource and validates the answer strictly.
    std::string fetchValidResource(const char* invalidJsonMessage);

    std::string uri;
    std::string hostUrl;
    std::string resourcePath;
    mutable std::mutex requirementsMutex;  // guards the next five members
    std::unordered_set<std::string, Fnv1aHash> syncDomainUriSet;
    unsigned placementsInFlight = 0;
    std::uint32_t maxOffset_ns = 0;
    std::uint32_t minSyncDuration_ms = 0;
    std::string requiredTimescaleUri;
    std::unique_ptr<zt::syncdomain::ResourceManagerInterface> resources;
    std::string remoteHost;
};

}  // namespace ztsdlib
