#include "platform/sockets.h"

#include <winsock2.h>

namespace ztsdlib {
namespace platform {

SocketLayer& processSocketLayer() {
    static SocketLayer layer([] {
        WSADATA data{};
        return WSAStartup(MAKEWORD(2, 2), &data);
    });
    return layer;
}

}  // namespace platform
}  // namespace ztsdlib
