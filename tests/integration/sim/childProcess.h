// A child process (argv[0] is the program) with both output streams on
// pipes, for the tests that run the built programs. One file per system:
// childProcessPosix.cpp (posix_spawn, poll), childProcessWindows.cpp
// (CreateProcess, a reader thread per pipe). The destructor kills the child
// if it still runs.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace simtest {

class ChildProcess {
public:
    explicit ChildProcess(std::vector<std::string> arguments);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool started() const;
    // Asks the child to stop: SIGINT is an interrupt from the keyboard,
    // SIGTERM any other stop request (on Windows, Ctrl+C and Ctrl+Break on
    // the child's own console); any other number ends it at once. Tests that
    // only need the child stopped send SIGINT: Wine passes Ctrl+C between
    // consoles but not Ctrl+Break.
    void signal(int number);
    const std::string& out() const { return outText_; }
    const std::string& err() const { return errText_; }

    // Reads output until stdout (stderr) holds `text` or timeout_ms passes
    // (false at once for a child that did not start).
    bool waitForOutput(const std::string& text, int timeout_ms) { return waitFor(outText_, text, timeout_ms); }
    bool waitForError(const std::string& text, int timeout_ms) { return waitFor(errText_, text, timeout_ms); }

    // Reads all output and waits for the exit; returns the exit status, or
    // -1 when the program did not end within timeout_ms (it is killed then)
    // or ended on a signal.
    int finish(int timeout_ms);

private:
    bool waitFor(const std::string& stream, const std::string& text, int timeout_ms) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
        while (stream.find(text) == std::string::npos) {
            if (std::chrono::steady_clock::now() >= deadline || !pump(50)) return stream.find(text) != std::string::npos;
        }
        return true;
    }
    // Waits up to ms for output and appends what arrived to outText_ and
    // errText_; false once both streams are closed.
    bool pump(int ms);

    struct System;  // the system's handles
    std::unique_ptr<System> system_;
    std::string outText_;
    std::string errText_;
};

}  // namespace simtest
