#pragma once

#include "libraries/threads/start_thread.hpp"
#include "libraries/vocabulary/Mutex.hpp"

#include <chrono>
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
    TOLD,    ///< As long as it likes between `begin_slow` and `end_slow`, and short besides.
};

/// Hands frames from the transport's reader to a worker, which calls one handler, one frame at a
/// time, in order. The worker is a thread of its own, or any that calls `work` before that one has
/// woken up. It holds `K_MAX_QUEUE` frames besides those that the worker has taken; one more, and
/// the oldest is lost.
///
/// A slow handler costs frames, and never holds up the reader; a worker that merely has not run yet
/// must not cost any. So a reader that finds the queue full gives way first
/// - while the worker waits, or has been notified and not been scheduled yet: it takes the frames
///   before it calls a handler;
/// - while a handler that tells its pace is not in a slow part: it is through soon;
/// - while the slow part has only just begun: most are short, and a thread that the system has put
///   off within one is not slow. It waits no longer than `soon` for it, however many frames come.
///
/// Thread safety: safe from any thread; one internal lock, never held while the handler runs.
/// Errors: an exception out of the handler ends the process.
template <typename Frame>
class FrameQueue {
public:
    using Handler = std::function<void(Frame&&)>;
    /// What the handler has left to do, called after frames. `may_take_long`: on a thread that has
    /// nothing else to do. Otherwise the worker is waiting for its end.
    using Rest = std::function<void(bool may_take_long)>;
    static constexpr std::size_t K_MAX_QUEUE = 100;
    static constexpr std::chrono::milliseconds K_SOON{1};

    /// `soon`: see above.
    explicit FrameQueue(std::chrono::milliseconds soon = K_SOON) : soon_(soon) {
        worker_ = tessaron::start_thread("frame-worker", [this] { run(); });
    }
    ~FrameQueue() { stop(); }
    FrameQueue(FrameQueue const&) = delete;
    FrameQueue& operator=(FrameQueue const&) = delete;

    /// Replaces the handler, from the next frames that the worker takes on. Without one they are
    /// dropped.
    void set_handler(Handler handler, HandlerPace pace = HandlerPace::UNKNOWN, Rest rest = {})
        TESSARON_EXCLUDES(mutex_) {
        auto shared = std::make_shared<PacedHandler const>(
            PacedHandler{std::move(handler), pace, std::move(rest)});
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
        bool const is_waking = !has_more && is_worker_needed_locked();
        lock.unlock();
        if (is_waking) {
            queue_ready_.notify_one();
        }
    }

    /// Ends what `push` began with more to come.
    void wake() TESSARON_EXCLUDES(mutex_) {
        tessaron::MutexLock lock(mutex_);
        bool const is_waking = is_worker_needed_locked();
        lock.unlock();
        if (is_waking) {
            queue_ready_.notify_one();
        }
    }

    /// Does the worker's work on this thread until the queue is empty, unless it is being done, and
    /// then what the handler has left to do: that may take as long as it likes.
    void work() TESSARON_EXCLUDES(mutex_) {
        if (!begin_work(1)) {
            return; // Who works takes what has come meanwhile.
        }
        do_work(true);
        tessaron::MutexLock const lock(mutex_);
        --helpers_;
        may_go_on_.notify_all();
    }

    /// Lets the worker end after the frames it has taken; a reader that gives way goes on.
    void request_stop() TESSARON_EXCLUDES(mutex_) {
        tessaron::MutexLock const lock(mutex_);
        running_ = false;
        queue_ready_.notify_all();
        may_go_on_.notify_all();
    }

    /// Returns when nobody works any more; frames that had not been taken are lost. Not from the
    /// handler.
    void stop() TESSARON_EXCLUDES(mutex_) {
        request_stop();
        if (worker_.joinable()) {
            worker_.join();
        }
        tessaron::MutexLock lock(mutex_);
        may_go_on_.wait(lock.native(), [this]() TESSARON_REQUIRES(mutex_) {
            return !is_working_ && helpers_ == 0;
        });
    }

private:
    using Clock = std::chrono::steady_clock;

    struct PacedHandler {
        Handler call;
        HandlerPace pace;
        Rest rest;

        void do_rest(bool may_take_long) const {
            if (rest) {
                rest(may_take_long);
            }
        }
    };

    void change_slow_depth(int change) TESSARON_EXCLUDES(mutex_) {
        tessaron::MutexLock const lock(mutex_);
        if (std::this_thread::get_id() != worker_id_) {
            return;
        }
        slow_depth_ += change;
        if (change > 0 && slow_depth_ == 1) {
            begin_slow_locked();
        }
    }

