#include "platform/sockets.h"

namespace ztsdlib {
namespace platform {

SocketLayer& processSocketLayer() {
    static SocketLayer layer([] { return 0; });  // POSIX sockets need no start
    return layer;
}

}  // namespace platform
}  // namespace ztsdlib
