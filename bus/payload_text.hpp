#pragma once

#include "proto/bus/Bytes.hpp"

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

namespace tessaron::bus {

/// The longest text that `format_bus_trace_data` makes.
inline constexpr std::size_t K_MAX_PAYLOAD_TEXT_SIZE = 144;
using PayloadTextRoom = std::array<char, K_MAX_PAYLOAD_TEXT_SIZE>;

/// Puts a dot in place of each byte that could end a line or do worse to a terminal.
void replace_unprintable(char* text, std::size_t length) noexcept;

/// A payload for people to read: an envelope's keys and values, "name=a, size=3", in the order that
/// they were sent in, otherwise "(raw 12b)". What cannot be printed becomes a dot, so that a peer's
/// bytes stay on one line; what is too long is cut.
std::string format_bus_trace_data(proto::bus::Bytes const& payload);

/// The same without an allocation, for every message that passes; the text lies within `room`.
std::string_view format_bus_trace_data(proto::bus::Bytes const& payload,
                                       PayloadTextRoom& room) noexcept;

} // namespace tessaron::bus
