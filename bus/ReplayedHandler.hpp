#pragma once

#include "libraries/vocabulary/Mutex.hpp"
#include "proto/bus/Bytes.hpp"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace tessaron::bus {

/// An event handler that gets what is retained before what is new, so that the last value that it
/// hears is the latest. Events that come while the retained ones are being handed over wait for
/// that, and are then handled by the thread that does it.
///
///     waiting --replay--> replaying --all handed over--> live
///
/// Ownership: shared by the table of handlers and the thread that subscribes.
/// Thread safety: safe from any thread; one internal lock, never held while the handler runs.
/// `replay` once.
/// Errors: the handler must not throw.
class ReplayedHandler {
public:
    using Bytes = proto::bus::Bytes;
    using Handler =
        std::function<void(std::string const& topic, Bytes const& payload, std::uint32_t source)>;
    using Retained = std::vector<std::pair<std::string, Bytes>>;

    /// Events that wait; beyond it the oldest are dropped.
    static constexpr std::size_t K_MAX_WAITING = 256;

    explicit ReplayedHandler(Handler handler) : handler_(std::move(handler)) {}

    void handle(std::string const& topic, Bytes const& payload, std::uint32_t source)
        TESSARON_EXCLUDES(mutex_);
    /// What is retained has no source any more: the handler gets 0.
    void replay(Retained const& retained) TESSARON_EXCLUDES(mutex_);

private:
    struct Event {
        std::string topic;
        Bytes payload;
        std::uint32_t source;
    };

    Handler const handler_;
    std::atomic<bool> live_{false}; ///< Becomes true under the mutex.
    Mutex mutex_;
    std::deque<Event> waiting_ TESSARON_GUARDED_BY(mutex_);
};

} // namespace tessaron::bus
