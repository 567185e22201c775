#pragma once

#include "app/utilities/start_thread.hpp"
#include "libraries/vocabulary/Mutex.hpp"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <thread>
#include <utility>

namespace proto {

/// Hands frames from the transport's reader to a worker of its own, which calls one handler, one
/// frame at a time, in order. It holds `K_MAX_QUEUE` frames besides those that the worker has
/// taken; one more, and the oldest is lost.
///
/// A slow handler costs frames; a worker that merely has not run yet must not. So a reader that
/// finds the queue full gives way first:
/// - While the worker waits, or has been notified and not been scheduled yet, the reader waits
/// until
///   it has taken the frames. No handler is in this way: the worker takes them before it calls one.
/// - While the worker is among the handlers, whether one is slow or the system lets another thread
///   run, cannot be told. The reader's patience with that is short, and is one for all its waits
///   until the worker has caught up, that is, has come to an empty queue. A handler that is slow
///   for good is therefore waited for once and never again.
///
/// Thread safety: safe from any thread; one internal lock, never held while the handler runs.
/// Errors: an exception out of the handler ends the process.
template <typename Frame>
class FrameQueue {
public:
    using Handler = std::function<void(Frame&&)>;
    static constexpr std::size_t K_MAX_QUEUE = 100;
    static constexpr std::chrono::milliseconds K_PATIENCE{20};
    /// A worker that sleeps is woken for so many frames, whatever is to come.
    static constexpr std::size_t K_MAX_BATCH = 16;

    explicit FrameQueue(std::chrono::nanoseconds patience = K_PATIENCE)
        : full_patience_(patience), patience_(patience) {
        worker_ = tessaron::start_thread("frame-worker", [this] { run(); });
    }
    ~FrameQueue() { stop(); }
    FrameQueue(FrameQueue const&) = delete;
    FrameQueue& operator=(FrameQueue const&) = delete;

    /// Replaces the handler, from the next frames that the worker takes on. Without one they are
    /// dropped.
    void set_handler(Handler handler) TESSARON_EXCLUDES(mutex_) {
        auto shared = std::make_shared<Handler const>(std::move(handler));
        tessaron::MutexLock const lock(mutex_);
        handler_.swap(shared); // The former one goes when the lock is free again, or later.
    }

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
        taken_.notify_all();
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
    using Clock = std::chrono::steady_clock;

    void give_way_locked(tessaron::MutexLock& lock) TESSARON_REQUIRES(mutex_) {
        auto const has_room = [this]() TESSARON_REQUIRES(mutex_) {
            return frames_.size() < K_MAX_QUEUE || !running_;
        };
        if (!is_delivering_) {
            taken_.wait(lock.native(), has_room);
        } else if (patience_ > Clock::duration::zero()) {
            auto const begin = Clock::now();
            taken_.wait_until(lock.native(), begin + patience_, has_room);
            patience_ -= Clock::now() - begin;
        }
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
            is_delivering_ = true;
            auto const handler = handler_;
            lock.unlock();
            taken_.notify_all();
            if (handler != nullptr && *handler) {
                for (Frame& frame : taken) {
                    (*handler)(std::move(frame));
                }
            }
            taken.clear();
            lock.lock();
            is_delivering_ = false;
        }
    }

    void wait_for_frames_locked(tessaron::MutexLock& lock) TESSARON_REQUIRES(mutex_) {
        if (frames_.empty()) {
            patience_ = full_patience_;
        }
        is_idle_ = true;
        queue_ready_.wait(lock.native(), [this]() TESSARON_REQUIRES(mutex_) {
            return !running_ || !frames_.empty();
        });
        is_idle_ = false;
    }

    std::chrono::nanoseconds const full_patience_;
    tessaron::Mutex mutex_;
    std::condition_variable queue_ready_; ///< There are frames, or an end.
    std::condition_variable taken_;       ///< The worker has taken the frames, or ends.
    std::deque<Frame> frames_ TESSARON_GUARDED_BY(mutex_);
    std::shared_ptr<Handler const> handler_ TESSARON_GUARDED_BY(mutex_);
    bool running_ TESSARON_GUARDED_BY(mutex_) = true;
    bool is_idle_ TESSARON_GUARDED_BY(mutex_) = false;
    bool is_delivering_ TESSARON_GUARDED_BY(mutex_) = false;
    std::chrono::nanoseconds patience_ TESSARON_GUARDED_BY(mutex_);
    std::thread worker_;
};

} // namespace proto
