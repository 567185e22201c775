#pragma once

#include "app/utilities/file_io.hpp"

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>

namespace mirelclient {

/// Runs each connection on a thread of its own, without a limit on their number. A thread that is
/// done waits a while for another connection, since starting one costs more than most answers; the
/// one that ran last is the first to be used again.
///
/// Ownership: the threads are detached and share the job; they may outlive this object, whose
/// destructor sends the waiting ones home and leaves the others to finish.
/// Thread safety: safe from any thread; one internal lock, not held while the job runs.
/// Errors: if no thread can be started, the connection is closed.
class ConnectionThreads {
public:
    using Job = std::function<void(tessaron::UniqueFd)>;

    /// Threads that wait for a connection, at most.
    static constexpr std::size_t K_MAX_IDLE = 128;
    static constexpr std::chrono::seconds K_IDLE_TIME{5};

    /// The job is called on the connection threads, several at a time, and may block.
    explicit ConnectionThreads(Job job);
    ~ConnectionThreads();
    ConnectionThreads(ConnectionThreads const&) = delete;
    ConnectionThreads& operator=(ConnectionThreads const&) = delete;

    void run(tessaron::UniqueFd connection);

private:
    class Pool;

    std::shared_ptr<Pool> pool_;
};

} // namespace mirelclient
