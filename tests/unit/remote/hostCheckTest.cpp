// The one check of caller text that names a peer: what passes, and what is
// refused with -52005 naming the field.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "remote/hostCheck.h"
#include "unit/support/raisedError.h"

using ztsdtest::captureRaise;

TEST(HostCheck, AcceptsHostsAndPortsAndRefusesWhatWouldChangeTheUrl) {
    for (const char* good : {"127.0.0.1", "127.0.0.1:1", "chassis-7.lab_a:65535", "fe80::1", "[::1]:8080", "[fe80::1%eth0]",
                             "b\xC3\xBC" "ro"})
        EXPECT_NO_THROW(zt::syncdomain::checkRemoteHost(good, "remoteHost")) << good;
    // Each message with the texts that earn it.
    const std::pair<const char*, std::vector<const char*>> bad[] = {
        {"names no host", {"", ":80"}},
        {"holds a space or a control character", {" 127.0.0.1", "127.0.0.1:80\n", "a\x7f"}},
        {"has a port out of the range 1 to 65535", {"127.0.0.1:0", "127.0.0.1:65536", "127.0.0.1:", "127.0.0.1:8o", "[::1]:999999"}},
        {"holds a character that no host name has", {"x@127.0.0.1", "127.0.0.1/a", "h#f", "[::1]x", "fe80::g"}},
        {"holds a bracketed host that is not an IPv6 address", {"[nope]", "[::1", "[fe80::1%]"}},
    };
    for (const auto& [what, texts] : bad) {
        for (const char* text : texts) {
            const auto r = captureRaise([&] { zt::syncdomain::checkRemoteHost(text, "remoteHost"); });
            EXPECT_EQ(r.code, -52005) << text;
            EXPECT_EQ(r.detail("ztsyncdomain_debug", "message"), std::string("'remoteHost' ") + what + ".") << text;
            EXPECT_EQ(r.detail("ztsyncdomain_debug", "value"), text);
        }
    }
    // A daemon's host is what the resolver takes: no brackets, no port.
    EXPECT_NO_THROW(zt::syncdomain::checkDaemonHost("::1", "host"));
    for (const char* host : {"", "[::1]", "127.0.0.1:9090", "a b"})
        EXPECT_EQ(captureRaise([&] { zt::syncdomain::checkDaemonHost(host, "host"); }).code, -52005) << host;
    EXPECT_NO_THROW(zt::syncdomain::checkPort(65535, "port"));
    EXPECT_EQ(captureRaise([] { zt::syncdomain::checkPort(65536, "port"); }).detail("ztsyncdomain_debug", "message"),
              "'port' has a port out of the range 1 to 65535.");
}
