// Stop requests on POSIX: SIGINT and SIGTERM, blocked in every thread (the
// servers' threads inherit the mask) and taken with sigwait.
#include "ztsd-sim/stopSignals.h"

#include <pthread.h>
#include <signal.h>

namespace ztsdsim {
namespace {

sigset_t stopSet() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

}  // namespace

void holdStopRequests() {
    const sigset_t set = stopSet();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

std::string waitForStop() {
    const sigset_t set = stopSet();
    int received = 0;
    sigwait(&set, &received);
    return received == SIGINT ? "SIGINT" : "SIGTERM";
}

}  // namespace ztsdsim
