#include "bus/RequestWorker.hpp"

#include "libraries/threads/start_thread.hpp"

#include <utility>

namespace tessaron::bus {

RequestWorker::RequestWorker(char const* thread_name, Run run)
    : run_(std::move(run)), thread_(start_thread(thread_name, [this] { run_tasks(); })) {
}

bool RequestWorker::push(RequestTask task) {
    {
        MutexLock lock(mutex_);
        if (!running_ || tasks_.size() >= K_MAX_TASKS ||
            queued_bytes_ + task.payload.size() > K_MAX_QUEUED_BYTES) {
            return false;
        }
        queued_bytes_ += task.payload.size();
        tasks_.push_back(std::move(task));
    }
    changed_.notify_one();
    return true;
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
}

void RequestWorker::run_tasks() {
    for (;;) {
        MutexLock lock(mutex_);
        changed_.wait(lock.native(),
                      [this]() TESSARON_REQUIRES(mutex_) { return !running_ || !tasks_.empty(); });
        if (!running_) {
            return;
        }
        RequestTask const task = std::move(tasks_.front());
        tasks_.pop_front();
        queued_bytes_ -= task.payload.size();
        lock.unlock();
        run_(task);
    }
}

} // namespace tessaron::bus
