// What tests ask of their own process, the same way on every system: the
// peak resident memory, environment variables, and what reaches standard
// error meanwhile.
#pragma once

#include <cstdio>
#include <string>

#ifdef _WIN32
#include <io.h>
#include <winsock2.h>  // before windows.h (which it includes), as the curl header needs
#include <psapi.h>
#include <stdlib.h>
#else
#include <dirent.h>
#include <sys/resource.h>
#include <unistd.h>
#include <cstdlib>
#endif

namespace ztsdtest {

// The most memory the process has held resident so far, in KiB.
inline long peakResidentKiB() {
#ifdef _WIN32
    PROCESS_MEMORY_COUNTERS counters{};
    GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters);
    return static_cast<long>(counters.PeakWorkingSetSize / 1024);
#else
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
#endif
}

#ifndef _WIN32
// The entries of a directory but those whose names begin with a dot: under
// /proc/self (Linux), the open descriptors or the threads.
inline long countEntries(const char* directory) {
    long count = 0;
    DIR* dir = opendir(directory);
    while (const dirent* entry = dir ? readdir(dir) : nullptr) count += entry->d_name[0] != '.';
    if (dir) closedir(dir);
    return count;
}

// The process's open descriptors, but the one that reads them.
inline long openDescriptors() { return countEntries("/proc/self/fd") - 1; }
#endif

inline void setEnvironment(const char* name, const std::string& value) {
#ifdef _WIN32
    _putenv_s(name, value.c_str());
#else
    setenv(name, value.c_str(), 1);
#endif
}

inline void removeEnvironment(const char* name) {
#ifdef _WIN32
    _putenv_s(name, "");  // an empty value removes the variable
#else
    unsetenv(name);
#endif
}

// Sends the process's standard error (descriptor 2) to a temporary file
// while it lives; bytesWritten() ends the capture and tells how much came.
class StderrCapture {
public:
    StderrCapture() {
        std::fflush(stderr);
        file_ = std::tmpfile();
        if (file_ == nullptr) return;
#ifdef _WIN32
        saved_ = _dup(2);
        _dup2(_fileno(file_), 2);
#else
        saved_ = dup(2);
        dup2(fileno(file_), 2);
#endif
    }
    ~StderrCapture() { bytesWritten(); }
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;

    bool capturing() const { return file_ != nullptr; }

    long bytesWritten() {
        if (file_ == nullptr) return written_;
        std::fflush(stderr);
#ifdef _WIN32
        _dup2(saved_, 2);
        _close(saved_);
#else
        dup2(saved_, 2);
        close(saved_);
#endif
        std::fseek(file_, 0, SEEK_END);
        written_ = std::ftell(file_);
        std::fclose(file_);
        file_ = nullptr;
        return written_;
    }

private:
    std::FILE* file_ = nullptr;
    int saved_ = -1;
    long written_ = 0;
};

}  // namespace ztsdtest
