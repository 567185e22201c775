#pragma once

#include "libraries/vocabulary/CustomSpan.hpp"

#include <cstddef>
#include <vector>

namespace proto::interface {

/// What IPv4 leaves for the payload of a datagram.
inline constexpr std::size_t K_MAX_DATAGRAM_SIZE = 65507;

/// Datagrams that are to leave together, back to back in one piece of memory, which `clear` keeps:
/// no more than one message of the system may hold.
///
/// Thread safety: one thread at a time, the caller's duty.
class DatagramBatch {
public:
    static constexpr std::size_t K_MAX_DATAGRAMS = 64;

    void add(tessaron::CustomSpan<unsigned char> datagram) {
        bytes_.insert(bytes_.end(), datagram.begin(), datagram.end());
        sizes_.push_back(datagram.size());
    }
    void clear() {
        bytes_.clear();
        sizes_.clear();
    }

    bool empty() const { return sizes_.empty(); }
    /// Whether one more of this size may be added. A batch without any takes one of any size.
    bool has_room_for(std::size_t size) const {
        return empty() || (sizes_.size() < K_MAX_DATAGRAMS && size <= K_MAX_DATAGRAM_SIZE &&
                           bytes_.size() <= K_MAX_DATAGRAM_SIZE - size);
    }
    unsigned char* bytes() { return bytes_.data(); }
    std::vector<std::size_t> const& sizes() const { return sizes_; }

private:
    std::vector<unsigned char> bytes_;
    std::vector<std::size_t> sizes_;
};

} // namespace proto::interface
