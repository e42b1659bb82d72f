// Wall-clock helpers for tests that time, or wait for, what other threads do.
#pragma once

#include <chrono>
#include <thread>
#include <vector>

namespace ztsdtest {

// Sanitizer builds run the library several times slower: timing bounds that
// hold with room on a loaded two-core machine may need more there.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitizedBuild = true;
#else
constexpr bool kSanitizedBuild = false;
#endif

inline long long msSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
}

// Runs body(i) for every i below count, each on a thread of its own;
// join(), or the end of the scope, waits for them all.
class FanOut {
public:
    template <typename Body>
    FanOut(int count, Body body) {
        for (int i = 0; i < count; ++i) threads.emplace_back(body, i);
    }
    ~FanOut() { join(); }
    void join() {
        for (std::thread& t : threads)
            if (t.joinable()) t.join();
    }

private:
    std::vector<std::thread> threads;
};

// Polls pred every millisecond until it holds (true) or limit passes (false).
template <typename Pred>
bool eventually(Pred pred, std::chrono::milliseconds limit = std::chrono::seconds(5)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!pred()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace ztsdtest
