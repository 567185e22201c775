#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>

namespace mirelclient {

/// Input that came with what was asked for, kept for the next question: a small message costs one
/// call instead of one for each of its parts. What is as large as the buffer goes past it.
///
/// Thread safety: none, the caller's duty.
template <std::size_t SIZE>
class ReceiveBuffer {
public:
    /// Fills `buffer` to its end. `receive(char* to, std::size_t most)` gets some bytes, as a
    /// blocking `recv` does; false once it has returned 0, after which a part may be filled.
    template <typename Receive>
    [[nodiscard]] bool read_full(char* buffer, std::size_t size, Receive const& receive) {
        while (size > 0) {
            if (begin_ == end_ && size >= SIZE) {
                std::size_t const got = receive(buffer, size);
                if (got == 0) {
                    return false;
                }
                buffer += got;
                size -= got;
                continue;
            }
            if (begin_ == end_) {
                begin_ = 0;
                end_ = receive(bytes_.data(), SIZE);
                if (end_ == 0) {
                    return false;
                }
            }
            std::size_t const taken = std::min(size, end_ - begin_);
            std::memcpy(buffer, bytes_.data() + begin_, taken);
            begin_ += taken;
            buffer += taken;
            size -= taken;
        }
        return true;
    }

private:
    std::array<char, SIZE> bytes_;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
};

} // namespace mirelclient
