#pragma once

#include "proto/bus/Bytes.hpp"

#include <cstddef>
#include <string>

namespace tessaron::bus {

/// The longest text that `format_bus_trace_data` makes.
inline constexpr std::size_t K_MAX_PAYLOAD_TEXT_SIZE = 144;

/// A payload for people to read: an envelope's keys and values, "name=a, size=3", otherwise "(raw
/// 12b)". What cannot be printed becomes a dot, so that a peer's bytes stay on one line; what is
/// too long is cut.
std::string format_bus_trace_data(proto::bus::Bytes const& payload);

} // namespace tessaron::bus
