#include "MirelClientApp/web/ConnectionThreads.hpp"

#include "libraries/vocabulary/Mutex.hpp"

#include <algorithm>
#include <condition_variable>
#include <pthread.h>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace mirelclient {

using tessaron::Mutex;
using tessaron::MutexLock;
using tessaron::UniqueFd;

/// The state that the threads share.
class ConnectionThreads::Pool {
public:
    explicit Pool(Job job) : job_(std::move(job)) {}

    /// Hands the connection to a waiting thread; if there is none, it stays with the caller.
    bool hand_over(UniqueFd& connection) TESSARON_EXCLUDES(mutex_);
    /// The body of a thread: its first connection, then those that are handed to it.
    void serve(UniqueFd connection) TESSARON_EXCLUDES(mutex_);
    void close() TESSARON_EXCLUDES(mutex_);

private:
    /// One waiting thread. It is shared so that it can be notified outside the lock, when its
    /// thread may be gone already.
    struct Waiter {
        std::condition_variable woken;
        UniqueFd connection;
    };

    /// Waits for another connection; none when it is time to leave.
    UniqueFd wait_for_connection(std::shared_ptr<Waiter> const& self) TESSARON_EXCLUDES(mutex_);

    Job const job_;
    Mutex mutex_;
    std::vector<std::shared_ptr<Waiter>> waiters_ TESSARON_GUARDED_BY(mutex_);
    bool closed_ TESSARON_GUARDED_BY(mutex_) = false;
};

bool ConnectionThreads::Pool::hand_over(UniqueFd& connection) {
    std::shared_ptr<Waiter> waiter;
    {
        MutexLock const lock(mutex_);
        if (waiters_.empty()) {
            return false;
        }
        waiter = std::move(waiters_.back());
        waiters_.pop_back();
        waiter->connection = std::move(connection);
    }
    waiter->woken.notify_one();
    return true;
}

void ConnectionThreads::Pool::serve(UniqueFd connection) {
    auto const self = std::make_shared<Waiter>();
    do {
        job_(std::move(connection));
        connection = wait_for_connection(self);
    } while (connection.is_open());
}

UniqueFd ConnectionThreads::Pool::wait_for_connection(std::shared_ptr<Waiter> const& self) {
    MutexLock lock(mutex_);
    if (closed_ || waiters_.size() >= K_MAX_IDLE) {
        return {};
    }
    waiters_.push_back(self);
    self->woken.wait_for(lock.native(), K_IDLE_TIME, [this, &self]() TESSARON_REQUIRES(mutex_) {
        return closed_ || self->connection.is_open();
    });
    if (!self->connection.is_open()) {
        std::erase(waiters_, self);
    }
    return std::move(self->connection);
}

void ConnectionThreads::Pool::close() {
    MutexLock const lock(mutex_);
    closed_ = true;
    for (auto const& waiter : waiters_) {
        waiter->woken.notify_one();
    }
}

ConnectionThreads::ConnectionThreads(Job job) : pool_(std::make_shared<Pool>(std::move(job))) {
}

ConnectionThreads::~ConnectionThreads() {
    pool_->close();
}

void ConnectionThreads::run(UniqueFd connection) {
    if (pool_->hand_over(connection)) {
        return;
    }
    try {
        std::thread([pool = pool_, fd = std::move(connection)]() mutable {
            pthread_setname_np(pthread_self(), "web-connection");
            pool->serve(std::move(fd));
        }).detach();
    } catch (std::system_error const&) {
        // Out of threads: the connection is closed, the next one may fare better.
    }
}

} // namespace mirelclient
