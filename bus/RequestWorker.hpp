#pragma once

#include "libraries/vocabulary/Mutex.hpp"
#include "proto/bus/Bytes.hpp"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace tessaron::bus {

/// One request that waits for its handlers.
struct RequestTask {
    using Handler = std::function<proto::bus::Bytes(
        std::string const& topic, proto::bus::Bytes const& payload, std::uint32_t requester)>;

    std::vector<Handler> handlers;
    std::string topic;
    proto::bus::Bytes payload;
    std::uint32_t requester = 0; ///< Where the replies go.
    std::uint32_t msg_id = 0;
};

/// Runs request handlers, strictly one request at a time, on a thread of its own or one that calls
/// `work`, so that a handler may block without holding up events and responses.
///
/// A queue that is full takes no more: requests beyond it end in their askers' time-outs, like any
/// that is lost.
///
/// Ownership: its thread, which `stop` joins; what its `Run` captures outlives that.
/// Thread safety: safe from any thread; one internal lock, never held while a task runs. `stop` is
/// its owner's alone, and not from a task.
/// Errors: none; a `Run` must not throw.
class RequestWorker {
public:
    using Run = std::function<void(RequestTask const&)>;

    static constexpr std::size_t K_MAX_TASKS = 4096;
    /// Of the payloads of all tasks that wait.
    static constexpr std::size_t K_MAX_QUEUED_BYTES = std::size_t{64} * 1024 * 1024;

    RequestWorker(char const* thread_name, Run run);
    ~RequestWorker() { stop(); }
    RequestWorker(RequestWorker const&) = delete;
    RequestWorker& operator=(RequestWorker const&) = delete;

    /// False when the task was dropped: the queue is full, or the worker has been stopped.
    bool push(RequestTask task) TESSARON_EXCLUDES(mutex_);
    /// The same by who calls `wake` or `work` afterwards.
    bool push_quietly(RequestTask task) TESSARON_EXCLUDES(mutex_);
    /// Has the thread run the tasks that wait.
    void wake() TESSARON_EXCLUDES(mutex_);
    /// Runs them on this thread, unless they are being run.
    void work() TESSARON_EXCLUDES(mutex_);
    /// Returns when the task that is running has ended; those that wait are dropped.
    void stop() TESSARON_EXCLUDES(mutex_);

private:
    void run() TESSARON_EXCLUDES(mutex_);
    bool is_needed_locked() const TESSARON_REQUIRES(mutex_) {
        return running_ && !is_working_ && !tasks_.empty();
    }

    Run const run_task_;
    Mutex mutex_;
    std::condition_variable changed_;
    std::deque<RequestTask> tasks_ TESSARON_GUARDED_BY(mutex_);
    std::size_t queued_bytes_ TESSARON_GUARDED_BY(mutex_) = 0;
    bool running_ TESSARON_GUARDED_BY(mutex_) = true;
    bool is_working_ TESSARON_GUARDED_BY(mutex_) = false; ///< The thread, or who called `work`.
    std::thread thread_;
};

} // namespace tessaron::bus
