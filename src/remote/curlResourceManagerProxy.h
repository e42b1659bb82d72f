// CurlResourceManagerProxy: the resources of one chassis web service
// "ztsdwebs", over HTTP through tCURL and sendGetRequest/sendPutRequest.
//
// Addresses. Every request goes to
//   "http://" + httpHostOf(remoteHost) + "/ztsdwebs/resources/" + <qualifier>
// (the host as given, e.g. "127.0.0.1:41234" or "[fe80::1]:80"; a bare IPv6
// literal such as "::1" in brackets).
//  - listResources(q): the qualifier is q without its leading "/" ("" gives
//    the plain ".../ztsdwebs/resources/" listing).
//  - getResource(path) / putResource(path, json): the path names one
//    resource, with or without a leading "/" and with or without the service
//    name in front: "/ztsdwebs/resources/ztsd/syncableDevices/chassis0" and
//    "resources/ztsd/syncableDevices/chassis0" are the same resource. The
//    qualifier is what follows "resources/"; a path without that segment, or
//    with nothing after it, raises -52005 "ztapalerr_invalidParameter"
//    "Unable to retrieve 'resourceQualifier' from uri." with the detail "uri".
// Joints are single "/" characters: a path never doubles one.
//
// Failures of the transport, the HTTP status and the reply envelope come
// from sendGetRequest/sendPutRequest (httpRequests.h) unchanged.
//
// The host is checked when the proxy is made (remote/hostCheck.h): a host
// that is empty, holds spaces, control characters or anything else no host
// name has, or a port outside 1..65535, raises -52005 naming "remoteHost".
//
// Connections: a request takes an idle client (an easy handle with its
// kept-alive connection) from the proxy's small set, or makes a new one when
// every client is busy, and gives it back afterwards; at most
// kMaxIdleClients are kept, so consecutive requests reuse their connection.
// The first client is made by the constructor (so a missing libcurl shows as
// -411351 when the proxy is made). Time-out per request: kDefaultTimeoutInMS
// unless set.
//
// Threads: any number of threads may call one proxy at once; each request
// has a client of its own, so a stalled request never makes another wait or
// fail. The set and the time-out are the only shared state (one mutex).
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "remote/curlClient.h"
#include "remote/resourceManagerInterface.h"

namespace zt {
namespace syncdomain {

// The media type of the sync-domain service.
constexpr const char* kSyncDomainMediaType = "vnd.zt.syncDomain.v0/json; charset=utf-8";
// The service name, the first path segment of every request.
constexpr const char* kWebServiceName = "ztsdwebs";

// The host as it goes into an HTTP address: a bare IPv6 literal (two or
// more ':' and no brackets, so it cannot carry a port) in brackets, anything
// else ("host", "host:port", "[v6]", "[v6]:port") as it is.
std::string httpHostOf(const std::string& remoteHost);

// The resources a chassis offers, by type, in the listing's order.
struct ResourceListing {
    std::vector<std::string> syncableDevices;
    std::vector<std::string> timescales;
};

// Checks and splits a listing payload:
// {"version":1,"resources":[{"uri":"...","resourceType":"syncableDevices"|"timescales"},...]}
//  - "version" absent or not 1: -52005 "Sync Domain API version in JSON
//    response from chassis missing or incorrect." (detail "remoteHost");
//  - "resources" absent: -52006 "Error parsing 'resources' key from JSON
//    response." ("resources": null is an empty list);
//  - an element without "uri": -52005 "Error parsing 'uri' key from
//    resource JSON array element." (detail "resource");
//  - an element whose "resourceType" is absent or another text: -52005
//    "ResourceType in one of the resources returned from chassis is missing
//    or invalid." (details "resourceType", "expectedType1",
//    "expectedType2", "resource").
// Wrong JSON types raise the key getters' errors (-52004); malformed text -52005.
ResourceListing parseResourceListing(const std::string& listingJson, const std::string& remoteHost);

class CurlResourceManagerProxy : public ResourceManagerInterface {
public:
    explicit CurlResourceManagerProxy(std::string remoteHost,
                                      unsigned timeoutInMS = zt::vela::shared::kDefaultTimeoutInMS,
                                      zt::vela::shared::CurlApiSource source = &zt::vela::shared::CurlApi::system);
    ~CurlResourceManagerProxy() override;

    std::string listResources(const std::string& qualifier) override;
    std::string getResource(const std::string& resourcePath) override;
    // Always raises -52002 "ztapalerr_featureUnsupported"
    // "CurlResourceManagerProxy::getTimescaleInfo is not implemented.".
    std::string getTimescaleInfo(const std::string& timescaleUri) override;
    void putResource(const std::string& resourcePath, const std::string& json) override;

    // listResources("") checked and split by parseResourceListing.
    ResourceListing fetchResourceListing();

    const std::string& remoteHost() const noexcept { return remoteHost_; }
    // "http://" + httpHostOf(remoteHost) + "/ztsdwebs"
    const std::string& servicePrefix() const noexcept { return prefix_; }
    void setTimeoutInMS(unsigned timeoutInMS) { timeoutInMS_.store(timeoutInMS); }
    unsigned getTimeoutInMS() const { return timeoutInMS_.load(); }
    // Idle clients kept for reuse.
    static constexpr std::size_t kMaxIdleClients = 4;
    std::size_t idleClientCount() const;

    // The "resources/<qualifier>" part of a resource path (see above).
    static std::string resourceUriOf(const std::string& resourcePath);

private:
    // One client for the length of one request, back to the set afterwards.
    class Lease;
    std::unique_ptr<zt::vela::shared::tCURL> makeClient() const;

    std::string remoteHost_;
    std::string prefix_;
    zt::vela::shared::CurlApiSource source_;
    std::atomic<unsigned> timeoutInMS_;
    mutable std::mutex idleMutex_;  // guards idle_
    std::vector<std::unique_ptr<zt::vela::shared::tCURL>> idle_;
};

}  // namespace syncdomain
}  // namespace zt
