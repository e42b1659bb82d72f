// Typed getters of one key of a JSON text.
//
// Each parses the text (cJSON, through ztjsonlh::parse), looks the key up
// among the root object's members (case-insensitively, first match) and:
//  - returns false when the key is absent (also when the root is not an
//    object), output untouched;
//  - returns true with the output untouched when the value is null;
//  - otherwise checks the type, converts, writes the output, returns true.
// Malformed text raises -52005 "jsonErrorsInvalidJSON" from the parse.
// A value of the wrong type raises -52004 "errCode" with the "ztsync_debug"
// details "message" = "Error parsing: expected data type does not match the
// parsed value.", "key" and "JSON" (the whole text).
// Every path frees its document.
#pragma once

#include <boost/numeric/conversion/converter_policies.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace ztsynctools {

// The numeric-cast failures of getUInt32FromJsonString; what() is "bad cast".
class NegativeOverflow : public boost::numeric::negative_overflow {
public:
    const char* what() const noexcept override { return "bad cast"; }
};
class PositiveOverflow : public boost::numeric::positive_overflow {
public:
    const char* what() const noexcept override { return "bad cast"; }
};

// A number, range-checked for 32-bit unsigned on its double value: -1.0 or
// less throws NegativeOverflow, 4294967296.0 or more PositiveOverflow (both
// pass through unchanged); otherwise truncated toward zero (1.9 -> 1,
// -0.5 -> 0).
bool getUInt32FromJsonString(const std::string& json, const std::string& key, std::uint32_t& value);

// A string, copied whole (a text whose strings hold an escaped NUL is
// refused by the parse, so none is ever cut short).
bool getStringFromJsonString(const std::string& json, const std::string& key, std::string& value);

// A true or false. (Used for flags such as a device's "isCoherent".)
bool getBoolFromJsonString(const std::string& json, const std::string& key, bool& value);

// An object, as its compact printing.
bool getObjectFromJsonString(const std::string& json, const std::string& key, std::string& value);

// The same getters on a text parsed once, for callers that read several
// keys of one text (a device's answer, say): the same results and failures
// as the functions above, key by key, for one parse instead of one per key.
class ParsedJson {
public:
    // Parses (the same failure as the getters' parse). The text is kept by
    // reference for the type-mismatch report: it must outlive this object.
    explicit ParsedJson(const std::string& json);
    ~ParsedJson();
    ParsedJson(const ParsedJson&) = delete;
    ParsedJson& operator=(const ParsedJson&) = delete;

    bool getUInt32(const std::string& key, std::uint32_t& value) const;
    bool getString(const std::string& key, std::string& value) const;
    bool getBool(const std::string& key, bool& value) const;
    const std::string& text() const { return json_; }

private:
    const std::string& json_;
    void* root_;  // the cJSON tree, owned
};

// An array of objects, each as its compact printing, in order; an empty array
// gives an empty vector. The output is replaced only when every element is an
// object. The member not being an array is the getter's type error above; an
// element that is not an object raises -52004 "jsonErrorsNotAnObject" as the
// object check reports it (its report says which element type was found).
bool getObjectArrayFromJsonString(const std::string& json, const std::string& key,
                                  std::vector<std::string>& values);

}  // namespace ztsynctools
