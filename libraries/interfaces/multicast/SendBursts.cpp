#include "libraries/interfaces/multicast/SendBursts.hpp"

#include <algorithm>
#include <utility>

namespace proto::interface {

using tessaron::MutexLock;

std::vector<SendBursts::Burst>::iterator SendBursts::find_locked() {
    return std::find_if(active_.begin(), active_.end(), [](Burst const& burst) {
        return burst.thread == std::this_thread::get_id();
    });
}

void SendBursts::begin() {
    MutexLock const lock(mutex_);
    auto const burst = find_locked();
    if (burst != active_.end()) {
        ++burst->depth;
        return;
    }
    if (idle_.empty()) {
        idle_.push_back(std::make_unique<DatagramBatch>());
    }
    active_.push_back({std::this_thread::get_id(), 1, std::move(idle_.back())});
    idle_.pop_back();
    ++active_count_;
}

DatagramBatch* SendBursts::current() {
    if (active_count_ == 0) {
        return nullptr;
    }
    MutexLock const lock(mutex_);
    auto const burst = find_locked();
    return burst != active_.end() ? burst->batch.get() : nullptr;
}

std::unique_ptr<DatagramBatch> SendBursts::end() {
    MutexLock const lock(mutex_);
    auto const burst = find_locked();
    if (burst == active_.end() || --burst->depth > 0) {
        return nullptr;
    }
    auto batch = std::move(burst->batch);
    active_.erase(burst);
    --active_count_;
    return batch;
}

void SendBursts::reuse(std::unique_ptr<DatagramBatch> sent) {
    sent->clear();
    MutexLock const lock(mutex_);
    idle_.push_back(std::move(sent));
}

} // namespace proto::interface
