#include "platform/sockets.h"

namespace ztsdlib {
namespace platform {

bool SocketLayer::ensureStarted(int& error) {
    std::lock_guard<std::mutex> lock(mutex_);
    error = 0;
    if (started_) return true;
    error = startup_();
    started_ = error == 0;
    return started_;
}

}  // namespace platform
}  // namespace ztsdlib
