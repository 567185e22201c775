#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tessaron::bus {

/// The payload of application messages: a record written as named texts, with binary content beside
/// them. On the wire, all numbers u32 and little-endian:
///
///     count of fields; for each: key length, key, value length, value
///     data length, data
///
/// A record that crosses the bus has `build() const`, which fills an envelope and encodes it, and a
/// static `parse`, which decodes one: a missing field takes the member's default, an unknown one is
/// ignored.
struct Envelope {
    std::map<std::string, std::string> fields;
    std::vector<std::uint8_t> data;

    bool operator==(Envelope const&) const = default;
};

std::vector<std::uint8_t> encode_envelope(Envelope const& envelope);

/// No value for a payload that is cut short, or that claims more fields than could lie in it; that
/// is found out before anything is allocated for them. Bytes behind the data are ignored, and a
/// repeated key keeps its first value.
std::optional<Envelope> try_decode_envelope(std::vector<std::uint8_t> const& payload);

/// Throws `std::invalid_argument` with "Envelope: truncated or malformed".
Envelope decode_envelope(std::vector<std::uint8_t> const& payload);

namespace detail {

/// Four bytes, least significant first.
void append_u32(std::vector<std::uint8_t>& out, std::uint32_t value);
void append_bytes(std::vector<std::uint8_t>& out, std::string_view bytes);

/// Read at `cursor` and advance it; false when the payload ends before.
bool try_read_u32(std::vector<std::uint8_t> const& payload, std::size_t& cursor,
                  std::uint32_t& value);
/// A u32 length and as many bytes; the text lies within the payload.
bool try_read_text(std::vector<std::uint8_t> const& payload, std::size_t& cursor,
                   std::string_view& text);
bool try_read_string(std::vector<std::uint8_t> const& payload, std::size_t& cursor,
                     std::string& text);
/// The count of fields; false also when it is more than could lie in the payload.
bool try_read_field_count(std::vector<std::uint8_t> const& payload, std::size_t& cursor,
                          std::uint32_t& count);

/// Calls `on_field(key, value)` for each field in the order of the payload; the result is the data.
/// No value for a payload that is no envelope, of which some fields may have been told of. The
/// texts lie within the payload; nothing is allocated.
template <typename OnField>
std::optional<std::string_view> visit_envelope(std::vector<std::uint8_t> const& payload,
                                               OnField&& on_field) {
    std::size_t cursor = 0;
    std::uint32_t count = 0;
    if (!try_read_field_count(payload, cursor, count)) {
        return std::nullopt;
    }
    for (; count > 0; --count) {
        std::string_view key;
        std::string_view value;
        if (!try_read_text(payload, cursor, key) || !try_read_text(payload, cursor, value)) {
            return std::nullopt;
        }
        on_field(key, value);
    }
    std::string_view data;
    return try_read_text(payload, cursor, data) ? std::optional(data) : std::nullopt;
}

} // namespace detail

} // namespace tessaron::bus
