// A correlator maps a time read on one timescale to the corresponding time
// on another. Implementations: LinearCorrelator (a running regression of
// paired readings), CachingCorrelator (a memo in front of another
// correlator) and NopCorrelator (two timescales that share one clock).
#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "core/exportedObject.h"
#include "errors/exception.h"
#include "time/timescaleInterface.h"
#include "ztsdlib/ztsdlib.h"

namespace ztsdlib {

class TimestampCorrelatorInterface : public ExportedObject {
public:
    ~TimestampCorrelatorInterface() override = default;

    // The time on the other timescale for timestampInSourceTimescale read on
    // the timescale named sourceTimescaleUri (which must be one of the two).
    // The source is identified by its URI: that is all a correlator reads of
    // it, and it is what the C interface passes.
    virtual ztsdlib_Timestamp correlate(std::string_view sourceTimescaleUri,
                                        const ztsdlib_Timestamp& timestampInSourceTimescale) = 0;
    // The correlator's own URI.
    virtual const std::string& getUri() const = 0;
    // The URIs of the first and second timescale, as those timescales store
    // them: valid while the timescales live (the caller keeps them alive as
    // long as the correlator).
    virtual const std::string& getTimescale1Uri() const = 0;
    virtual const std::string& getTimescale2Uri() const = 0;
    virtual void start() = 0;
    virtual void stop() = 0;
    virtual bool isRunning() const = 0;
    virtual std::string toJson() const = 0;
};

// The part shared by correlators that stand between two timescales: the URI,
// the two timescales (the caller's objects, only referred to), the URI
// getters and the choice of direction from the source timescale's URI.
class TimescalePairCorrelator : public TimestampCorrelatorInterface {
public:
    const std::string& getUri() const override { return uri; }
    const std::string& getTimescale1Uri() const override { return timescale1.getUri(); }
    const std::string& getTimescale2Uri() const override { return timescale2.getUri(); }

protected:
    TimescalePairCorrelator(std::string correlatorUri, TimescaleInterface& first, TimescaleInterface& second)
        : uri(std::move(correlatorUri)), timescale1(first), timescale2(second) {}

    // True when the source is the first timescale (correlate first to
    // second), false when it is the second. URIs are compared as whole
    // strings, the first timescale first. Any other source: -52005 "Source
    // timescale does not match either timescale in the correlator.",
    // reported from fileLabel.
    bool sourceIsFirst(std::string_view sourceTimescaleUri, const char* fileLabel) const {
        if (sourceTimescaleUri == timescale1.getUri()) return true;
        if (sourceTimescaleUri == timescale2.getUri()) return false;
        zterr::raise(ZTERR_SITE(fileLabel, zterr::name::ztapalerr_invalidParameter),
                     zterr::code::ztapalerr_invalidParameter, "ztsyncdomain_debug",
                     {{"message", "Source timescale does not match either timescale in the correlator."}});
    }

    // The opening pieces of toJson, written one after another without
    // escaping: { "type" : "<type>", "uri" : "<uri>", "timescaleUri1" :
    // "<uri1>", "timescaleUri2" : "<uri2>", (each followed by one space).
    std::string toJsonOpening(const char* type) const {
        std::string json;
        json += "{ ";
        json += "\"type\" : \"";
        json += type;
        json += "\", ";
        json += "\"uri\" : \"";
        json += uri;
        json += "\", ";
        json += "\"timescaleUri1\" : \"";
        json += timescale1.getUri();
        json += "\", ";
        json += "\"timescaleUri2\" : \"";
        json += timescale2.getUri();
        json += "\", ";
        return json;
    }

    const std::string uri;
    TimescaleInterface& timescale1;
    TimescaleInterface& timescale2;
};

}  // namespace ztsdlib
