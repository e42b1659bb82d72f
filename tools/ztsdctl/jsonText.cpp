#include "jsonText.h"

#include <cstdio>

namespace ztsdctl {

std::string jsonString(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            case '\b': out += "\\b"; break;
            case '\f': out += "\\f"; break;
            default:
                if (static_cast<unsigned char>(c) < 0x20) {
                    char escaped[8];
                    std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
                    out += escaped;
                } else {
                    out += c;
                }
        }
    }
    return out + "\"";
}

std::string jsonArray(const std::vector<std::string>& items) {
    std::string out = "[";
    for (std::size_t i = 0; i < items.size(); ++i) {
        if (i != 0) out += ",";
        out += items[i];
    }
    return out + "]";
}

void JsonObject::key(const std::string& name) {
    if (!members_.empty()) members_ += ",";
    members_ += jsonString(name) + ":";
}

JsonObject& JsonObject::addString(const std::string& name, const std::string& value) {
    key(name);
    members_ += jsonString(value);
    return *this;
}

JsonObject& JsonObject::addBool(const std::string& name, bool value) {
    key(name);
    members_ += value ? "true" : "false";
    return *this;
}

JsonObject& JsonObject::addInteger(const std::string& name, Nanos value) {
    key(name);
    members_ += integerText(value);
    return *this;
}

JsonObject& JsonObject::addRaw(const std::string& name, const std::string& value) {
    key(name);
    members_ += value.empty() ? "null" : value;
    return *this;
}

std::string timestampJson(const ztsdlib_Timestamp& t) {
    JsonObject object;
    object.addInteger("seconds", t.seconds)
        .addInteger("nanos", t.nanos)
        .addBool("isNegative", t.isNegative)
        .addString("decimal", decimalSeconds(t));
    const std::string utc = utcText(t);
    if (!utc.empty()) object.addString("utc", utc);
    return object.text();
}

}  // namespace ztsdctl
