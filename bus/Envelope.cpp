#include "bus/Envelope.hpp"

#include "proto/bus/wire_fields.hpp"

#include <stdexcept>
#include <utility>

namespace tessaron::bus {

namespace {

/// The least room that a field takes: the lengths of an empty key and an empty value.
constexpr std::size_t K_MIN_FIELD_SIZE = 8;

} // namespace

namespace detail {

void append_u32(std::vector<std::uint8_t>& out, std::uint32_t value) {
    proto::bus::detail::encode_u32(out, value);
}

void append_bytes(std::vector<std::uint8_t>& out, std::string_view bytes) {
    out.insert(out.end(), bytes.begin(), bytes.end());
}

bool try_read_u32(std::vector<std::uint8_t> const& payload, std::size_t& cursor,
                  std::uint32_t& value) {
    return proto::bus::detail::decode_u32(payload.data(), payload.size(), cursor, value);
}

bool try_read_text(std::vector<std::uint8_t> const& payload, std::size_t& cursor,
                   std::string_view& text) {
    std::size_t after_length = cursor;
    std::uint32_t length = 0;
    if (!try_read_u32(payload, after_length, length) || payload.size() - after_length < length) {
        return false;
    }
    text = {reinterpret_cast<char const*>(payload.data()) + after_length, length};
    cursor = after_length + length;
    return true;
}

bool try_read_string(std::vector<std::uint8_t> const& payload, std::size_t& cursor,
                     std::string& text) {
    std::string_view read;
    if (!try_read_text(payload, cursor, read)) {
        return false;
    }
    text = read;
    return true;
}

bool try_read_field_count(std::vector<std::uint8_t> const& payload, std::size_t& cursor,
                          std::uint32_t& count) {
    return try_read_u32(payload, cursor, count) &&
           count <= (payload.size() - cursor) / K_MIN_FIELD_SIZE;
}

} // namespace detail

std::vector<std::uint8_t> encode_envelope(Envelope const& envelope) {
    std::vector<std::uint8_t> payload;
    auto const append_text = [&payload](std::string_view text) {
        detail::append_u32(payload, static_cast<std::uint32_t>(text.size()));
        detail::append_bytes(payload, text);
    };
    detail::append_u32(payload, static_cast<std::uint32_t>(envelope.fields.size()));
    for (auto const& [key, value] : envelope.fields) {
        append_text(key);
        append_text(value);
    }
    detail::append_u32(payload, static_cast<std::uint32_t>(envelope.data.size()));
    payload.insert(payload.end(), envelope.data.begin(), envelope.data.end());
    return payload;
}

std::optional<Envelope> try_decode_envelope(std::vector<std::uint8_t> const& payload) {
    Envelope envelope;
    auto const data =
        detail::visit_envelope(payload, [&](std::string_view key, std::string_view value) {
            envelope.fields.try_emplace(std::string(key), value);
        });
    if (!data) {
        return std::nullopt;
    }
    envelope.data.assign(data->begin(), data->end());
    return envelope;
}

Envelope decode_envelope(std::vector<std::uint8_t> const& payload) {
    std::optional<Envelope> envelope = try_decode_envelope(payload);
    if (!envelope) {
        throw std::invalid_argument("Envelope: truncated or malformed");
    }
    return std::move(*envelope);
}

} // namespace tessaron::bus
