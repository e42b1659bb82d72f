#include "syncdomain/libraryThreadPool.h"

namespace ztsdlib {

LibraryThreadPool::LibraryThreadPool(std::uint32_t threadCount) {
    threads.reserve(threadCount);
    try {
        for (std::uint32_t i = 0; i < threadCount; ++i) threads.emplace_back([this] { worker(); });
    } catch (...) {
        // Could not start them all: stop the ones that did start.
        {
            std::lock_guard<std::mutex> lock(mutex);
            stopping = true;
        }
        wake.notify_all();
        for (auto& t : threads) t.join();
        throw;
    }
}

LibraryThreadPool::~LibraryThreadPool() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
    }
    wake.notify_all();
    for (auto& t : threads) t.join();
}

void LibraryThreadPool::submit(std::shared_ptr<TaskInterface> task) {
    if (!task) return;
    {
        std::lock_guard<std::mutex> lock(mutex);
        queue.push_back(std::move(task));
    }
    wake.notify_one();
}

void LibraryThreadPool::worker() {
    for (;;) {
        std::shared_ptr<TaskInterface> task;
        {
            std::unique_lock<std::mutex> lock(mutex);
            wake.wait(lock, [this] { return stopping || !queue.empty(); });
            if (queue.empty()) return;  // stopping, and every queued task is done
            task = std::move(queue.front());
            queue.pop_front();
        }
        try {
            task->run();
        } catch (...) {
            // A task's failure is the task's business; the pool keeps going.
        }
    }
}

}  // namespace ztsdlib
