#pragma once

#include "libraries/vocabulary/IInterface.hpp"
#include "tests/support/wait_until.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace proto::interface::test {

using Bytes = tessaron::CustomSpan<unsigned char>;

inline bool write(IInterface& transport, std::string_view text) {
    std::vector<unsigned char> bytes(text.begin(), text.end());
    return transport.write({bytes.data(), bytes.size()}, std::chrono::milliseconds(1));
}

inline void write_frame(IInterface& transport, std::vector<std::string> const& parts) {
    transport.begin_frame();
    for (std::string const& part : parts) {
        write(transport, part);
    }
    transport.end_frame();
}

/// Keeps what a transport hands to its receivers, call by call.
///
/// Thread safety: safe from any thread.
class Recorder {
public:
    explicit Recorder(IInterface& transport)
        : transport_(transport),
          callback_(transport.add_receive_callback(
              [this](Bytes bytes, unsigned long& /*used*/) { record(bytes); })) {}
    ~Recorder() {
        callback_.reset();
        transport_.wait_for_callbacks();
    }
    Recorder(Recorder const&) = delete;
    Recorder& operator=(Recorder const&) = delete;

    std::vector<std::string> all() const {
        std::lock_guard const lock(mutex_);
        return received_;
    }
    /// One after the other.
    std::string joined() const {
        std::string text;
        for (std::string const& piece : all()) {
            text += piece;
        }
        return text;
    }
    bool has(std::string_view text) const {
        auto const received = all();
        return std::find(received.begin(), received.end(), text) != received.end();
    }
    bool wait_for(std::string_view text) const {
        return tessaron::test::wait_until([&] { return has(text); },
                                          "\"" + std::string(text) + "\" is received");
    }
    bool wait_for_count(std::size_t count) const {
        return tessaron::test::wait_until([&] { return all().size() >= count; },
                                          std::to_string(count) + " datagrams are received");
    }

private:
    void record(Bytes bytes) {
        std::lock_guard const lock(mutex_);
        received_.emplace_back(bytes.begin(), bytes.end());
    }

    IInterface& transport_;
    mutable std::mutex mutex_;
    std::vector<std::string> received_;
    std::shared_ptr<IInterface::ReceiveCallback> callback_;
};

/// A receiver that stays in its first call until it is told to go on.
class HeldReceiver {
public:
    explicit HeldReceiver(IInterface& transport)
        : callback_(
              transport.add_receive_callback([this](Bytes /*bytes*/, unsigned long& /*used*/) {
                  entered_ = true;
                  released_.wait(false);
                  left_ = true;
              })) {}

    /// Lets go of the callback during the call, waits on another thread until it may go, and ends
    /// the call. True if the wait did not end before the call.
    bool may_go_no_earlier_than_its_call_ends(IInterface& transport) {
        tessaron::test::wait_until([this] { return entered_.load(); }, "the receiver is called");
        callback_.reset();
        std::atomic<bool> had_left{false};
        std::thread waiter([&] {
            transport.wait_for_callbacks();
            had_left = left_.load();
        });
        released_ = true;
        released_.notify_all();
        waiter.join();
        return had_left;
    }

private:
    std::atomic<bool> entered_{false};
    std::atomic<bool> released_{false};
    std::atomic<bool> left_{false};
    std::shared_ptr<IInterface::ReceiveCallback> callback_;
};

} // namespace proto::interface::test
