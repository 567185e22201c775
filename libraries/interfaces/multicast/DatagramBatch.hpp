#pragma once

#include "libraries/vocabulary/CustomSpan.hpp"

#include <cstddef>
#include <vector>

namespace proto::interface {

/// What IPv4 leaves for the payload of a datagram.
inline constexpr std::size_t K_MAX_DATAGRAM_SIZE = 65507;

/// Datagrams that are to leave together, back to back in one piece of memory, which `clear` keeps.
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
    bool is_full() const { return sizes_.size() >= K_MAX_DATAGRAMS; }
    unsigned char* bytes() { return bytes_.data(); }
    std::vector<std::size_t> const& sizes() const { return sizes_; }

private:
    std::vector<unsigned char> bytes_;
    std::vector<std::size_t> sizes_;
};

} // namespace proto::interface
