// A lab's worth of devices in one process, against ztsd-sim in a child
// process (so every descriptor counted in /proc/self/fd is the library's).
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "integration/sim/simTestSupport.h"
#include "unit/support/processProbe.h"
#include "ztsdlib/ztsdlib.h"

namespace {

using ztsdtest::openDescriptors;

// ztsd-sim serving chassis × devices; makeProxies() makes a proxy of each.
struct Lab {
    Lab(int chassis, int devices)
        : child({simtest::simPath(), "--chassis", std::to_string(chassis), "--devices-per-chassis",
                 std::to_string(devices)}) {
        if (!child.waitForOutput("\nready", 30000)) return;
        for (const auto& line : simtest::chassisLines(child.out()))
            for (const cJSON* d = simtest::member(line.get(), "devices")->child; d; d = d->next)
                uris.push_back(simtest::text(simtest::member(d, "uri")));
    }
    bool makeProxies() {
        for (const std::string& uri : uris) proxies.push_back(ztsdlib_SyncableDeviceProxy_create(uri.c_str(), &status));
        return proxies.size() == uris.size() && status.s.code == 0;
    }
    ~Lab() { for (ztsdlib_SyncableDevice* device : proxies) ztsdlib_SyncableDevice_delete(device); }
    simtest::ChildProcess child;
    ztsdtest::OwnedStatus status;
    std::vector<std::string> uris;
    std::vector<ztsdlib_SyncableDevice*> proxies;
};

}  // namespace

// 256 proxies on 64 chassis, each asked once, hold at most one descriptor each
// while idle (a pooled connection per chassis, libcurl's wake-up pair); past
// the keep-alive the next request lets the idle ones go; deleting gives all back.
TEST(ManyChassis, AnIdleDeviceProxyHoldsAtMostOneDescriptor) {
    ZTSD_SIM_REQUIRED();
    const long before = openDescriptors();
    {
        Lab lab(64, 4);
        const long base = openDescriptors() - before;  // the child's pipes
        ASSERT_TRUE(lab.uris.size() == 256u && lab.makeProxies()) << lab.child.err() << lab.status.text();
        std::uint32_t losses = 0;
        for (ztsdlib_SyncableDevice* device : lab.proxies) ztsdlib_SyncableDevice_isCoherent(device, &losses, &lab.status);
        EXPECT_LE(openDescriptors() - before - base, 64 + 2);  // 3 each before the shared pool

        std::this_thread::sleep_for(std::chrono::milliseconds(6500));
        ztsdlib_SyncableDevice_isCoherent(lab.proxies.front(), &losses, &lab.status);
        ASSERT_EQ(lab.status.s.code, 0) << lab.status.text();
        EXPECT_LE(openDescriptors() - before - base, 1 + 2);  // the connection just used, the pair
    }
    EXPECT_EQ(openDescriptors(), before);
}

// A domain of 1,024 members (64 chassis of 16 devices) on one pool of 64
// threads starts and checks while the process may hold 1,024 descriptors.
TEST(ManyChassis, ADomainOf1024MembersStartsAndChecksUnderALimitOf1024Descriptors) {
    ZTSD_SIM_REQUIRED();
    Lab lab(64, 16);
    ASSERT_TRUE(lab.uris.size() == 1024u && lab.makeProxies()) << lab.child.err() << lab.status.text();
    rlimit saved{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    const rlimit lowered{1024, saved.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &lowered), 0);

    ztsdtest::OwnedStatus& status = lab.status;
    ztsdlib_Timescale* host = ztsdlib_HostTimescale_create(ZTSDLIB_HOST_TIMESCALE_URI, &status);
    void* pool = ztsdlib_ThreadPool_create(64, &status);
    ztsdlib_SyncDomain* domain = ztsdlib_SyncDomain_create("/localhost/test/syncDomains/lab", host, 1000, 100, pool, &status);
    for (ztsdlib_SyncableDevice* device : lab.proxies) ztsdlib_SyncDomain_addSyncableDevice(domain, device, &status);
    EXPECT_TRUE(ztsdlib_SyncDomain_start(domain, 60, &status));
    EXPECT_TRUE(ztsdlib_SyncDomain_isCoherentSinceLastChecked(domain, &status));
    EXPECT_EQ(status.s.code, 0) << status.text();

    ztsdlib_SyncDomain_delete(domain);
    ztsdlib_ThreadPool_delete(pool);
    ztsdlib_Timescale_delete(host);
    setrlimit(RLIMIT_NOFILE, &saved);
}
