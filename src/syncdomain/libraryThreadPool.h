// A pool of real threads for callers that cannot implement
// ThreadPoolInterface themselves (C and other languages). Tasks run in
// submission order on a fixed number of threads; destruction finishes every
// queued task and joins the threads. submit() may be called from any thread.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "ztsdlib/threadPool.hpp"

namespace ztsdlib {

class LibraryThreadPool : public ThreadPoolInterface {
public:
    explicit LibraryThreadPool(std::uint32_t threadCount);
    ~LibraryThreadPool() override;
    LibraryThreadPool(const LibraryThreadPool&) = delete;
    LibraryThreadPool& operator=(const LibraryThreadPool&) = delete;

    void submit(std::shared_ptr<TaskInterface> task) override;
    std::size_t threadCount() const { return threads.size(); }

private:
    void worker();

    std::mutex mutex;                      // guards queue and stopping
    std::condition_variable wake;
    std::deque<std::shared_ptr<TaskInterface>> queue;
    bool stopping = false;
    std::vector<std::thread> threads;
};

}  // namespace ztsdlib
