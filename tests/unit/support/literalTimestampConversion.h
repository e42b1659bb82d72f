// The reference for the timestamp conversions: the slow, literal way through
// decimal text (a string stream and a lexical cast one way, fixed notation
// with 15 fraction digits and stoull/stoul the other). The library's fast
// conversions must give exactly what these give, value, fields and failure
// alike. Shared by the conversion tests and the round-trip benchmark; not
// part of the library.
#pragma once

#include <boost/lexical_cast.hpp>
#include <iomanip>
#include <sstream>
#include <stdexcept>
#include <string>

#include "time/timestampDecimal.h"

namespace ztsdtest {

// A failure the library reports as its own coded exception, by message.
struct LiteralConversionFailure {
    std::string message;
};

// std::stoull/std::stoul with the messages of the conversions' contract (the
// standard library here words them differently; kind and cause are the same).
template <typename Convert>
auto withContractMessages(const std::string& name, Convert&& convert) {
    try {
        return convert();
    } catch (const std::out_of_range&) {
        throw std::out_of_range(name + " argument out of range");
    } catch (const std::invalid_argument&) {
        throw std::invalid_argument("invalid " + name + " argument");
    }
}

inline unsigned long long literalStoull(const std::string& text) {
    return withContractMessages("stoull", [&] { return std::stoull(text, nullptr, 10); });
}

inline unsigned long literalStoul(const std::string& text) {
    return withContractMessages("stoul", [&] { return std::stoul(text, nullptr, 10); });
}

inline ztsdlib::TimestampDecimal literalToDecimal(const ztsdlib_Timestamp& t) {
    if (t.nanos >= 1000000000u) throw LiteralConversionFailure{"Nano seconds field greater than 1e+9"};
    std::string sign = "+";
    if (t.isNegative) sign = "-";
    std::stringstream ss;
    ss << sign << static_cast<unsigned long long>(t.seconds) << "." << std::right << std::setw(9)
       << std::setfill('0') << t.nanos;
    return boost::lexical_cast<ztsdlib::TimestampDecimal>(ss.str());
}

inline ztsdlib_Timestamp literalToTimestamp(const ztsdlib::TimestampDecimal& value) {
    if (boost::multiprecision::isnan(value)) throw LiteralConversionFailure{"The input timestamp is NaN"};
    static const ztsdlib::TimestampDecimal limit =
        boost::lexical_cast<ztsdlib::TimestampDecimal>("18446744073709551615") + 1;
    if (!boost::multiprecision::isnan(limit) && !(value < limit))
        throw LiteralConversionFailure{"Exceeded the max ztsdlib_Timestamp value"};

    std::stringstream ss;
    ss << std::fixed << std::setprecision(15) << value;
    std::string text = ss.str();

    ztsdlib_Timestamp result{};
    if (value < 0) {
        result.isNegative = true;
        text.erase(0, 1);
    }
    const std::size_t dot = text.find('.');
    if (dot != std::string::npos) {
        result.seconds = literalStoull(text.substr(0, dot));
        result.nanos = static_cast<std::uint32_t>(literalStoul(text.substr(dot + 1, 9)));
    } else {
        result.seconds = literalStoull(text);
    }
    return result;
}

}  // namespace ztsdtest
