// The library's way to the resources of one chassis web service.
#pragma once

#include <string>

namespace zt {
namespace syncdomain {

class ResourceManagerInterface {
public:
    virtual ~ResourceManagerInterface() = default;

    // The chassis' resource listing under "resources/" followed by
    // `qualifier` ("" lists everything); returns the payload JSON text.
    virtual std::string listResources(const std::string& qualifier) = 0;

    // GET of one resource; returns the payload JSON text.
    virtual std::string getResource(const std::string& resourcePath) = 0;

    // Information about a timescale of the chassis.
    virtual std::string getTimescaleInfo(const std::string& timescaleUri) = 0;

    // PUT of a JSON document to one resource.
    virtual void putResource(const std::string& resourcePath, const std::string& json) = 0;

protected:
    ResourceManagerInterface() = default;
    ResourceManagerInterface(const ResourceManagerInterface&) = default;
    ResourceManagerInterface& operator=(const ResourceManagerInterface&) = default;
};

}  // namespace syncdomain
}  // namespace zt
