#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

namespace tessaron::bus {

/// The bytes of a message that comes in chunks, which are numbered from 0 and may come in any
/// order. Those that come in order, as nearly all do, go at once to where they stay, as far as the
/// message is no larger than expected.
///
/// Thread safety: one thread at a time, the caller's duty.
class MessageChunks {
public:
    using Bytes = std::vector<std::uint8_t>;

    /// Before the first chunk: the message is likely to have so many bytes.
    void expect(std::size_t size) { head_.reserve(size); }
    /// A chunk whose number is there already replaces the earlier one.
    void add(std::uint16_t index, Bytes&& chunk);

    std::size_t count() const { return ends_.size() + behind_.size(); }
    /// Of all chunks together.
    std::size_t size() const { return head_.size() + size_behind_; }
    /// What they take up, with what is expected.
    std::size_t memory() const { return head_.capacity() + size_behind_; }
    /// Whether these are the chunks from 0 to the last one, and no others.
    bool are_all_to(std::uint16_t last) const;
    /// The message, if none is missing.
    Bytes take();

private:
    bool belongs_to_head(std::size_t index, std::size_t size) const;
    void append(Bytes const& chunk);
    void append_those_that_fit();
    void replace(std::size_t index, Bytes const& chunk);
    void keep_behind(std::uint16_t index, Bytes&& chunk);

    Bytes head_; ///< The first chunks, as far as none is missing and there is room.
    std::vector<std::size_t> ends_;         ///< Where each of the head's ends.
    std::map<std::uint16_t, Bytes> behind_; ///< The others.
    std::size_t size_behind_ = 0;
};

} // namespace tessaron::bus
