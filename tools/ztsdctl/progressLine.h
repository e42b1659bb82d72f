// A live status line on stderr. On a terminal it is redrawn in place (at
// most every 100 ms); when stderr is a pipe or a file the line is written
// once a second instead, so logs stay readable.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

namespace ztsdctl {

class ProgressLine {
public:
    ProgressLine();
    ~ProgressLine() { finish(); }
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    void show(const std::string& text);
    // Ends the line (on a terminal, clears it) so other output starts clean.
    void finish();

private:
    bool terminal_;
    bool drawn_ = false;
    std::size_t width_ = 0;
    std::chrono::steady_clock::time_point last_{};
};

}  // namespace ztsdctl
