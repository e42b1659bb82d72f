#include "integration/sim/childProcess.h"

#include <windows.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <thread>

namespace simtest {
namespace {

// A command line the child's C runtime splits back into these arguments.
std::wstring commandLine(const std::vector<std::string>& arguments) {
    std::wstring line;
    for (const std::string& argument : arguments) {
        if (!line.empty()) line += L' ';
        line += L'"';
        std::size_t backslashes = 0;
        for (const char c : argument) {
            if (c == '\\') {
                ++backslashes;
                continue;
            }
            line.append(c == '"' ? 2 * backslashes + 1 : backslashes, L'\\');
            backslashes = 0;
            line += static_cast<wchar_t>(static_cast<unsigned char>(c));
        }
        line.append(2 * backslashes, L'\\');
        line += L'"';
    }
    return line;
}

}  // namespace

struct ChildProcess::System {
    PROCESS_INFORMATION process{};
    bool running = false;
    std::mutex mutex;
    std::condition_variable arrived;
    std::string pending[2];  // read by the threads, not yet handed to the test
    int open = 0;            // streams whose reader still runs
    std::thread readers[2];
};

ChildProcess::ChildProcess(std::vector<std::string> arguments) : system_(std::make_unique<System>()) {
    SECURITY_ATTRIBUTES inherit{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    HANDLE reading[2] = {nullptr, nullptr}, writing[2] = {nullptr, nullptr};
    for (int i = 0; i < 2; ++i) {
        if (!CreatePipe(&reading[i], &writing[i], &inherit, 0)) return;
        SetHandleInformation(reading[i], HANDLE_FLAG_INHERIT, 0);
    }
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = writing[0];
    startup.hStdError = writing[1];
    std::wstring line = commandLine(arguments);
    // Its own console, so that a console event sent there reaches it alone
    // (its output still goes to the pipes).
    system_->running = CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, CREATE_NEW_CONSOLE, nullptr,
                                      nullptr, &startup, &system_->process) != 0;
    CloseHandle(writing[0]);
    CloseHandle(writing[1]);
    if (!system_->running) {
        CloseHandle(reading[0]);
        CloseHandle(reading[1]);
        return;
    }
    system_->open = 2;
    for (int i = 0; i < 2; ++i) {
        System* s = system_.get();
        HANDLE pipe = reading[i];
        s->readers[i] = std::thread([s, pipe, i] {
            char buffer[4096];
            DWORD got = 0;
            while (ReadFile(pipe, buffer, sizeof buffer, &got, nullptr) && got > 0) {
                std::lock_guard<std::mutex> lock(s->mutex);
                s->pending[i].append(buffer, got);
                s->arrived.notify_all();
            }
            CloseHandle(pipe);
            std::lock_guard<std::mutex> lock(s->mutex);
            --s->open;
            s->arrived.notify_all();
        });
    }
}

ChildProcess::~ChildProcess() {
    if (system_->running) {
        TerminateProcess(system_->process.hProcess, 1);
        WaitForSingleObject(system_->process.hProcess, INFINITE);
    }
    for (std::thread& reader : system_->readers) {
        if (reader.joinable()) reader.join();  // the pipes end with the process
    }
    if (system_->process.hProcess != nullptr) {
        CloseHandle(system_->process.hProcess);
        CloseHandle(system_->process.hThread);
    }
}

bool ChildProcess::started() const { return system_->running; }

// This process while it sends an event on a child's console: it lets the
// event pass.
BOOL WINAPI letPass(DWORD) { return TRUE; }

void ChildProcess::signal(int number) {
    if (!system_->running) return;
    if (number != SIGINT && number != SIGTERM) {
        TerminateProcess(system_->process.hProcess, 1);
        return;
    }
    // Ctrl+C for SIGINT, Ctrl+Break for SIGTERM, sent on the child's own
    // console: the sender joins it for the moment (one console per process,
    // so one sender at a time).
    static std::mutex consoleMutex;
    std::lock_guard<std::mutex> lock(consoleMutex);
    SetConsoleCtrlHandler(letPass, TRUE);
    FreeConsole();
    if (AttachConsole(system_->process.dwProcessId)) {
        GenerateConsoleCtrlEvent(number == SIGINT ? CTRL_C_EVENT : CTRL_BREAK_EVENT, 0);
        FreeConsole();
    }
}

int ChildProcess::finish(int timeout_ms) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (std::chrono::steady_clock::now() < deadline && pump(50)) {
    }
    if (!system_->running) return -1;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (WaitForSingleObject(system_->process.hProcess, static_cast<DWORD>(std::max<long long>(0, left.count()))) !=
        WAIT_OBJECT_0)
        return -1;
    DWORD code = 0;
    GetExitCodeProcess(system_->process.hProcess, &code);
    system_->running = false;
    pump(0);
    return static_cast<int>(code);
}

// The child's C runtime writes text-mode line ends (CR LF); the tests read
// lines as the programs wrote them.
void appendLines(std::string& text, std::string& arrived) {
    const std::size_t from = text.empty() ? 0 : text.size() - 1;  // a CR may have ended the last piece
    text += arrived;
    arrived.clear();
    std::size_t kept = from;
    for (std::size_t at = from; at < text.size(); ++at) {
        if (text[at] == '\r' && at + 1 < text.size() && text[at + 1] == '\n') continue;
        text[kept++] = text[at];
    }
    text.resize(kept);
}

bool ChildProcess::pump(int ms) {
    std::unique_lock<std::mutex> lock(system_->mutex);
    const auto any = [this] { return !system_->pending[0].empty() || !system_->pending[1].empty() || system_->open == 0; };
    system_->arrived.wait_for(lock, std::chrono::milliseconds(ms), any);
    appendLines(outText_, system_->pending[0]);
    appendLines(errText_, system_->pending[1]);
    return system_->open > 0;
}

}  // namespace simtest
