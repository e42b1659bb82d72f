#include "remote/curlTransfers.h"

#include <algorithm>
#include <new>

#include "errors/exception.h"
#include "platform/descriptors.h"

namespace zt {
namespace vela {
namespace shared {

namespace {

constexpr const char* kFile = "source\\ztvela\\curlTransfers";
// The descriptor limit assumed where the system states none.
constexpr std::uint64_t kAssumedDescriptorLimit = 4096;
// The longest wait in curl_multi_poll; libcurl's own timers end it sooner.
constexpr int kMaxPoll_ms = 1000;

}  // namespace

struct CurlTransfers::Transfer {
    explicit Transfer(CURL* handle) : easy(handle) {}
    CURL* easy;
    CURLcode result = CURLE_OK;
    bool done = false;
    std::condition_variable wake;  // done, or asked to drive
};

std::shared_ptr<CurlTransfers> CurlTransfers::acquire(const std::shared_ptr<const CurlApi>& api) {
    static std::mutex mutex;
    static std::weak_ptr<CurlTransfers>* current = new std::weak_ptr<CurlTransfers>();  // never destroyed
    std::lock_guard<std::mutex> lock(mutex);
    std::shared_ptr<CurlTransfers> transfers = current->lock();
    if (transfers && transfers->api_ == api) return transfers;
    transfers = std::make_shared<CurlTransfers>(api);
    *current = transfers;
    return transfers;
}

CurlTransfers::CurlTransfers(std::shared_ptr<const CurlApi> api) : api_(std::move(api)) {
    multi_ = api_->multi_init();
    if (!multi_) {
        zterr::raise(ZTERR_SITE(kFile, zterr::name::kInternalSoftwareErrorFailedInitialize),
                     zterr::code::kInternalSoftwareErrorFailedInitialize, "ztsyncdomain_debug",
                     {{"message", "HTTP client is not ready for a request."}, {"check failed", "multi"}});
    }
    std::uint64_t limit = ztsdlib::platform::openDescriptorLimit();
    if (limit == 0) limit = kAssumedDescriptorLimit;
    maxConnections_ = static_cast<std::size_t>(std::max<std::uint64_t>(limit / 2, 4));
    maxIdleConnections_ = static_cast<std::size_t>(std::max<std::uint64_t>(limit / 4, 2));
    // Failures leave libcurl's defaults, which only keep more open.
    api_->multi_setopt(multi_, CURLMOPT_MAX_TOTAL_CONNECTIONS, static_cast<long>(maxConnections_));
    api_->multi_setopt(multi_, CURLMOPT_MAXCONNECTS, static_cast<long>(maxIdleConnections_));
}

CurlTransfers::~CurlTransfers() {
    // No transfer is left: each holds its client, which holds this object.
    api_->multi_cleanup(multi_);
}

CURLcode CurlTransfers::perform(CURL* easy) {
    Transfer mine(easy);
    std::unique_lock<std::mutex> lock(mutex_);
    queued_.push_back(&mine);
    if (driving_) api_->multi_wakeup(multi_);
    for (;;) {
        if (mine.done) return mine.result;
        if (!driving_) {
            drive(lock, mine);
            return mine.result;
        }
        mine.wake.wait(lock);
    }
}

void CurlTransfers::addQueued() {
    for (Transfer* t : queued_) {
        try {
            const auto entry = running_.emplace(t->easy, t).first;
            if (api_->multi_add_handle(multi_, t->easy) == CURLM_OK) continue;
            running_.erase(entry);
        } catch (const std::bad_alloc&) {
        }
        t->result = CURLE_OUT_OF_MEMORY;
        t->done = true;
        t->wake.notify_one();
    }
    queued_.clear();
}

void CurlTransfers::finish(CURL* easy, CURLcode result, const Transfer& mine) {
    const auto found = running_.find(easy);
    if (found == running_.end()) return;
    Transfer* t = found->second;
    running_.erase(found);
    t->result = result;
    t->done = true;
    if (t != &mine) t->wake.notify_one();
}

void CurlTransfers::drive(std::unique_lock<std::mutex>& lock, Transfer& mine) {
    driving_ = true;
    while (!mine.done) {
        addQueued();
        if (mine.done) break;
        lock.unlock();
        // Only the driver is in the multi handle; the other threads touch
        // the queue, under the lock, and wake the poll.
        int running = 0;
        api_->multi_perform(multi_, &running);
        int left = 0;
        while (CURLMsg* message = api_->multi_info_read(multi_, &left)) {
            if (message->msg != CURLMSG_DONE) continue;
            CURL* easy = message->easy_handle;
            const CURLcode result = message->data.result;
            api_->multi_remove_handle(multi_, easy);  // ends the message too
            lock.lock();
            finish(easy, result, mine);
            lock.unlock();
        }
        lock.lock();
        if (mine.done || !queued_.empty()) continue;
        lock.unlock();
        api_->multi_poll(multi_, nullptr, 0, kMaxPoll_ms, nullptr);
        lock.lock();
    }
    driving_ = false;
    passDriving();
}

void CurlTransfers::passDriving() {
    if (!running_.empty()) {
        running_.begin()->second->wake.notify_one();
    } else if (!queued_.empty()) {
        queued_.front()->wake.notify_one();
    }
}

}  // namespace shared
}  // namespace vela
}  // namespace zt
