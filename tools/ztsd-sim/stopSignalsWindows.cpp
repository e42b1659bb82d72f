// Stop requests on Windows: the console's control events. The handler runs
// on a thread the system starts; it hands the event over and returns at once,
// so that the process is not ended before the simulator has stopped cleanly.
#include "ztsd-sim/stopSignals.h"

#include <windows.h>

#include <condition_variable>
#include <mutex>

namespace ztsdsim {
namespace {

std::mutex stopMutex;
std::condition_variable stopRequested;
DWORD stopEvent = ~DWORD{0};

BOOL WINAPI onControlEvent(DWORD event) {
    {
        std::lock_guard<std::mutex> lock(stopMutex);
        if (stopEvent == ~DWORD{0}) stopEvent = event;
    }
    stopRequested.notify_all();
    return TRUE;
}

}  // namespace

void holdStopRequests() { SetConsoleCtrlHandler(onControlEvent, TRUE); }

std::string waitForStop() {
    std::unique_lock<std::mutex> lock(stopMutex);
    stopRequested.wait(lock, [] { return stopEvent != ~DWORD{0}; });
    return stopEvent == CTRL_C_EVENT ? "SIGINT" : "SIGTERM";
}

}  // namespace ztsdsim
