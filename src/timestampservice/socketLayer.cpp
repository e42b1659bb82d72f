#include "timestampservice/socketLayer.h"

#include <string>

#include "errors/exception.h"

namespace ztsdlib {
namespace {
constexpr const char* kFile = "source\\ztsdlib\\socketLayer";
}  // namespace

void requireSocketLayer(platform::SocketLayer& layer) {
    int error = 0;
    if (layer.ensureStarted(error)) return;
    zterr::raise(ZTERR_SITE(kFile, zterr::name::ztapalerr_osFault), zterr::code::ztapalerr_osFault,
                 "ztsyncdomain_debug", {{"message", "Failed to initialise Winsock."}, {"systemError", std::to_string(error)}});
}

}  // namespace ztsdlib
