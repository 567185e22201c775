#pragma once

#include "libraries/tunnel/tunnel_frame.hpp"

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace tessaron::tunnel {

/// Cuts a stream of bytes into frames without collecting them: payloads are handed on as they come.
///
/// Thread safety: none, the caller's duty.
/// Errors: a header that the handler refuses; the parser is of no use afterwards.
class FrameParser {
public:
    /// Feeds what came next. Calls, in the order of the bytes, on the handler:
    ///
    ///     bool on_header(FrameHeader const&)     once for each frame; false refuses it
    ///     void on_payload(std::string_view)      for each piece of its payload, if it has any
    ///     bool on_frame_end()                    once it is complete; false wants no more
    ///
    /// False once one of them said so.
    template <typename Handler>
    [[nodiscard]] bool feed(std::string_view bytes, Handler& handler) {
        while (!bytes.empty()) {
            if (header_size_ < K_FRAME_HEADER_SIZE) {
                take_header_bytes(bytes);
                if (header_size_ < K_FRAME_HEADER_SIZE) {
                    return true;
                }
                FrameHeader const header = decode_header(header_bytes_);
                payload_left_ = header.length;
                if (!handler.on_header(header)) {
                    return false;
                }
            }
            if (std::string_view const piece = bytes.substr(0, payload_left_); !piece.empty()) {
                handler.on_payload(piece);
                bytes.remove_prefix(piece.size());
                payload_left_ -= piece.size();
            }
            if (payload_left_ == 0) {
                header_size_ = 0;
                if (!handler.on_frame_end()) {
                    return false;
                }
            }
        }
        return true;
    }

private:
    void take_header_bytes(std::string_view& bytes) {
        std::size_t const count = std::min(bytes.size(), K_FRAME_HEADER_SIZE - header_size_);
        bytes.copy(header_bytes_.data() + header_size_, count);
        bytes.remove_prefix(count);
        header_size_ += count;
    }

    FrameHeaderBytes header_bytes_{};
    std::size_t header_size_ = 0;
    std::size_t payload_left_ = 0;
};

} // namespace tessaron::tunnel
