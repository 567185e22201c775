#pragma once

#include "tests/unit/proto/BitwiseCrc.hpp"

#include <cstddef>
#include <cstdint>
#include <vector>

/// The bus frame a second time, written from its table of offsets alone: what the frames built from
/// the field list are compared with.
namespace proto::test {

using Bytes = std::vector<unsigned char>;

inline tessaron::CustomSpan<unsigned char> span_of(Bytes& bytes) {
    return {bytes.data(), bytes.size()};
}

inline void append(Bytes& bytes, Bytes const& more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
}

inline unsigned read_number(unsigned char const* bytes, std::size_t size) {
    unsigned value = 0;
    for (std::size_t i = size; i-- > 0;) {
        value = value << 8 | bytes[i];
    }
    return value;
}

inline void append_number(Bytes& bytes, unsigned value, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) {
        bytes.push_back(static_cast<unsigned char>(value >> 8 * i));
    }
}

/// The low 16 bits over all but the prefix, most significant byte first.
inline Bytes crc_of(Bytes frame_without_crc) {
    unsigned const crc = BitwiseCrc().calc(span_of(frame_without_crc).subspan(4));
    return {static_cast<unsigned char>(crc >> 8), static_cast<unsigned char>(crc)};
}

/// What a frame says. Any number is possible, so that broken frames are too.
struct FrameModel {
    unsigned version = 2;
    unsigned type = 0x30;
    unsigned channel = 0;
    unsigned source = 0x0102;
    Bytes options{0, 0}; ///< With the mask.
    unsigned dest = 0xFFFFFFFF;
    Bytes data;

    bool operator==(FrameModel const&) const = default;

    unsigned length() const { return static_cast<unsigned>(10 + options.size() + data.size()); }
    Bytes bytes() const { return bytes_with_length(length()); }
    /// As sent by somebody who claims another length.
    Bytes bytes_with_length(unsigned claimed) const {
        Bytes frame{0xB0, 0x55, 0xB0, 0x55};
        append_number(frame, version, 1);
        append_number(frame, type, 1);
        append_number(frame, channel, 2);
        append_number(frame, source, 2);
        append(frame, options);
        append_number(frame, dest, 4);
        append_number(frame, claimed, 2);
        append(frame, data);
        append(frame, crc_of(frame));
        return frame;
    }
};

/// Where the chunks that a stream comes in end: increasing, the last one the stream's size.
using ChunkEnds = std::vector<std::size_t>;

/// Receives frames of channel 0 by their offsets, as a parser does that knows all bytes at once and
/// looks at chunks only to find where to search on behind a broken field.
class ModelParser {
public:
    static constexpr std::size_t K_BUFFER_SIZE = 4096;

    ModelParser(Bytes const& stream, ChunkEnds const& chunk_ends, unsigned own_address)
        : stream_(stream), chunk_ends_(chunk_ends), own_address_(own_address) {}

    /// Of the field with that mask.
    static std::size_t options_size(unsigned mask) {
        constexpr std::size_t K_SIZES[] = {2, 4, 2, 1, 6, 1, 4};
        std::size_t size = 2;
        for (std::size_t slot = 0; slot < 7; ++slot) {
            size += (mask >> slot & 1) != 0 ? K_SIZES[slot] : 0;
        }
        return size;
    }

    std::vector<FrameModel> parse() {
        std::vector<FrameModel> frames;
        std::size_t at = 0;
        while (find_prefix(at)) {
            FrameModel frame;
            Outcome const outcome = parse_frame(at, frame);
            if (outcome.is_unfinished) {
                break;
            }
            if (outcome.is_whole) {
                frames.push_back(frame);
            }
            at = outcome.go_on_at;
        }
        return frames;
    }

private:
    struct Outcome {
        bool is_whole;
        bool is_unfinished;
        std::size_t go_on_at;
    };

    bool find_prefix(std::size_t& at) const {
        for (; at + 4 <= stream_.size(); ++at) {
            if (read_number(&stream_[at], 4) == 0x55B055B0) {
                return true;
            }
        }
        return false;
    }

    bool has(std::size_t end) const { return end <= stream_.size(); }
    unsigned number(std::size_t at, std::size_t size) const {
        return read_number(&stream_[at], size);
    }

    /// Behind a field in [begin, end) that broke: its first byte in the chunk that completed it.
    Outcome broken(std::size_t begin, std::size_t end) const {
        std::size_t chunk_begin = 0;
        for (std::size_t const chunk_end : chunk_ends_) {
            if (chunk_end >= end) {
                break;
            }
            chunk_begin = chunk_end;
        }
        return {false, false, begin > chunk_begin ? begin : chunk_begin};
    }

    static bool is_known_type(unsigned type) {
        return type == 0x10 || type == 0x11 || type == 0x12 || type == 0x20 || type == 0x21 ||
               type == 0x30 || type == 0x40 || type == 0x41;
    }

    Outcome parse_frame(std::size_t at, FrameModel& frame) const {
        constexpr Outcome K_UNFINISHED{false, true, 0};
        if (!has(at + 6)) {
            return K_UNFINISHED;
        }
        frame.version = number(at + 4, 1);
        frame.type = number(at + 5, 1);
        if (!is_known_type(frame.type)) {
            return broken(at + 5, at + 6);
        }
        if (!has(at + 8)) {
            return K_UNFINISHED;
        }
        frame.channel = number(at + 6, 2);
        if (frame.channel != 0) {
            return broken(at + 6, at + 8);
        }
        if (!has(at + 10)) {
            return K_UNFINISHED;
        }
        frame.source = number(at + 8, 2);
        if (frame.source == own_address_) {
            return broken(at + 8, at + 10);
        }
        if (!has(at + 12)) {
            return K_UNFINISHED;
        }
        return parse_rest(at, options_size(number(at + 10, 2)), frame);
    }

    Outcome parse_rest(std::size_t at, std::size_t options, FrameModel& frame) const {
        constexpr Outcome K_UNFINISHED{false, true, 0};
        std::size_t const length_at = at + 14 + options;
        if (!has(length_at + 2)) {
            return K_UNFINISHED;
        }
        std::size_t const length = number(length_at, 2);
        if (length < 10 + options || 4 + length + 4 > K_BUFFER_SIZE) {
            return broken(length_at, length_at + 2);
        }
        std::size_t const data = frame.type == 0x20 ? 0 : length - 10 - options;
        std::size_t const crc_at = length_at + 2 + data;
        if (!has(crc_at + 2)) {
            return K_UNFINISHED;
        }
        auto const part = [this](std::size_t begin, std::size_t size) {
            auto const first = stream_.begin() + static_cast<std::ptrdiff_t>(begin);
            return Bytes(first, first + static_cast<std::ptrdiff_t>(size));
        };
        if (crc_of(part(at, crc_at - at)) != part(crc_at, 2)) {
            return broken(crc_at, crc_at + 2);
        }
        frame.options = part(at + 10, options);
        frame.dest = number(at + 10 + options, 4);
        frame.data = part(length_at + 2, data);
        return {true, false, crc_at + 2};
    }

    Bytes const& stream_;
    ChunkEnds const& chunk_ends_;
    unsigned const own_address_;
};

} // namespace proto::test
