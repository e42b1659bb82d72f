// Ctrl-C for long-running commands: the first SIGINT only raises a flag that
// the command checks between its steps, so it can stop its objects and
// delete its handles before it exits; the handler then steps aside, so a
// second Ctrl-C ends the process at once.
#pragma once

namespace ztsdctl {

// catchInterrupt is one file per system (interruptPosix.cpp, interruptWindows.cpp).
void catchInterrupt();
bool interrupted();
// What the handler does: the flag is raised for good.
void raiseInterrupt();

// Sleeps up to ms milliseconds in short slices; returns false when
// interrupted before the time was up.
bool sleepUnlessInterrupted(double ms);

}  // namespace ztsdctl
