// The JSON the tool prints for scripts (--json): compact objects, one per
// line, built member by member. Strings are escaped; integers are written
// exactly from 128-bit values; texts the library produced (its toJson
// documents and error reports) are embedded as they came.
#pragma once

#include <string>
#include <vector>

#include "timeText.h"

namespace ztsdctl {

// A JSON string literal for text: quotes, backslashes and control
// characters escaped, other bytes as they are.
std::string jsonString(const std::string& text);

// "[a,b,...]" of items that are JSON texts already.
std::string jsonArray(const std::vector<std::string>& items);

class JsonObject {
public:
    JsonObject& addString(const std::string& key, const std::string& value);
    JsonObject& addBool(const std::string& key, bool value);
    JsonObject& addInteger(const std::string& key, Nanos value);
    // value must be JSON text already (a library document, a number written
    // by fixedPoint, another object); an empty text becomes null.
    JsonObject& addRaw(const std::string& key, const std::string& value);
    std::string text() const { return "{" + members_ + "}"; }

private:
    void key(const std::string& name);
    std::string members_;
};

// {"seconds":..,"nanos":..,"isNegative":..,"decimal":"..","utc":".."}
std::string timestampJson(const ztsdlib_Timestamp& t);

}  // namespace ztsdctl
