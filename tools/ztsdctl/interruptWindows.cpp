// Ctrl-C on Windows: the console's Ctrl+C and Ctrl+Break raise the flag
// once; the handler then removes itself, so the next one ends the process.
#include "interrupt.h"

#include <windows.h>

namespace ztsdctl {
namespace {
BOOL WINAPI onControlEvent(DWORD event) {
    if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) return FALSE;
    raiseInterrupt();
    SetConsoleCtrlHandler(onControlEvent, FALSE);
    return TRUE;
}
}  // namespace

void catchInterrupt() { SetConsoleCtrlHandler(onControlEvent, TRUE); }

}  // namespace ztsdctl
