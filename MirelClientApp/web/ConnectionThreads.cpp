#include "MirelClientApp/web/ConnectionThreads.hpp"

#include "libraries/threads/start_thread.hpp"
#include "libraries/vocabulary/Mutex.hpp"

#include <condition_variable>
#include <deque>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

namespace mirelclient {

using tessaron::Mutex;
using tessaron::MutexLock;
using tessaron::UniqueFd;

/// What the threads share. Connections stand in a queue, and as long as one stands there a thread
/// has been called to it. The called thread takes one and calls the next thread before it begins,
/// so that each connection gets a thread without waiting for another connection; but a thread that
/// is just done gets there before a called one, and under load most calls are never made.
class ConnectionThreads::Pool : public std::enable_shared_from_this<Pool> {
public:
    Pool(Job job, std::chrono::milliseconds idle_time)
        : job_(std::move(job)), idle_time_(idle_time) {}

    void add(std::vector<UniqueFd>& connections) TESSARON_EXCLUDES(mutex_);
    void close() TESSARON_EXCLUDES(mutex_);

private:
    /// One thread. Shared, so that it can be notified outside the lock, when it may be gone.
    struct Worker {
        std::condition_variable woken;
        bool called = false;
    };
    using WorkerPtr = std::shared_ptr<Worker>;

    /// The body of a thread.
    void serve(WorkerPtr const& self) TESSARON_EXCLUDES(mutex_);
    /// Takes a connection, or waits for it; none when it is time to leave.
    UniqueFd next_connection(WorkerPtr const& self) TESSARON_EXCLUDES(mutex_);
    bool wait_until_called_locked(MutexLock& lock, WorkerPtr const& self) TESSARON_REQUIRES(mutex_);

    /// The thread to call, new if none waits; nothing if no connection needs one.
    std::optional<WorkerPtr> choose_locked() TESSARON_REQUIRES(mutex_);
    void call(std::optional<WorkerPtr> const& chosen) TESSARON_EXCLUDES(mutex_);
    void start_thread() TESSARON_EXCLUDES(mutex_);

    Job const job_;
    std::chrono::milliseconds const idle_time_;
    Mutex mutex_;
    std::deque<UniqueFd> queue_ TESSARON_GUARDED_BY(mutex_);
    std::vector<WorkerPtr> waiting_ TESSARON_GUARDED_BY(mutex_);
    /// A thread was called and has not come yet.
    bool call_pending_ TESSARON_GUARDED_BY(mutex_) = false;
    bool closed_ TESSARON_GUARDED_BY(mutex_) = false;
};

void ConnectionThreads::Pool::add(std::vector<UniqueFd>& connections) {
    std::optional<WorkerPtr> chosen;
    {
        MutexLock const lock(mutex_);
        for (UniqueFd& connection : connections) {
            queue_.push_back(std::move(connection));
        }
        chosen = choose_locked();
    }
    connections.clear();
    call(chosen);
}

void ConnectionThreads::Pool::close() {
    MutexLock const lock(mutex_);
    closed_ = true;
    for (WorkerPtr const& worker : waiting_) {
        worker->woken.notify_one();
    }
}

void ConnectionThreads::Pool::serve(WorkerPtr const& self) {
    for (;;) {
        UniqueFd connection = next_connection(self);
        if (!connection.is_open()) {
            return;
        }
        job_(std::move(connection));
    }
}

UniqueFd ConnectionThreads::Pool::next_connection(WorkerPtr const& self) {
    UniqueFd connection;
    std::optional<WorkerPtr> chosen;
    {
        MutexLock lock(mutex_);
        for (;;) {
            if (std::exchange(self->called, false)) {
                call_pending_ = false;
            }
            if (!queue_.empty()) {
                break;
            }
            if (!wait_until_called_locked(lock, self)) {
                return {};
            }
        }
        connection = std::move(queue_.front());
        queue_.pop_front();
        chosen = choose_locked();
    }
    call(chosen);
    return connection;
}

bool ConnectionThreads::Pool::wait_until_called_locked(MutexLock& lock, WorkerPtr const& self) {
    if (closed_ || waiting_.size() >= K_MAX_IDLE) {
        return false;
    }
    waiting_.push_back(self);
    self->woken.wait_for(lock.native(), idle_time_, [this, &self]() TESSARON_REQUIRES(mutex_) {
        return closed_ || self->called;
    });
    if (!self->called) {
        std::erase(waiting_, self);
    }
    return self->called;
}

std::optional<ConnectionThreads::Pool::WorkerPtr> ConnectionThreads::Pool::choose_locked() {
    if (queue_.empty() || call_pending_) {
        return std::nullopt;
    }
    call_pending_ = true;
    if (waiting_.empty()) {
        return WorkerPtr();
    }
    WorkerPtr worker = std::move(waiting_.back());
    waiting_.pop_back();
    worker->called = true;
    return worker;
}

void ConnectionThreads::Pool::call(std::optional<WorkerPtr> const& chosen) {
    if (!chosen) {
        return;
    }
    if (*chosen) {
        (*chosen)->woken.notify_one();
    } else {
        start_thread();
    }
}

void ConnectionThreads::Pool::start_thread() {
    auto const worker = std::make_shared<Worker>();
    worker->called = true;
    try {
        tessaron::start_thread("web-connection", [pool = shared_from_this(), worker] {
            pool->serve(worker);
        }).detach();
    } catch (std::system_error const&) {
        std::deque<UniqueFd> unserved;
        MutexLock const lock(mutex_);
        call_pending_ = false;
        unserved.swap(queue_);
    }
}

ConnectionThreads::ConnectionThreads(Job job, std::chrono::milliseconds idle_time)
    : pool_(std::make_shared<Pool>(std::move(job), idle_time)) {
}

ConnectionThreads::~ConnectionThreads() {
    pool_->close();
}

void ConnectionThreads::run(std::vector<UniqueFd>& connections) {
    pool_->add(connections);
}

} // namespace mirelclient
