#pragma once

#include <atomic>
#include <cstddef>
#include <memory>

namespace mirelserver {

/// Counts what is alive by tokens that give their place back when the last copy dies.
///
/// Ownership: tokens may outlive the limit.
/// Thread safety: safe from any thread; no lock.
class ConnectionLimit {
public:
    explicit ConnectionLimit(std::size_t most)
        : most_(most), count_(std::make_shared<std::atomic<std::size_t>>(0)) {}

    /// Null if `most` tokens are alive.
    std::shared_ptr<void> take() {
        if (count_->fetch_add(1) >= most_) {
            count_->fetch_sub(1);
            return nullptr;
        }
        return {count_.get(), [count = count_](void*) { count->fetch_sub(1); }};
    }

private:
    std::size_t most_;
    std::shared_ptr<std::atomic<std::size_t>> count_;
};

} // namespace mirelserver
