#pragma once

#include "app/utilities/file_io.hpp"

#include <stop_token>

namespace tessaron {

/// Turns a stop request into a descriptor that polls readable, from the request on and for as long
/// as the object lives.
///
/// Ownership: the descriptor; the destructor waits for a stop request that is just being told.
/// Thread safety: immutable after construction.
/// Errors: `is_usable` is false when the system has no descriptor left.
class StopEvent {
public:
    explicit StopEvent(std::stop_token const& stop);
    StopEvent(StopEvent const&) = delete;
    StopEvent& operator=(StopEvent const&) = delete;

    bool is_usable() const noexcept { return usable_; }
    /// -1 when no stop request can ever come: `poll` skips it.
    int descriptor() const noexcept { return event_.get(); }

private:
    struct Raise {
        void operator()() const noexcept;
        int event;
    };

    UniqueFd event_; // outlives the callback, whose destructor waits for a running call
    bool usable_;
    std::stop_callback<Raise> on_stop_;
};

} // namespace tessaron
