#include "ztsd-sim/workerPool.h"

#include <algorithm>

namespace ztsdsim {

WorkerPool::WorkerPool(std::size_t maxThreads, std::atomic<std::uint64_t>* accepted)
    : maxThreads_(std::max<std::size_t>(1, maxThreads)), accepted_(accepted) {}

WorkerPool::~WorkerPool() { shutdown(); }

void WorkerPool::enqueue(std::function<void()> job) {
    if (accepted_) accepted_->fetch_add(1);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        jobs_.push_back(std::move(job));
        // Every queued job needs an idle thread of its own to start at once.
        if (!shuttingDown_ && jobs_.size() > idle_ && threads_.size() < maxThreads_) {
            threads_.emplace_back([this] { work(); });
        }
    }
    wake_.notify_one();
}

void WorkerPool::shutdown() {
    std::vector<std::thread> threads;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        shuttingDown_ = true;
        threads.swap(threads_);
    }
    wake_.notify_all();
    for (std::thread& thread : threads) thread.join();
}

std::size_t WorkerPool::threadCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return threads_.size();
}

void WorkerPool::work() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        ++idle_;
        wake_.wait(lock, [this] { return !jobs_.empty() || shuttingDown_; });
        --idle_;
        if (jobs_.empty()) return;  // shutting down with nothing left to do
        std::function<void()> job = std::move(jobs_.front());
        jobs_.pop_front();
        lock.unlock();
        job();
        lock.lock();
    }
}

}  // namespace ztsdsim
