// CurlTransfers: one libcurl multi handle that runs the HTTP transfers of
// every client of the process, with one pool of kept-alive connections.
//
// Why: a transfer run by curl_easy_perform gets a multi handle of its own,
// kept with the easy handle, and every multi handle holds a socket pair
// (libcurl's wake-up channel) and its own connection pool. A client per
// device proxy then cost three descriptors while idle, and a process with
// the usual limit of 1,024 ran out at about 333 devices. Here the easy
// handles own no descriptor at all: the one multi handle holds the one
// socket pair and the connections, which any client may reuse (devices of
// one chassis share them).
//
// Limits, from the process's descriptor limit L when it has one
// (platform/descriptors.h), else as for L = 4096:
//  - at most L / 2 connections at once (CURLMOPT_MAX_TOTAL_CONNECTIONS); a
//    transfer beyond them waits inside libcurl for one, within its own
//    whole-request time-out;
//  - at most L / 4 idle connections kept (CURLMOPT_MAXCONNECTS); the oldest
//    goes when another is kept.
// An idle connection is closed once its server has closed it or it has been
// idle kKeepAlive_s (CURLOPT_MAXAGE_CONN, set by the client), found at the
// next transfer of any client; all go when the last client does.
//
// How the calling threads share it: libcurl allows one thread at a time in
// a multi handle. A thread that asks for a transfer queues it; if no thread
// is driving the handle, it becomes the driver: it adds queued transfers,
// runs curl_multi_perform, hands each finished transfer its result (waking
// its thread), and waits in curl_multi_poll, until its own transfer is done;
// it then passes the driving to a thread whose transfer is still running. A
// thread that queues a transfer while another drives wakes that driver's
// poll (curl_multi_wakeup) and sleeps until its transfer is done or it is
// asked to drive. Every transfer ends within its own time-out, which
// libcurl's timers enforce whichever thread drives, so no caller waits for
// another's slow server.
//
// Threads: perform() from any number of threads at once; the easy handle
// passed belongs to the caller and is used by the driver only between
// perform()'s start and its return.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "remote/curlLibrary.h"

namespace zt {
namespace vela {
namespace shared {

// How long an idle connection may be reused, in seconds: the keep-alive
// time of common web servers (and of the simulated chassis).
constexpr long kKeepAlive_s = 5;

class CurlTransfers {
public:
    // The process's transfers for api, made on first use (raises -411351
    // when no multi handle can be made); it lives while a client holds it.
    static std::shared_ptr<CurlTransfers> acquire(const std::shared_ptr<const CurlApi>& api);

    explicit CurlTransfers(std::shared_ptr<const CurlApi> api);
    ~CurlTransfers();
    CurlTransfers(const CurlTransfers&) = delete;
    CurlTransfers& operator=(const CurlTransfers&) = delete;

    // Runs one transfer of easy (its options set) to its end and returns
    // libcurl's result for it, as curl_easy_perform would.
    CURLcode perform(CURL* easy);

    // The limits in force (see above).
    std::size_t maxConnections() const noexcept { return maxConnections_; }
    std::size_t maxIdleConnections() const noexcept { return maxIdleConnections_; }

private:
    struct Transfer;
    // Drives the multi handle until mine is done; called and returning with
    // lock held.
    void drive(std::unique_lock<std::mutex>& lock, Transfer& mine);
    // Adds the queued transfers (lock held); one that cannot be added is done
    // at once with CURLE_OUT_OF_MEMORY.
    void addQueued();
    // Gives a finished transfer its result and wakes its thread (lock held).
    void finish(CURL* easy, CURLcode result, const Transfer& mine);
    // Hands the driving to a thread whose transfer is not done (lock held).
    void passDriving();

    std::shared_ptr<const CurlApi> api_;
    CURLM* multi_ = nullptr;
    std::size_t maxConnections_ = 0;
    std::size_t maxIdleConnections_ = 0;

    std::mutex mutex_;  // guards the next three
    bool driving_ = false;
    std::vector<Transfer*> queued_;
    std::unordered_map<CURL*, Transfer*> running_;
};

}  // namespace shared
}  // namespace vela
}  // namespace zt
