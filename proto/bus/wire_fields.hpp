#pragma once

#include "proto/bus/Bytes.hpp"
#include "proto/bus/topic_description.hpp"

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

/// How fields stand in a payload. A record names its fields once, in their order on the wire:
///
///     template <RecordOf<TopicParam> Record>
///     auto fields_of(Record& param) {
///         return std::tie(param.name, param.text, param.flag);
///     }
///
/// and `write_field` and `read_field` both follow from that list. It stands in the record's own
/// namespace, where they look for it.
namespace proto::bus {

/// `T` or `T const`.
template <typename Record, typename T>
concept RecordOf = std::same_as<std::remove_const_t<Record>, T>;

template <RecordOf<TopicParam> Record>
auto fields_of(Record& param) {
    return std::tie(param.name, param.text, param.flag);
}

template <RecordOf<TopicDescription> Record>
auto fields_of(Record& topic) {
    return std::tie(topic.name, topic.description, topic.kind, topic.flag, topic.params);
}

namespace detail {

/// The largest length of a text and the largest count of a list.
inline constexpr std::size_t K_MAX_U16 = std::numeric_limits<std::uint16_t>::max();

void encode_u8(Bytes& out, std::uint8_t value);
void encode_u16(Bytes& out, std::uint16_t value);
void encode_u32(Bytes& out, std::uint32_t value);
/// A u16 length, then the bytes; of a longer text only the first 65535 bytes.
void encode_string(Bytes& out, std::string_view text);

/// Read at `cursor` and advance it. False, with cursor and value as they were, when the data runs
/// out.
bool decode_u8(std::uint8_t const* data, std::size_t size, std::size_t& cursor,
               std::uint8_t& value);
bool decode_u16(std::uint8_t const* data, std::size_t size, std::size_t& cursor,
                std::uint16_t& value);
bool decode_u32(std::uint8_t const* data, std::size_t size, std::size_t& cursor,
                std::uint32_t& value);
bool decode_string(std::uint8_t const* data, std::size_t size, std::size_t& cursor,
                   std::string& text);
/// `count` bytes as they stand.
bool decode_bytes(std::uint8_t const* data, std::size_t size, std::size_t& cursor,
                  std::size_t count, std::string& bytes);

inline void write_field(Bytes& out, std::uint8_t value) {
    encode_u8(out, value);
}
inline void write_field(Bytes& out, std::uint16_t value) {
    encode_u16(out, value);
}
inline void write_field(Bytes& out, std::uint32_t value) {
    encode_u32(out, value);
}
inline void write_field(Bytes& out, std::string const& text) {
    encode_string(out, text);
}
inline void write_field(Bytes& out, bool flag) {
    encode_u16(out, flag ? 1 : 0);
}
inline void write_field(Bytes& out, TopicKind kind) {
    encode_u16(out, static_cast<std::uint16_t>(kind));
}

template <typename Record>
requires std::is_class_v<Record>
void write_field(Bytes& out, Record const& record);

/// A u16 count, then the entries; of a longer list only the first 65535.
template <typename Entry>
void write_field(Bytes& out, std::vector<Entry> const& list) {
    std::size_t const count = list.size() < K_MAX_U16 ? list.size() : K_MAX_U16;
    encode_u16(out, static_cast<std::uint16_t>(count));
    for (std::size_t i = 0; i < count; ++i) {
        write_field(out, list[i]);
    }
}

template <typename Record>
requires std::is_class_v<Record>
void write_field(Bytes& out, Record const& record) {
    std::apply([&out](auto const&... field) { (write_field(out, field), ...); }, fields_of(record));
}

/// A payload being read. The bytes are the caller's and outlive it.
struct FieldReader {
    std::uint8_t const* data;
    std::size_t size;
    std::size_t cursor = 0;
};

inline bool read_field(FieldReader& in, std::uint8_t& value) {
    return decode_u8(in.data, in.size, in.cursor, value);
}
inline bool read_field(FieldReader& in, std::uint16_t& value) {
    return decode_u16(in.data, in.size, in.cursor, value);
}
inline bool read_field(FieldReader& in, std::uint32_t& value) {
    return decode_u32(in.data, in.size, in.cursor, value);
}
inline bool read_field(FieldReader& in, std::string& text) {
    return decode_string(in.data, in.size, in.cursor, text);
}
bool read_field(FieldReader& in, bool& flag);
bool read_field(FieldReader& in, TopicKind& kind);

template <typename Record>
requires std::is_class_v<Record>
bool read_field(FieldReader& in, Record& record);

/// False when an entry is cut short; those before it are in the list. Nothing is reserved for what
/// the count claims, so memory follows the bytes that are there.
template <typename Entry>
bool read_field(FieldReader& in, std::vector<Entry>& list) {
    std::uint16_t count = 0;
    if (!read_field(in, count)) {
        return false;
    }
    for (; count > 0; --count) {
        Entry entry{};
        if (!read_field(in, entry)) {
            return false;
        }
        list.push_back(std::move(entry));
    }
    return true;
}

template <typename Record>
requires std::is_class_v<Record>
bool read_field(FieldReader& in, Record& record) {
    return std::apply([&in](auto&... field) { return (read_field(in, field) && ...); },
                      fields_of(record));
}

} // namespace detail

} // namespace proto::bus
