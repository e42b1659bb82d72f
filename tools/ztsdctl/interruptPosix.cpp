// Ctrl-C on POSIX: SIGINT (and SIGTERM, a service manager's stop) raise the
// flag once; the handler then steps aside.
#include "interrupt.h"

#include <signal.h>

namespace ztsdctl {
namespace {
extern "C" void onInterrupt(int) { raiseInterrupt(); }
}  // namespace

void catchInterrupt() {
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESETHAND;  // the second Ctrl-C gets the default action
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);  // a service manager's stop ends the command as Ctrl-C does
}

}  // namespace ztsdctl
