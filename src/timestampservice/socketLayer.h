// The socket layer the daemon connections need, started before the first one.
#pragma once

#include "platform/sockets.h"

namespace ztsdlib {

// Makes sure `layer` is started (by default the process' own: Winsock on
// Windows). Raises -52008 "ztapalerr_osFault" with the message "Failed to
// initialise Winsock." and the system's error code when it cannot be.
void requireSocketLayer(platform::SocketLayer& layer = platform::processSocketLayer());

}  // namespace ztsdlib
