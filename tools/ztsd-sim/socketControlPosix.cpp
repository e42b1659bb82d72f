// The simulator's socket calls on POSIX systems; connections are found among
// the descriptors listed in /proc/self/fd.
#include "ztsd-sim/socketControl.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

namespace ztsdsim::net {

void ignoreBrokenPipes() {
    struct sigaction current {};
    if (::sigaction(SIGPIPE, nullptr, &current) == 0 && current.sa_handler == SIG_DFL) {
        struct sigaction ignore {};
        ignore.sa_handler = SIG_IGN;
        sigemptyset(&ignore.sa_mask);
        ::sigaction(SIGPIPE, &ignore, nullptr);
    }
}

namespace system {

void start() {}

void close(Socket socket) { ::close(socket); }

bool waitReadable(Socket socket, int timeout_ms) {
    pollfd p{socket, POLLIN, 0};
    return ::poll(&p, 1, timeout_ms) == 1;
}

int sendFlags() { return MSG_NOSIGNAL; }

int shutdownBothHow() { return SHUT_RDWR; }

// A poll or read on the socket in its owner's thread ends at the shutdown.
bool cutConnection(Socket socket) { return ::shutdown(socket, SHUT_RDWR) == 0; }

// SO_REUSEADDR only: a socket in TIME_WAIT does not hold the port, one that
// listens does (SO_REUSEPORT would let two servers share it).
void setExclusiveBind(Socket socket) {
    int yes = 1;
    ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
}

// Visits a duplicate of every descriptor of this process. The duplicate
// refers to the same socket even if the original descriptor is closed and
// its number reused meanwhile, so whatever visit checks on it still holds
// when it acts on it.
std::size_t forEachSocket(const std::function<bool(Socket)>& visit) {
    DIR* directory = ::opendir("/proc/self/fd");
    if (directory == nullptr) return 0;
    const int own = ::dirfd(directory);
    std::size_t acted = 0;
    while (const dirent* entry = ::readdir(directory)) {
        char* end = nullptr;
        const long fd = std::strtol(entry->d_name, &end, 10);
        if (end == entry->d_name || *end != '\0' || fd == own) continue;
        const int copy = ::fcntl(static_cast<int>(fd), F_DUPFD_CLOEXEC, 0);
        if (copy < 0) continue;
        if (visit(copy)) ++acted;
        ::close(copy);
    }
    ::closedir(directory);
    return acted;
}

}  // namespace system
}  // namespace ztsdsim::net
