#pragma once

#include <cstddef>
#include <span>
#include <vector>

namespace proto::interface {

/// What IPv4 leaves for the payload of a datagram.
inline constexpr std::size_t K_MAX_DATAGRAM_SIZE = 65507;

/// Datagrams that are to leave together: no more than one message of the system may hold. It keeps
/// the memory of those that it had.
///
/// Thread safety: one thread at a time, the caller's duty.
class DatagramBatch {
public:
    using Datagram = std::vector<unsigned char>;
    static constexpr std::size_t K_MAX_DATAGRAMS = 64;

    /// Takes a datagram, and leaves an empty one with the memory of an earlier one in its place.
    void add(Datagram& datagram) {
        if (count_ == datagrams_.size()) {
            datagrams_.emplace_back();
        }
        bytes_ += datagram.size();
        datagrams_[count_++].swap(datagram);
        datagram.clear();
    }
    void clear() { count_ = bytes_ = 0; }

    bool empty() const { return count_ == 0; }
    /// Whether one more of this size may be added. A batch without any takes one of any size.
    bool has_room_for(std::size_t size) const {
        return empty() || (count_ < K_MAX_DATAGRAMS && size <= K_MAX_DATAGRAM_SIZE &&
                           bytes_ <= K_MAX_DATAGRAM_SIZE - size);
    }
    std::span<Datagram> datagrams() { return {datagrams_.data(), count_}; }

private:
    std::vector<Datagram> datagrams_;
    std::size_t count_ = 0; ///< Of them; the others are memory.
    std::size_t bytes_ = 0;
};

} // namespace proto::interface
