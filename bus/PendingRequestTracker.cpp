#include "bus/PendingRequestTracker.hpp"

#include <utility>

namespace tessaron::bus {

void Waiter::deliver(std::uint32_t source, std::vector<std::uint8_t> payload) {
    {
        MutexLock lock(mutex_);
        responses_[source] = std::move(payload);
    }
    changed_.notify_all();
}

std::optional<RequestReply> Waiter::wait_for_first(std::chrono::milliseconds timeout) {
    MutexLock lock(mutex_);
    changed_.wait_for(lock.native(), timeout, [this]() TESSARON_REQUIRES(mutex_) {
        return closed_ || !responses_.empty();
    });
    if (responses_.empty()) {
        return std::nullopt;
    }
    auto const& [source, payload] = *responses_.begin();
    return RequestReply{source, payload};
}

std::vector<RequestReply> Waiter::collect(std::chrono::milliseconds timeout) {
    MutexLock lock(mutex_);
    changed_.wait_for(lock.native(), timeout,
                      [this]() TESSARON_REQUIRES(mutex_) { return closed_; });
    return all_locked();
}

std::vector<RequestReply>
Waiter::collect_more_than(std::size_t count, std::chrono::steady_clock::time_point deadline) {
    MutexLock lock(mutex_);
    changed_.wait_until(lock.native(), deadline, [&]() TESSARON_REQUIRES(mutex_) {
        return closed_ || responses_.size() > count;
    });
    return all_locked();
}

void Waiter::close() {
    {
        MutexLock lock(mutex_);
        closed_ = true;
    }
    changed_.notify_all();
}

std::vector<RequestReply> Waiter::all_locked() const {
    std::vector<RequestReply> replies;
    replies.reserve(responses_.size());
    for (auto const& [source, payload] : responses_) {
        replies.push_back({source, payload});
    }
    return replies;
}

std::shared_ptr<Waiter> PendingRequestTracker::register_waiter(std::uint32_t msg_id) {
    auto waiter = std::make_shared<Waiter>();
    MutexLock lock(mutex_);
    if (closed_) {
        waiter->close();
    }
    waiters_[msg_id] = waiter;
    return waiter;
}

bool PendingRequestTracker::deliver(std::uint32_t msg_id, std::uint32_t source,
                                    std::vector<std::uint8_t> payload) {
    std::shared_ptr<Waiter> waiter;
    {
        MutexLock lock(mutex_);
        auto const found = waiters_.find(msg_id);
        if (found == waiters_.end()) {
            return false;
        }
        waiter = found->second;
    }
    waiter->deliver(source, std::move(payload));
    return true;
}

void PendingRequestTracker::unregister(std::uint32_t msg_id) {
    MutexLock lock(mutex_);
    waiters_.erase(msg_id);
}

std::size_t PendingRequestTracker::size() const {
    MutexLock lock(mutex_);
    return waiters_.size();
}

void PendingRequestTracker::close() {
    MutexLock lock(mutex_);
    closed_ = true;
    for (auto const& [msg_id, waiter] : waiters_) {
        waiter->close();
    }
}

} // namespace tessaron::bus
