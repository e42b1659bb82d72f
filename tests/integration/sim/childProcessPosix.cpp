#include "integration/sim/childProcess.h"

#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>

extern char** environ;

namespace simtest {

struct ChildProcess::System {
    pid_t pid = -1;
    int out = -1;
    int err = -1;
};

namespace {
void readFrom(const pollfd& ready, int& fd, std::string& text) {
    if (fd < 0 || (ready.revents & (POLLIN | POLLHUP | POLLERR)) == 0) return;
    char buffer[4096];
    const ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got > 0) {
        text.append(buffer, static_cast<std::size_t>(got));
    } else {
        ::close(fd);
        fd = -1;
    }
}
}  // namespace

ChildProcess::ChildProcess(std::vector<std::string> arguments) : system_(std::make_unique<System>()) {
    int out[2], err[2];
    if (::pipe(out) != 0) return;
    if (::pipe(err) != 0) {
        ::close(out[0]);
        ::close(out[1]);
        return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
    posix_spawn_file_actions_addclose(&actions, out[0]);
    posix_spawn_file_actions_addclose(&actions, err[0]);
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    if (::posix_spawn(&system_->pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) system_->pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    ::close(err[1]);
    system_->out = out[0];
    system_->err = err[0];
}

ChildProcess::~ChildProcess() {
    if (system_->pid > 0) {
        ::kill(system_->pid, SIGKILL);
        ::waitpid(system_->pid, nullptr, 0);
    }
    if (system_->out >= 0) ::close(system_->out);
    if (system_->err >= 0) ::close(system_->err);
}

bool ChildProcess::started() const { return system_->pid > 0; }

void ChildProcess::signal(int number) {
    if (system_->pid > 0) ::kill(system_->pid, number);
}

int ChildProcess::finish(int timeout_ms) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (std::chrono::steady_clock::now() < deadline && pump(50)) {
    }
    while (system_->pid > 0 && std::chrono::steady_clock::now() < deadline) {
        int status = 0;
        if (::waitpid(system_->pid, &status, WNOHANG) == system_->pid) {
            system_->pid = -1;
            return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        }
        ::usleep(5000);
    }
    return -1;
}

bool ChildProcess::pump(int ms) {
    int& out = system_->out;
    int& err = system_->err;
    pollfd ready[2] = {{out, POLLIN, 0}, {err, POLLIN, 0}};
    if (out < 0 && err < 0) return false;
    if (::poll(ready, 2, ms) <= 0) return true;
    readFrom(ready[0], out, outText_);
    readFrom(ready[1], err, errText_);
    return out >= 0 || err >= 0;
}

}  // namespace simtest
