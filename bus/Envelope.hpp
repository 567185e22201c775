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
/// A u32 length and as many bytes.
bool try_read_string(std::vector<std::uint8_t> const& payload, std::size_t& cursor,
                     std::string& text);

} // namespace detail

} // namespace tessaron::bus
