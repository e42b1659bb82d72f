// The URI key parser on fuzz URIs and key lists.
//
// Input: a key count, the keys (fuzz strings, so repeats and empty keys
// happen), whether the map already holds a value, then the URI.
//
// What must hold:
//  - only zterr::Exception -52005 comes out, with a valid report;
//  - a URI that is empty, has no keys or holds two delimiters in a row (the
//    one leading "/" that is skipped does not count) is refused and inserts
//    nothing;
//  - on success there were as many parts as keys: with distinct keys and an
//    empty map, the values joined by "/" give back the URI without its
//    leading "/", and no value holds a "/"; a key already in the map keeps
//    its old value;
//  - a device proxy made for a URI that splits into its six parts has the
//    host URL "http://" + the first part and a resource path that is "/" +
//    the other five joined by "/".
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <algorithm>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "fuzzSupport.h"
#include "remote/resourceManagerInterface.h"
#include "remote/uriKeyParser.h"
#include "syncdomain/syncableDeviceProxy.h"

namespace {

using ztsdfuzz::fail;
using ztsdfuzz::require;

class NoResources : public zt::syncdomain::ResourceManagerInterface {
public:
    std::string listResources(const std::string&) override { return "{}"; }
    std::string getResource(const std::string&) override { return "{}"; }
    std::string getTimescaleInfo(const std::string&) override { return "{}"; }
    void putResource(const std::string&, const std::string&) override {}
};

std::string withoutLeadingSlash(const std::string& uri) { return !uri.empty() && uri[0] == '/' ? uri.substr(1) : uri; }

void checkProxy(const std::string& uri) {
    const std::vector<std::string> keys{"remoteHost", "webService", "resource", "plugin", "type", "name"};
    std::unordered_map<std::string, std::string> parts;
    try {
        ztsdtools::parseUriKeys(uri, keys, parts);
    } catch (const zterr::Exception&) {
        return;
    }
    std::unique_ptr<ztsdlib::SyncableDeviceProxy> made;
    try {
        made = std::make_unique<ztsdlib::SyncableDeviceProxy>(uri, std::make_unique<NoResources>());
    } catch (const zterr::Exception& e) {
        // A host that cannot stand in a URL is the caller's mistake, refused
        // before any request.
        require(e.code() == -52005, "a refused URI is an invalid parameter", e.what());
        return;
    }
    const ztsdlib::SyncableDeviceProxy& proxy = *made;
    require(proxy.getUri() == uri, "proxy URI differs from the one given");
    // A bare IPv6 literal (two or more ':' and no opening bracket) goes into
    // HTTP addresses in brackets; any other host as it is.
    const std::string& host = parts["remoteHost"];
    const bool bareIpv6 = std::count(host.begin(), host.end(), ':') >= 2 && host.front() != '[';
    require(proxy.getHostUrl() == "http://" + (bareIpv6 ? "[" + host + "]" : host), "host URL", proxy.getHostUrl());
    std::string path;
    for (std::size_t i = 1; i < keys.size(); ++i) path += "/" + parts[keys[i]];
    require(proxy.getResourcePath() == path, "resource path", proxy.getResourcePath());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider in(data, size);
    const std::size_t keyCount = in.ConsumeIntegralInRange<std::size_t>(0, 9);
    std::vector<std::string> keys;
    for (std::size_t i = 0; i < keyCount; ++i) keys.push_back(in.ConsumeRandomLengthString(8));
    const bool prefilled = in.ConsumeBool() && !keys.empty();
    const std::string uri = in.ConsumeRemainingBytesAsString();

    std::unordered_map<std::string, std::string> parts;
    if (prefilled) parts.emplace(keys[0], "kept");
    const std::unordered_map<std::string, std::string> before = parts;
    const bool distinct = std::set<std::string>(keys.begin(), keys.end()).size() == keys.size();
    const std::string rest = withoutLeadingSlash(uri);
    // Two delimiters in a row, the skipped leading "/" not counted as one.
    const bool contiguous = rest.find("//") != std::string::npos || (!rest.empty() && rest[0] == '/');

    try {
        ztsdtools::parseUriKeys(uri, keys, parts);
        require(!uri.empty() && !keys.empty(), "empty URI or key list accepted");
        require(!contiguous, "contiguous delimiters accepted", uri);
        if (prefilled) require(parts[keys[0]] == "kept", "an existing key lost its value");
        if (distinct && !prefilled) {
            std::string joined;
            for (std::size_t i = 0; i < keys.size(); ++i) {
                require(parts.count(keys[i]) == 1, "a key is missing from the result");
                require(parts[keys[i]].find('/') == std::string::npos, "a part holds a delimiter");
                joined += (i ? "/" : "") + parts[keys[i]];
            }
            require(joined == rest, "the parts do not give back the URI", joined);
        }
    } catch (const zterr::Exception& e) {
        ztsdfuzz::requireLibraryError(e, {-52005}, "parseUriKeys error");
        if (uri.empty() || keys.empty() || contiguous)
            require(parts == before, "a refused URI inserted parts");
    }
    checkProxy(uri);
    return 0;
}
