#pragma once

#include "libraries/vocabulary/Mutex.hpp"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

namespace tessaron::bus {

struct RequestReply {
    std::uint32_t source = 0; ///< Who answered.
    std::vector<std::uint8_t> payload;

    bool operator==(RequestReply const&) const = default;
};

/// Collects the responses to one request. A node that answers twice counts once, with its last
/// answer.
///
/// Ownership: shared by the tracker and whoever waits.
/// Thread safety: safe from any thread; one internal lock.
/// Errors: none; a time-out is an empty result.
class Waiter {
public:
    void deliver(std::uint32_t source, std::vector<std::uint8_t> payload) TESSARON_EXCLUDES(mutex_);

    /// Returns as soon as there is a response; of several that came before, any one.
    std::optional<RequestReply> wait_for_first(std::chrono::milliseconds timeout)
        TESSARON_EXCLUDES(mutex_);
    /// All responses of the whole time, since nobody knows how many will come.
    std::vector<RequestReply> collect(std::chrono::milliseconds timeout) TESSARON_EXCLUDES(mutex_);
    /// All responses so far, as soon as they are more than `count`, or at the end of the time.
    std::vector<RequestReply> collect_more_than(std::size_t count,
                                                std::chrono::steady_clock::time_point deadline)
        TESSARON_EXCLUDES(mutex_);
    /// From now on whoever waits returns at once, with what there is.
    void close() TESSARON_EXCLUDES(mutex_);

private:
    std::vector<RequestReply> all_locked() const TESSARON_REQUIRES(mutex_);

    Mutex mutex_;
    std::condition_variable changed_;
    std::unordered_map<std::uint32_t, std::vector<std::uint8_t>>
        responses_ TESSARON_GUARDED_BY(mutex_);
    bool closed_ TESSARON_GUARDED_BY(mutex_) = false;
};

/// The requests under way, by message id: brings a response to the thread that waits for it.
///
/// Ownership: shares each waiter with its thread, from `register_waiter` until `unregister`.
/// Thread safety: safe from any thread; one internal lock, not held while a waiter is notified
/// of a response.
/// Errors: none; a response that nobody waits for any more is dropped.
class PendingRequestTracker {
public:
    std::shared_ptr<Waiter> register_waiter(std::uint32_t msg_id) TESSARON_EXCLUDES(mutex_);
    /// False when nobody waits for this id.
    bool deliver(std::uint32_t msg_id, std::uint32_t source, std::vector<std::uint8_t> payload)
        TESSARON_EXCLUDES(mutex_);
    void unregister(std::uint32_t msg_id) TESSARON_EXCLUDES(mutex_);
    std::size_t size() const TESSARON_EXCLUDES(mutex_);
    /// Closes all waiters, and those to come.
    void close() TESSARON_EXCLUDES(mutex_);

private:
    mutable Mutex mutex_;
    std::unordered_map<std::uint32_t, std::shared_ptr<Waiter>> waiters_ TESSARON_GUARDED_BY(mutex_);
    bool closed_ TESSARON_GUARDED_BY(mutex_) = false;
};

} // namespace tessaron::bus
