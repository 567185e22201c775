#pragma once

#include "libraries/interfaces/multicast/MulticastSocket.hpp"
#include "libraries/vocabulary/CustomSpan.hpp"

#include <cstddef>
#include <optional>
#include <vector>

namespace proto::interface {

/// Reads datagrams one by one, from a socket that may hand out several at once.
///
/// Thread safety: one thread at a time, the caller's duty.
class DatagramReader {
public:
    enum class Outcome {
        Datagram,
        Nothing, ///< the time-out, an empty datagram, or a signal
        Error,   ///< what would happen again at once
    };

    /// Waits for the next datagram, which then stands in `datagram` until the next call.
    Outcome next(MulticastSocket& socket);
    tessaron::CustomSpan<unsigned char> datagram() { return {buffer_.data() + begin_, size_}; }
    /// Whether the next one is here already.
    bool has_more() const { return begin_ + size_ < end_; }

private:
    static constexpr std::size_t K_BUFFER_SIZE = 65536;

    std::vector<unsigned char> buffer_ = std::vector<unsigned char>(K_BUFFER_SIZE);
    std::size_t segment_size_ = 0;
    std::size_t begin_ = 0; ///< of the current datagram
    std::size_t size_ = 0;
    std::size_t end_ = 0; ///< of what has been received
};

} // namespace proto::interface
