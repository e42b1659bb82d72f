// The task pool a sync domain runs its member checks on.
//
// A C++ caller implements ThreadPoolInterface and passes a pointer to it (as
// ztsdlib::ThreadPoolInterface*, converted to void*) as the threadPool
// argument of ztsdlib_SyncDomain_create. The library never creates, owns or
// destroys such a pool: keep it alive as long as any domain uses it. Callers
// that cannot implement a C++ interface use ztsdlib_ThreadPool_create.
#ifndef ZTSDLIB_THREADPOOL_HPP
#define ZTSDLIB_THREADPOOL_HPP

#include <memory>

namespace ztsdlib {

class ThreadPoolInterface {
public:
    // One unit of work.
    class TaskInterface {
    public:
        virtual ~TaskInterface() = default;
        virtual void run() = 0;
    };

    virtual ~ThreadPoolInterface() = default;

    // Must call task->run() exactly once, on some thread, soon. May return
    // before it runs, or run it at once on the calling thread. Must keep the
    // shared ownership until run() has returned. Called from the thread that
    // is using the domain; must not throw except for lack of memory.
    virtual void submit(std::shared_ptr<TaskInterface> task) = 0;
};

}  // namespace ztsdlib

#endif  // ZTSDLIB_THREADPOOL_HPP
