#include "bus/RequestWorker.hpp"

#include "libraries/threads/start_thread.hpp"

#include <utility>

namespace tessaron::bus {

RequestWorker::RequestWorker(char const* thread_name, Run run)
    : run_task_(std::move(run)), thread_(start_thread(thread_name, [this] { this->run(); })) {
}

bool RequestWorker::push(RequestTask task) {
    bool const is_taken = push_quietly(std::move(task));
    wake();
    return is_taken;
}

bool RequestWorker::push_quietly(RequestTask task) {
    MutexLock lock(mutex_);
    if (!running_ || tasks_.size() >= K_MAX_TASKS ||
        queued_bytes_ + task.payload.size() > K_MAX_QUEUED_BYTES) {
        return false;
    }
    queued_bytes_ += task.payload.size();
    tasks_.push_back(std::move(task));
    return true;
}

void RequestWorker::wake() {
    MutexLock lock(mutex_);
    bool const is_needed = is_needed_locked();
    lock.unlock();
    if (is_needed) {
        changed_.notify_all();
    }
}

void RequestWorker::work() {
    MutexLock lock(mutex_);
    if (!is_needed_locked()) {
        return; // Who works takes what has come meanwhile.
    }
    is_working_ = true;
    while (running_ && !tasks_.empty()) {
        RequestTask const task = std::move(tasks_.front());
        tasks_.pop_front();
        queued_bytes_ -= task.payload.size();
        lock.unlock();
        run_task_(task);
        lock.lock();
    }
    is_working_ = false;
    if (!running_) {
        changed_.notify_all();
    }
}

void RequestWorker::stop() {
    {
        MutexLock lock(mutex_);
        running_ = false;
    }
    changed_.notify_all();
    if (thread_.joinable()) {
        thread_.join();
    }
    MutexLock lock(mutex_);
    changed_.wait(lock.native(), [this]() TESSARON_REQUIRES(mutex_) { return !is_working_; });
}

void RequestWorker::run() {
    for (bool is_running = true; is_running;) {
        work();
        MutexLock lock(mutex_);
        changed_.wait(lock.native(), [this]() TESSARON_REQUIRES(mutex_) {
            return !running_ || is_needed_locked();
        });
        is_running = running_;
    }
}

} // namespace tessaron::bus
