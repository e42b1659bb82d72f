#include "progressLine.h"

#ifdef _WIN32
#include <io.h>
#define isatty _isatty
#define STDERR_FILENO 2
#else
#include <unistd.h>
#endif

#include <iostream>

namespace ztsdctl {

ProgressLine::ProgressLine() : terminal_(::isatty(STDERR_FILENO) == 1) {}

void ProgressLine::show(const std::string& text) {
    const auto now = std::chrono::steady_clock::now();
    const auto pause = terminal_ ? std::chrono::milliseconds(100) : std::chrono::milliseconds(1000);
    if (drawn_ && now - last_ < pause) return;
    last_ = now;
    if (terminal_) {
        std::cerr << "\r" << text;
        if (text.size() < width_) std::cerr << std::string(width_ - text.size(), ' ');
        width_ = text.size();
    } else {
        std::cerr << text << "\n";
    }
    std::cerr.flush();
    drawn_ = true;
}

void ProgressLine::finish() {
    if (drawn_ && terminal_) std::cerr << "\r" << std::string(width_, ' ') << "\r" << std::flush;
    drawn_ = false;
    width_ = 0;
}

}  // namespace ztsdctl
