#pragma once

#include "proto/FrameQueue.hpp"
#include "tests/support/wait_until.hpp"

#include <atomic>
#include <cstddef>
#include <vector>

namespace proto::test {

using Queue = FrameQueue<int>;

/// Notes what the worker brings. Only the worker writes; `count` says how much may be read.
class Received {
public:
    Queue::Handler handler() {
        return [this](int&& frame) {
            frames_.push_back(frame);
            ++count_;
        };
    }
    bool wait_for(std::size_t count) {
        return tessaron::test::wait_until([&] { return count_ == count; }, "all frames are there");
    }
    std::vector<int> const& frames() const { return frames_; }
    std::size_t count() const { return count_; }

private:
    std::vector<int> frames_;
    std::atomic<std::size_t> count_{0};
};

} // namespace proto::test
