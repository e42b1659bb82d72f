#include <chrono>
#include <cstdio>
#include <ctime>
#include "timeText.h"

#include <cctype>
#include <cstdio>
#include <cstdint>

namespace ztsdctl {

namespace {

constexpr std::int64_t kSecondsPerDay = 86400;
// Days from 1601-01-01 to 1970-01-01.
constexpr std::int64_t kDays1601To1970 = 134774;

// Days since 1970-01-01 of a proleptic Gregorian date, and back (the
// era-based algorithms, exact for every date the tool meets).
std::int64_t daysFromCivil(std::int64_t year, unsigned month, unsigned day) {
    year -= month <= 2 ? 1 : 0;
    const std::int64_t era = (year >= 0 ? year : year - 399) / 400;
    const unsigned yearOfEra = static_cast<unsigned>(year - era * 400);
    const unsigned dayOfYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
    const unsigned dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * 146097 + static_cast<std::int64_t>(dayOfEra) - 719468;
}

void civilFromDays(std::int64_t days, std::int64_t& year, unsigned& month, unsigned& day) {
    days += 719468;
    const std::int64_t era = (days >= 0 ? days : days - 146096) / 146097;
    const unsigned dayOfEra = static_cast<unsigned>(days - era * 146097);
    const unsigned yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const unsigned monthIndex = (5 * dayOfYear + 2) / 153;
    day = dayOfYear - (153 * monthIndex + 2) / 5 + 1;
    month = monthIndex < 10 ? monthIndex + 3 : monthIndex - 9;
    year = static_cast<std::int64_t>(yearOfEra) + era * 400 + (month <= 2 ? 1 : 0);
}

bool isLeap(std::int64_t year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

unsigned daysInMonth(std::int64_t year, unsigned month) {
    static const unsigned days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && isLeap(year) ? 29 : days[month - 1];
}

// Reads exactly `count` digits at text[pos]; advances pos.
bool readDigits(const std::string& text, std::size_t& pos, std::size_t count, std::int64_t& value) {
    value = 0;
    for (std::size_t i = 0; i < count; ++i, ++pos) {
        if (pos >= text.size() || !std::isdigit(static_cast<unsigned char>(text[pos]))) return false;
        value = value * 10 + (text[pos] - '0');
    }
    return true;
}

// Reads ".ddddddddd" (one to nine digits) if present, as nanoseconds.
bool readFraction(const std::string& text, std::size_t& pos, std::int64_t& nanos) {
    nanos = 0;
    if (pos >= text.size() || text[pos] != '.') return true;
    ++pos;
    int digits = 0;
    while (pos < text.size() && std::isdigit(static_cast<unsigned char>(text[pos]))) {
        if (++digits > 9) return false;
        nanos = nanos * 10 + (text[pos] - '0');
        ++pos;
    }
    if (digits == 0) return false;
    for (int i = digits; i < 9; ++i) nanos *= 10;
    return true;
}

std::optional<ztsdlib_Timestamp> parseDecimalSeconds(const std::string& text) {
    std::size_t pos = 0;
    const bool negative = !text.empty() && text[0] == '-';
    if (negative || (!text.empty() && text[0] == '+')) ++pos;
    const std::size_t firstDigit = pos;
    Nanos seconds = 0;
    while (pos < text.size() && std::isdigit(static_cast<unsigned char>(text[pos]))) {
        seconds = seconds * 10 + (text[pos] - '0');
        if (seconds > static_cast<Nanos>(UINT64_MAX)) return std::nullopt;
        ++pos;
    }
    if (pos == firstDigit) return std::nullopt;
    std::int64_t nanos = 0;
    if (!readFraction(text, pos, nanos) || pos != text.size()) return std::nullopt;
    ztsdlib_Timestamp t{};
    t.seconds = static_cast<std::uint64_t>(seconds);
    t.nanos = static_cast<std::uint32_t>(nanos);
    t.isNegative = negative && (t.seconds != 0 || t.nanos != 0);
    return t;
}

std::optional<ztsdlib_Timestamp> parseUtc(const std::string& text) {
    std::size_t pos = 0;
    std::int64_t year, month, day, hour, minute, second, nanos;
    if (!readDigits(text, pos, 4, year) || pos >= text.size() || text[pos++] != '-') return std::nullopt;
    if (!readDigits(text, pos, 2, month) || pos >= text.size() || text[pos++] != '-') return std::nullopt;
    if (!readDigits(text, pos, 2, day) || pos >= text.size() || (text[pos] != 'T' && text[pos] != ' '))
        return std::nullopt;
    ++pos;
    if (!readDigits(text, pos, 2, hour) || pos >= text.size() || text[pos++] != ':') return std::nullopt;
    if (!readDigits(text, pos, 2, minute) || pos >= text.size() || text[pos++] != ':') return std::nullopt;
    if (!readDigits(text, pos, 2, second) || !readFraction(text, pos, nanos)) return std::nullopt;
    if (pos < text.size() && text[pos] == 'Z') ++pos;
    if (pos != text.size()) return std::nullopt;
    if (year < 1601 || month < 1 || month > 12 || day < 1 ||
        day > static_cast<std::int64_t>(daysInMonth(year, static_cast<unsigned>(month))) || hour > 23 ||
        minute > 59 || second > 59)
        return std::nullopt;
    const std::int64_t days =
        daysFromCivil(year, static_cast<unsigned>(month), static_cast<unsigned>(day)) + kDays1601To1970;
    ztsdlib_Timestamp t{};
    t.seconds = static_cast<std::uint64_t>(days * kSecondsPerDay + hour * 3600 + minute * 60 + second);
    t.nanos = static_cast<std::uint32_t>(nanos);
    return t;
}

}  // namespace

Nanos toNanos(const ztsdlib_Timestamp& t) {
    const Nanos magnitude = static_cast<Nanos>(t.seconds) * kNanosPerSecond + t.nanos;
    return t.isNegative ? -magnitude : magnitude;
}

ztsdlib_Timestamp fromNanos(Nanos ns) {
    ztsdlib_Timestamp t{};
    t.isNegative = ns < 0;
    const Nanos magnitude = ns < 0 ? -ns : ns;
    t.seconds = static_cast<std::uint64_t>(magnitude / kNanosPerSecond);
    t.nanos = static_cast<std::uint32_t>(magnitude % kNanosPerSecond);
    return t;
}

std::string integerText(Nanos value) {
    if (value == 0) return "0";
    const bool negative = value < 0;
    unsigned __int128 magnitude = negative ? static_cast<unsigned __int128>(-(value + 1)) + 1
                                           : static_cast<unsigned __int128>(value);
    std::string digits;
    while (magnitude != 0) {
        digits.insert(digits.begin(), static_cast<char>('0' + static_cast<int>(magnitude % 10)));
        magnitude /= 10;
    }
    return negative ? "-" + digits : digits;
}

std::string fixedPoint(Nanos value, int decimals, bool signed_) {
    Nanos scale = 1;
    for (int i = 0; i < decimals; ++i) scale *= 10;
    const bool negative = value < 0;
    const Nanos magnitude = negative ? -value : value;
    std::string text = integerText(magnitude / scale);
    if (decimals > 0) {
        std::string fraction = integerText(magnitude % scale);
        text += "." + std::string(static_cast<std::size_t>(decimals) - fraction.size(), '0') + fraction;
    }
    if (negative) return "-" + text;
    return signed_ ? "+" + text : text;
}

std::string decimalSeconds(const ztsdlib_Timestamp& t) {
    char fraction[16];
    std::snprintf(fraction, sizeof fraction, ".%09u", static_cast<unsigned>(t.nanos));
    return std::string(t.isNegative ? "-" : "") + std::to_string(t.seconds) + fraction;
}

std::string utcText(const ztsdlib_Timestamp& t) {
    if (t.isNegative) return "";
    const std::int64_t days1601 = static_cast<std::int64_t>(t.seconds / kSecondsPerDay);
    const std::int64_t secondOfDay = static_cast<std::int64_t>(t.seconds % kSecondsPerDay);
    std::int64_t year;
    unsigned month, day;
    civilFromDays(days1601 - kDays1601To1970, year, month, day);
    char text[64];
    std::snprintf(text, sizeof text, "%04lld-%02u-%02uT%02lld:%02lld:%02lld.%09uZ", static_cast<long long>(year),
                  month, day, static_cast<long long>(secondOfDay / 3600),
                  static_cast<long long>(secondOfDay / 60 % 60), static_cast<long long>(secondOfDay % 60),
                  static_cast<unsigned>(t.nanos));
    return text;
}

std::string durationText(Nanos ns) {
    const Nanos magnitude = ns < 0 ? -ns : ns;
    if (magnitude < 1000) return fixedPoint(ns, 0, true) + " ns";
    if (magnitude < 1000000) return fixedPoint(ns, 3, true) + " us";
    if (magnitude < kNanosPerSecond) return fixedPoint(ns, 6, true) + " ms";
    return fixedPoint(ns, 9, true) + " s";
}

std::optional<ztsdlib_Timestamp> parseTime(const std::string& text) {
    if (text.size() >= 10 && text[4] == '-') return parseUtc(text);
    return parseDecimalSeconds(text);
}

std::string utcNow() {
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const long long millis =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm utc{};
#ifdef _WIN32
    gmtime_s(&utc, &seconds);
#else
    gmtime_r(&seconds, &utc);
#endif
    char text[40];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03lldZ", utc.tm_year + 1900, utc.tm_mon + 1,
                  utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, millis < 0 ? 0 : millis);
    return text;
}

}  // namespace ztsdctl
