#pragma once

#include "libraries/vocabulary/CustomSpan.hpp"
#include "libraries/vocabulary/Mutex.hpp"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

namespace proto::interface {

/// A byte that what is received has at a place.
struct ByteAt {
    std::size_t offset;
    unsigned char value;
};

/// A transport: moves bytes and knows nothing of frames, save that it may be told where one begins
/// and ends.
///
/// Ownership: receivers keep the shared pointer that `add_receive_callback` returned for as long as
/// they want to hear; the transport holds weak ones and forgets those that have gone.
/// Thread safety: safe from any thread. Callbacks run on the transport's own threads, under the
/// callbacks' mutex: when a receiver lets go of its pointer a call may still be under way; see
/// `wait_for_callbacks`.
/// Errors: `false` or -1; a transport never throws and never logs.
class IInterface {
public:
    /// The bytes, and where the receiver may note how many of them it has used.
    using ReceiveCallback =
        std::function<void(tessaron::CustomSpan<unsigned char>, unsigned long&)>;

    explicit IInterface(char const* name) : name_(name) {}
    virtual ~IInterface() = default;
    IInterface(IInterface const&) = delete;
    IInterface& operator=(IInterface const&) = delete;

    virtual bool write(tessaron::CustomSpan<unsigned char> bytes,
                       std::chrono::milliseconds timeout) = 0;
    virtual bool is_open() = 0;
    virtual bool open() = 0;
    virtual bool close() = 0;
    /// What is written up to `end_frame`, by this thread, belongs together.
    virtual void begin_frame() {}
    virtual void end_frame() {}
    [[nodiscard]] virtual std::shared_ptr<ReceiveCallback>
    add_receive_callback(ReceiveCallback const& callback);
    virtual long read(unsigned char* buffer, unsigned long size) = 0;

    /// The frames up to `end_burst`, by this thread, may leave together: one call of the system for
    /// many of them. Each stays a frame, and a datagram, of its own. May be nested.
    virtual void begin_burst() {}
    virtual void end_burst() {}

    /// Whether what is handed to the receivers at once is what was sent at once, as a datagram is,
    /// and not a piece of a stream: nothing goes on in the next one.
    virtual bool keeps_boundaries() const noexcept { return false; }

    /// Whether more is about to be handed to the receivers, without a wait: they may put off what
    /// is to be done once for all of it. Only from a receiver; the last of the calls always says
    /// no.
    bool has_more_for_receivers() const noexcept { return has_more_; }

    /// What begins with a frame that has all of these bytes is nothing to the receiver that says
    /// so. A transport may leave it out as long as there is no other receiver. Empty: nothing may
    /// be left out. The receiver takes it back before it lets go of its pointer.
    virtual void set_unwanted(std::vector<ByteAt> const& /*bytes*/) {}

    /// What a receiver still has to do for what it has been handed.
    using FollowUp = std::function<void()>;
    /// Has the thread that calls the receivers do it once they have been handed all that there is,
    /// with no lock held, while another thread reads on: it may take as long as it likes. False
    /// where no other thread is free to read on; then it is left to the receiver. Only from a
    /// receiver.
    virtual bool follow_up(std::shared_ptr<FollowUp const> const& /*work*/) { return false; }

    /// Returns when no call to a receiver is under way any more that began before: one that has let
    /// go of its pointer may then go itself. Never from a receiver.
    void wait_for_callbacks();

    char const* name() const noexcept { return name_; }

protected:
    /// Hands the bytes to all receivers that are still there, the last added first. `has_more`: the
    /// same thread is to call again at once.
    void notify_receivers(tessaron::CustomSpan<unsigned char> bytes, bool has_more = false);

    /// Those that have gone count until the next call.
    std::size_t receiver_count() const noexcept { return receiver_count_; }

private:
    char const* const name_;
    tessaron::Mutex callbacks_mutex_;
    std::atomic<std::size_t> receiver_count_{0};
    bool has_more_ = false; ///< Changes under `callbacks_mutex_`, which callbacks run under.
    std::vector<std::weak_ptr<ReceiveCallback>> callbacks_ TESSARON_GUARDED_BY(callbacks_mutex_);
};

} // namespace proto::interface
