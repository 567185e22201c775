#include "mirelserver/StreamBuffer.hpp"

#include <utility>

namespace mirelserver {

using tessaron::MutexLock;

StreamBuffer::~StreamBuffer() {
    MutexLock const lock(mutex_);
    drop_all_locked();
}

bool StreamBuffer::put(std::string bytes) {
    Handler handler;
    {
        MutexLock const lock(mutex_);
        if (ended_ || bytes.empty()) {
            return true;
        }
        if (!waiting_) {
            std::size_t const cost = bytes.size() + K_PIECE_COST;
            size_ += cost;
            std::size_t const total = total_->fetch_add(cost) + cost;
            pieces_.push_back(std::move(bytes));
            if (size_ <= K_MAX_SIZE && total <= K_MAX_TOTAL) {
                return true;
            }
            drop_all_locked();
            ended_ = true;
            return false;
        }
        handler = std::exchange(waiting_, nullptr);
    }
    handler(std::move(bytes));
    return true;
}

void StreamBuffer::end() {
    Handler handler;
    {
        MutexLock const lock(mutex_);
        ended_ = true;
        handler = std::exchange(waiting_, nullptr);
    }
    if (handler) {
        handler({});
    }
}

void StreamBuffer::take(Handler handler) {
    std::string bytes;
    {
        MutexLock const lock(mutex_);
        if (pieces_.empty() && !ended_) {
            waiting_ = std::move(handler);
            return;
        }
        if (!pieces_.empty()) {
            bytes = std::move(pieces_.front());
            pieces_.pop_front();
            size_ -= bytes.size() + K_PIECE_COST;
            total_->fetch_sub(bytes.size() + K_PIECE_COST);
        }
    }
    handler(std::move(bytes));
}

void StreamBuffer::drop_all_locked() {
    pieces_.clear();
    total_->fetch_sub(size_);
    size_ = 0;
}

} // namespace mirelserver
