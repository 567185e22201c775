#pragma once

#include "app/utilities/start_thread.hpp"
#include "libraries/vocabulary/Mutex.hpp"

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <thread>
#include <utility>

namespace proto {

/// How long the handler of a `FrameQueue` may take.
enum class HandlerPace : std::uint8_t {
    UNKNOWN, ///< As long as it likes, at any time.
    TOLD,    ///< As long as it likes within a `FrameQueue::Slow`; what it does besides is short.
};

/// Hands frames from the transport's reader to a worker of its own, which calls one handler, one
/// frame at a time, in order. It holds `K_MAX_QUEUE` frames besides those that the worker has
/// taken; one more, and the oldest is lost.
///
/// A slow handler costs frames, and never holds up the reader; a worker that merely has not run yet
/// must not cost any. So a reader that finds the queue full gives way first
/// - while the worker waits, or has been notified and not been scheduled yet: it takes the frames
///   before it calls a handler;
/// - while a handler that tells its pace is not in a slow part: it is through soon.
///
/// Thread safety: safe from any thread; one internal lock, never held while the handler runs.
/// Errors: an exception out of the handler ends the process.
template <typename Frame>
class FrameQueue {
public:
    using Handler = std::function<void(Frame&&)>;
    static constexpr std::size_t K_MAX_QUEUE = 100;
    /// A worker that sleeps is woken for so many frames, whatever is to come.
    static constexpr std::size_t K_MAX_BATCH = 16;

    FrameQueue() {
        worker_ = tessaron::start_thread("frame-worker", [this] { run(); });
    }
    ~FrameQueue() { stop(); }
    FrameQueue(FrameQueue const&) = delete;
    FrameQueue& operator=(FrameQueue const&) = delete;

    /// Replaces the handler, from the next frames that the worker takes on. Without one they are
    /// dropped.
    void set_handler(Handler handler, HandlerPace pace = HandlerPace::UNKNOWN)
        TESSARON_EXCLUDES(mutex_) {
        auto shared = std::make_shared<PacedHandler const>(std::move(handler), pace);
        tessaron::MutexLock const lock(mutex_);
        handler_.swap(shared); // The former one goes when the lock is free again, or later.
    }

    /// What the handler does from here to `end_slow` may take as long as it likes. May be nested;
    /// without a meaning on other threads than the worker.
    void begin_slow() TESSARON_EXCLUDES(mutex_) { change_slow_depth(1); }
    void end_slow() TESSARON_EXCLUDES(mutex_) { change_slow_depth(-1); }

    /// `has_more`: `push` or `wake` is to be called again at once, so the worker need not be woken
    /// for this frame alone.
    void push(Frame&& frame, bool has_more = false) TESSARON_EXCLUDES(mutex_) {
        tessaron::MutexLock lock(mutex_);
        if (frames_.size() >= K_MAX_QUEUE) {
            give_way_locked(lock);
        }
        frames_.push_back(std::move(frame));
        if (frames_.size() > K_MAX_QUEUE) {
            frames_.pop_front();
        }
        bool const is_waking = is_idle_ && (!has_more || frames_.size() >= K_MAX_BATCH);
        lock.unlock();
        if (is_waking) {
            queue_ready_.notify_one();
        }
    }

    /// Ends what `push` began with more to come.
    void wake() TESSARON_EXCLUDES(mutex_) {
        tessaron::MutexLock lock(mutex_);
        bool const is_waking = is_idle_ && !frames_.empty();
        lock.unlock();
        if (is_waking) {
            queue_ready_.notify_one();
        }
    }

    /// Lets the worker end after the frames it has taken; a reader that gives way goes on.
    void request_stop() TESSARON_EXCLUDES(mutex_) {
        tessaron::MutexLock const lock(mutex_);
        running_ = false;
        queue_ready_.notify_all();
        may_go_on_.notify_all();
    }

    /// Returns when the worker has ended; frames that it had not taken are lost. Not from the
    /// handler.
    void stop() TESSARON_EXCLUDES(mutex_) {
        request_stop();
        if (worker_.joinable()) {
            worker_.join();
        }
    }

private:
    struct PacedHandler {
        Handler call;
        HandlerPace pace;
    };

    void change_slow_depth(int change) TESSARON_EXCLUDES(mutex_) {
        if (std::this_thread::get_id() != worker_.get_id()) {
            return;
        }
        tessaron::MutexLock const lock(mutex_);
        slow_depth_ += change;
        if (slow_depth_ > 0) {
            may_go_on_.notify_all();
        }
    }

    void give_way_locked(tessaron::MutexLock& lock) TESSARON_REQUIRES(mutex_) {
        may_go_on_.wait(lock.native(), [this]() TESSARON_REQUIRES(mutex_) {
            return frames_.size() < K_MAX_QUEUE || !running_ || slow_depth_ > 0;
        });
    }

    void run() TESSARON_EXCLUDES(mutex_) {
        std::deque<Frame> taken;
        tessaron::MutexLock lock(mutex_);
        while (true) {
            wait_for_frames_locked(lock);
            if (!running_) {
                return;
            }
            taken.swap(frames_);
            auto const handler = handler_;
            bool const is_slow = handler != nullptr && handler->pace == HandlerPace::UNKNOWN;
            slow_depth_ = is_slow ? 1 : 0;
            lock.unlock();
            may_go_on_.notify_all();
            if (handler != nullptr && handler->call) {
                for (Frame& frame : taken) {
                    handler->call(std::move(frame));
                }
            }
            taken.clear();
            lock.lock();
            slow_depth_ = 0;
        }
    }

    void wait_for_frames_locked(tessaron::MutexLock& lock) TESSARON_REQUIRES(mutex_) {
        is_idle_ = true;
        queue_ready_.wait(lock.native(), [this]() TESSARON_REQUIRES(mutex_) {
            return !running_ || !frames_.empty();
        });
        is_idle_ = false;
    }

    tessaron::Mutex mutex_;
    std::condition_variable queue_ready_; ///< There are frames, or an end.
    std::condition_variable may_go_on_;   ///< A reader that gives way need not any more.
    std::deque<Frame> frames_ TESSARON_GUARDED_BY(mutex_);
    std::shared_ptr<PacedHandler const> handler_ TESSARON_GUARDED_BY(mutex_);
    bool running_ TESSARON_GUARDED_BY(mutex_) = true;
    bool is_idle_ TESSARON_GUARDED_BY(mutex_) = false;
    int slow_depth_ TESSARON_GUARDED_BY(mutex_) = 0; ///< Above 0: the worker may take long.
    std::thread worker_;
};

} // namespace proto
