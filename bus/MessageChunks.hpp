#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <utility>
#include <vector>

namespace tessaron::bus {

/// The bytes of a message that comes in chunks, which are numbered from 0 and may come in any
/// order. Those that come in order, as nearly all do, are copied once, to where they stay.
///
/// Thread safety: one thread at a time, the caller's duty.
class MessageChunks {
public:
    using Bytes = std::vector<std::uint8_t>;

    /// The message may have so many bytes; it need not move while it grows to them.
    void expect(std::size_t size) { head_.reserve(size); }
    /// A chunk whose number is there already replaces the earlier one.
    void add(std::uint16_t index, Bytes&& chunk);

    std::size_t count() const { return ends_.size() + behind_gap_.size(); }
    /// Of all chunks together.
    std::size_t size() const { return head_.size() + size_behind_gap_; }
    /// Whether these are the chunks from 0 to the last one, and no others.
    bool are_all_to(std::uint16_t last) const {
        return behind_gap_.empty() && ends_.size() == last + std::size_t{1};
    }
    /// The message, if none is missing.
    Bytes take() { return std::move(head_); }

private:
    void append(Bytes const& chunk);
    void append_those_that_fit();
    void replace(std::size_t index, Bytes const& chunk);
    void keep_for_later(std::uint16_t index, Bytes&& chunk);

    Bytes head_;                    ///< The first chunks, as far as none is missing.
    std::vector<std::size_t> ends_; ///< Where each of the head's ends.
    std::map<std::uint16_t, Bytes> behind_gap_;
    std::size_t size_behind_gap_ = 0;
};

} // namespace tessaron::bus
