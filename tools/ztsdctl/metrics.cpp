#include "metrics.h"

#include <cstdio>
#include <sstream>
#include <stdexcept>

namespace ztsdctl {

namespace {

const double kBounds[] = {0.005, 0.01, 0.025, 0.05, 0.1, 0.25, 0.5, 1, 2.5, 5, 10};

// A label value: backslash, double quote and line feed escaped.
std::string labelValue(const std::string& text) {
    std::string escaped;
    for (char c : text) {
        if (c == '\\') escaped += "\\\\";
        else if (c == '"') escaped += "\\\"";
        else if (c == '\n') escaped += "\\n";
        else escaped += c;
    }
    return escaped;
}

std::string number(double value) {
    char text[64];
    std::snprintf(text, sizeof text, "%.17g", value);
    return text;
}

}  // namespace

MetricsServer::MetricsServer(std::string domainUri)
    : domainUri_(std::move(domainUri)), buckets_(sizeof kBounds / sizeof kBounds[0], 0) {}

MetricsServer::~MetricsServer() { stop(); }

std::pair<std::string, std::uint16_t> parseListenAddress(const std::string& listen) {
    std::string host;
    std::string portText;
    if (!listen.empty() && listen[0] == '[') {
        const std::size_t close = listen.find("]:");
        if (close == std::string::npos) throw std::invalid_argument("'" + listen + "' is not [v6]:PORT");
        host = listen.substr(1, close - 1);
        portText = listen.substr(close + 2);
    } else {
        const std::size_t colon = listen.rfind(':');
        if (colon == std::string::npos || listen.find(':') != colon)
            throw std::invalid_argument("'" + listen + "' is not ADDR:PORT (an IPv6 address in brackets)");
        host = listen.substr(0, colon);
        portText = listen.substr(colon + 1);
    }
    if (host.empty() || portText.empty() || portText.size() > 5 ||
        portText.find_first_not_of("0123456789") != std::string::npos || std::stoul(portText) > 65535)
        throw std::invalid_argument("'" + listen + "' is not ADDR:PORT (port 0 to 65535)");
    return {host, static_cast<std::uint16_t>(std::stoul(portText))};
}

std::string MetricsServer::start(const std::string& listen) {
    const auto [host, wanted] = parseListenAddress(listen);
    const std::uint16_t port = server_.start(host, wanted, [this](const std::string& path) {
        if (path != "/metrics") return ScrapeAnswer{404, "", "not found: the metrics are at /metrics\n"};
        return ScrapeAnswer{200, "text/plain; version=0.0.4; charset=utf-8", text()};
    });
    const bool v6 = host.find(':') != std::string::npos;
    return "http://" + (v6 ? "[" + host + "]" : host) + ":" + std::to_string(port) + "/metrics";
}

void MetricsServer::stop() { server_.stop(); }

void MetricsServer::update(const CheckResult& check, double duration_s) {
    std::lock_guard<std::mutex> lock(mutex_);
    checked_ = true;
    domainCoherent_ = check.coherentSinceLastCheck && check.domainError.empty();
    for (const MemberRow& row : check.members) {
        Member& member = members_[row.uri];
        member.coherent = row.coherent;
        member.reachable = row.reachable;
        if (row.reachable) member.losses = row.lossCount;  // unknown while unreachable: the last value stays
        if (!row.reachable) ++errors_[row.errorCode];
    }
    for (std::size_t i = 0; i < buckets_.size(); ++i) {
        if (duration_s <= kBounds[i]) ++buckets_[i];
    }
    durationSum_ += duration_s;
    ++checks_;
}

std::string MetricsServer::text() const {
    std::lock_guard<std::mutex> lock(mutex_);
    const std::string domain = "domain=\"" + labelValue(domainUri_) + "\"";
    std::ostringstream out;
    out << "# HELP ztsd_domain_coherent 1 when the last check found the domain coherent since the check before.\n"
        << "# TYPE ztsd_domain_coherent gauge\n";
    if (checked_) out << "ztsd_domain_coherent{" << domain << "} " << (domainCoherent_ ? 1 : 0) << "\n";
    const auto perMember = [&](const char* name, const char* type, const char* help, auto value) {
        out << "# HELP " << name << " " << help << "\n# TYPE " << name << " " << type << "\n";
        for (const auto& [uri, member] : members_)
            out << name << "{" << domain << ",member=\"" << labelValue(uri) << "\"} " << value(member) << "\n";
    };
    perMember("ztsd_member_coherent", "gauge", "1 when the member's device said it was coherent at the last check.",
              [](const Member& m) { return m.coherent ? 1 : 0; });
    perMember("ztsd_member_reachable", "gauge", "1 when the member's device answered the last check.",
              [](const Member& m) { return m.reachable ? 1 : 0; });
    perMember("ztsd_member_coherency_losses_total", "counter", "The member device's coherency loss count.",
              [](const Member& m) { return static_cast<unsigned long long>(m.losses); });
    out << "# HELP ztsd_check_duration_seconds How long each check of the domain took.\n"
        << "# TYPE ztsd_check_duration_seconds histogram\n";
    for (std::size_t i = 0; i < buckets_.size(); ++i)
        out << "ztsd_check_duration_seconds_bucket{" << domain << ",le=\"" << kBounds[i] << "\"} "
            << buckets_[i] << "\n";
    out << "ztsd_check_duration_seconds_bucket{" << domain << ",le=\"+Inf\"} " << checks_ << "\n"
        << "ztsd_check_duration_seconds_sum{" << domain << "} " << number(durationSum_) << "\n"
        << "ztsd_check_duration_seconds_count{" << domain << "} " << checks_ << "\n";
    out << "# HELP ztsd_check_errors_total Member queries that failed, by the library's error code.\n"
        << "# TYPE ztsd_check_errors_total counter\n";
    for (const auto& [code, count] : errors_)
        out << "ztsd_check_errors_total{" << domain << ",code=\"" << code << "\"} " << count << "\n";
    return out.str();
}

}  // namespace ztsdctl
