#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace proto::interface {

/// Holds back who sends much in one go. On one machine nothing else tells a sender that it is too
/// fast, and what comes faster than a node can read is lost. No network that a bus runs on is.
///
/// Thread safety: safe from any thread; those who send at once share the pace.
class SendPace {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::size_t K_BYTES_PER_MICROSECOND = 1500;
    /// What is sent in so much time may be sent at any pace.
    static constexpr std::chrono::microseconds K_ALLOWANCE{40};

    /// After so many bytes have been sent: returns when more may be. At once, if the pace before
    /// was slow enough; meanwhile, and in any case once, others get the processor.
    void wait_after(std::size_t bytes);
    /// Until when to wait after so many bytes that were sent at that time.
    Clock::time_point due_after(std::size_t bytes, Clock::time_point now);

private:
    std::atomic<Clock::rep> due_{Clock::time_point::min().time_since_epoch().count()};
};

} // namespace proto::interface