    /// Who gives way to this will not wait for its end.
    void begin_slow_locked() TESSARON_REQUIRES(mutex_) {
        slow_since_ = Clock::now();
        may_go_on_.notify_all();
    }

    bool is_worker_needed_locked() const TESSARON_REQUIRES(mutex_) {
        return is_idle_ && !is_working_ && !frames_.empty();
    }

    void give_way_locked(tessaron::MutexLock& lock) TESSARON_REQUIRES(mutex_) {
        if (is_worker_needed_locked()) {
            queue_ready_.notify_one();
        }
        while (frames_.size() >= K_MAX_QUEUE && running_) {
            if (slow_depth_ == 0) {
                may_go_on_.wait(lock.native());
            } else if (Clock::now() >= slow_since_ + soon_) {
                return;
            } else {
                may_go_on_.wait_until(lock.native(), slow_since_ + soon_);
            }
        }
    }

    void run() TESSARON_EXCLUDES(mutex_) {
        while (wait_for_frames()) {
            if (begin_work(0)) {
                do_work(false);
            }
        }
    }

    void do_work(bool may_take_long) TESSARON_EXCLUDES(mutex_) {
        std::shared_ptr<PacedHandler const> last;
        while (auto handler = take_frames()) {
            if (last) {
                last->do_rest(false); // It is not to wait for a lull.
            }
            for (Frame& frame : taken_) {
                if (handler->call) {
                    handler->call(std::move(frame));
                }
            }
            taken_.clear();
            last = std::move(handler);
        }
        if (last) {
            last->do_rest(may_take_long);
        }
    }

    /// False at the end.
    bool wait_for_frames() TESSARON_EXCLUDES(mutex_) {
        tessaron::MutexLock lock(mutex_);
        is_idle_ = true;
        queue_ready_.wait(lock.native(), [this]() TESSARON_REQUIRES(mutex_) {
            return !running_ || (!frames_.empty() && !is_working_);
        });
        is_idle_ = false;
        return running_;
    }

    /// Whoever gets to work is one of so many helpers; the worker itself is none.
    bool begin_work(int helpers) TESSARON_EXCLUDES(mutex_) {
        tessaron::MutexLock const lock(mutex_);
        bool const begins = !std::exchange(is_working_, true);
        helpers_ += begins ? helpers : 0;
        return begins;
    }

    /// The handler of the frames that are now in `taken_`, or null at the end of the work.
    std::shared_ptr<PacedHandler const> take_frames() TESSARON_EXCLUDES(mutex_) {
        tessaron::MutexLock const lock(mutex_);
        is_working_ = running_ && !frames_.empty();
        worker_id_ = is_working_ ? std::this_thread::get_id() : std::thread::id();
        slow_depth_ = 0;
        if (is_working_ && handler_->pace == HandlerPace::UNKNOWN) {
            slow_depth_ = 1;
            begin_slow_locked();
        }
        may_go_on_.notify_all();
        if (!is_working_) {
            return nullptr;
        }
        taken_.swap(frames_);
        return handler_;
    }

    std::chrono::milliseconds const soon_;
    tessaron::Mutex mutex_;
    std::condition_variable queue_ready_; ///< There are frames, or an end.
    std::condition_variable may_go_on_;   ///< A reader that gives way need not any more.
    std::deque<Frame> frames_ TESSARON_GUARDED_BY(mutex_);
    std::deque<Frame> taken_; ///< Of who works.
    std::shared_ptr<PacedHandler const>
        handler_ TESSARON_GUARDED_BY(mutex_) = std::make_shared<PacedHandler const>();
    bool running_ TESSARON_GUARDED_BY(mutex_) = true;
    bool is_idle_ TESSARON_GUARDED_BY(mutex_) = false;      ///< The worker waits.
    bool is_working_ TESSARON_GUARDED_BY(mutex_) = false;   ///< The worker, or who called `work`.
    int helpers_ TESSARON_GUARDED_BY(mutex_) = 0;           ///< Who are within `work`.
    std::thread::id worker_id_ TESSARON_GUARDED_BY(mutex_); ///< Who that is.
    int slow_depth_ TESSARON_GUARDED_BY(mutex_) = 0;        ///< Above 0: it may take long.
    Clock::time_point slow_since_ TESSARON_GUARDED_BY(mutex_);
    std::thread worker_;
};

} // namespace proto
