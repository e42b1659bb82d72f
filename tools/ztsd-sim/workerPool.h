// The HTTP server's task queue: one job per accepted connection, served by a
// pool that starts empty and adds a thread whenever a job arrives and no
// thread is idle, up to a maximum. A kept-alive connection occupies its
// thread until it closes, so a fixed small pool would make the connections
// beyond it wait for others to go idle; growing on demand lets a few hundred
// probes in parallel each be answered at once while a test that sends one
// request costs one thread.
//
// Threads: enqueue() is called by the server's accept thread, shutdown() by
// the thread that stops the server; workers take jobs under the pool's mutex.
#pragma once

#include <httplib.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace ztsdsim {

class WorkerPool : public httplib::TaskQueue {
public:
    // accepted, when given, counts the jobs: one per accepted connection.
    explicit WorkerPool(std::size_t maxThreads, std::atomic<std::uint64_t>* accepted = nullptr);
    ~WorkerPool() override;

    void enqueue(std::function<void()> job) override;
    // Lets the queued jobs finish, then joins every thread. Idempotent.
    void shutdown() override;

    std::size_t threadCount() const;

private:
    void work();

    const std::size_t maxThreads_;
    std::atomic<std::uint64_t>* const accepted_;
    mutable std::mutex mutex_;                 // guards everything below
    std::condition_variable wake_;
    std::deque<std::function<void()>> jobs_;
    std::vector<std::thread> threads_;
    std::size_t idle_ = 0;
    bool shuttingDown_ = false;
};

}  // namespace ztsdsim
