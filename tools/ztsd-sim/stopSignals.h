// How the simulator program learns that it should stop, one file per system:
// stopSignalsPosix.cpp takes SIGINT and SIGTERM, stopSignalsWindows.cpp the
// console's Ctrl+C, Ctrl+Break and close events.
#pragma once

#include <string>

namespace ztsdsim {

// Called before any thread starts: from then on the stop requests are held
// for waitForStop (on POSIX, blocked in every thread the process starts).
void holdStopRequests();

// Waits for a stop request and names it ("SIGINT" for an interrupt from the
// keyboard, "SIGTERM" for any other request to end).
std::string waitForStop();

}  // namespace ztsdsim
