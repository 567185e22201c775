#include "proto/bus/wire_fields.hpp"

#include <algorithm>

namespace proto::bus::detail {

namespace {

template <typename Number>
void append_number(Bytes& out, Number value) {
    for (unsigned shift = 0; shift < 8 * sizeof value; shift += 8) {
        out.push_back(static_cast<std::uint8_t>(value >> shift));
    }
}

template <typename Number>
bool read_number(std::uint8_t const* data, std::size_t size, std::size_t& cursor, Number& value) {
    if (cursor > size || size - cursor < sizeof value) {
        return false;
    }
    std::uint32_t number = 0;
    for (unsigned i = 0; i < sizeof value; ++i) {
        number |= std::uint32_t{data[cursor + i]} << 8 * i;
    }
    value = static_cast<Number>(number);
    cursor += sizeof value;
    return true;
}

} // namespace

void encode_u8(Bytes& out, std::uint8_t value) {
    out.push_back(value);
}

void encode_u16(Bytes& out, std::uint16_t value) {
    append_number(out, value);
}

void encode_u32(Bytes& out, std::uint32_t value) {
    append_number(out, value);
}

void encode_string(Bytes& out, std::string_view text) {
    text = text.substr(0, K_MAX_U16);
    encode_u16(out, static_cast<std::uint16_t>(text.size()));
    out.insert(out.end(), text.begin(), text.end());
}

bool decode_u8(std::uint8_t const* data, std::size_t size, std::size_t& cursor,
               std::uint8_t& value) {
    return read_number(data, size, cursor, value);
}

bool decode_u16(std::uint8_t const* data, std::size_t size, std::size_t& cursor,
                std::uint16_t& value) {
    return read_number(data, size, cursor, value);
}

bool decode_u32(std::uint8_t const* data, std::size_t size, std::size_t& cursor,
                std::uint32_t& value) {
    return read_number(data, size, cursor, value);
}

bool decode_string(std::uint8_t const* data, std::size_t size, std::size_t& cursor,
                   std::string& text) {
    std::size_t after_length = cursor;
    std::uint16_t length = 0;
    if (!decode_u16(data, size, after_length, length) ||
        !decode_bytes(data, size, after_length, length, text)) {
        return false;
    }
    cursor = after_length;
    return true;
}

bool decode_bytes(std::uint8_t const* data, std::size_t size, std::size_t& cursor,
                  std::size_t count, std::string& bytes) {
    if (cursor > size || size - cursor < count) {
        return false;
    }
    bytes.assign(data + cursor, data + cursor + count);
    cursor += count;
    return true;
}

bool read_field(FieldReader& in, bool& flag) {
    std::uint16_t value = 0;
    if (!read_field(in, value)) {
        return false;
    }
    flag = value != 0;
    return true;
}

bool read_field(FieldReader& in, TopicKind& kind) {
    std::uint16_t value = 0;
    if (!read_field(in, value)) {
        return false;
    }
    kind = value == 1 ? TopicKind::REQUEST : TopicKind::EVENT;
    return true;
}

} // namespace proto::bus::detail
