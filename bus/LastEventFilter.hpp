#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>

namespace tessaron::bus {

/// Knows the last event of each sender and topic, to tell its repetition: a subscriber gets a
/// retained event for which it has asked, and may have heard it before. An event before the last is
/// not remembered.
///
/// The memory is bounded: senders and topics that have been silent while `K_GENERATION_SIZE` others
/// were heard are forgotten, at the price of one repetition taken for new.
///
/// Thread safety: one thread at a time, the caller's duty.
class LastEventFilter {
public:
    static constexpr std::size_t K_GENERATION_SIZE = 32768;

    /// Whether it is the last event once more; otherwise it now is the last. An event with the id 0
    /// has no identity and is never a repetition.
    bool is_repeated(std::uint16_t local_address, std::uint16_t topic_id, std::uint32_t msg_id);

    std::size_t size() const { return recent_.size() + older_.size(); }

private:
    std::unordered_map<std::uint32_t, std::uint32_t> recent_;
    std::unordered_map<std::uint32_t, std::uint32_t> older_;
};

} // namespace tessaron::bus
