#pragma once

#include "app/utilities/file_io.hpp"

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

namespace mirelclient {

/// Runs each connection on a thread of its own, without a limit on their number: no connection
/// ever waits for another one to end. Starting a thread costs more than most answers, so one that
/// is done takes the next connection at once, or waits a while for it; the one that ran last is
/// the first to be woken.
///
/// Ownership: the threads are detached and share the job; they may outlive this object, whose
/// destructor sends the waiting ones home and leaves the others to finish.
/// Thread safety: safe from any thread; one internal lock, not held while the job runs.
/// Errors: if no thread can be started, the connections that need one are closed.
class ConnectionThreads {
public:
    using Job = std::function<void(tessaron::UniqueFd)>;

    /// Threads that wait for a connection, at most.
    static constexpr std::size_t K_MAX_IDLE = 128;
    static constexpr std::chrono::milliseconds K_IDLE_TIME{5000};

    /// The job is called on the connection threads, several at a time, and may block. A thread
    /// that has waited for `idle_time` leaves.
    explicit ConnectionThreads(Job job, std::chrono::milliseconds idle_time = K_IDLE_TIME);
    ~ConnectionThreads();
    ConnectionThreads(ConnectionThreads const&) = delete;
    ConnectionThreads& operator=(ConnectionThreads const&) = delete;

    /// Takes all of them, and leaves an empty vector.
    void run(std::vector<tessaron::UniqueFd>& connections);

private:
    class Pool;

    std::shared_ptr<Pool> pool_;
};

} // namespace mirelclient
