#pragma once

#include "proto/bus/NodeIdentity.hpp"

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

/// A file for each node on this machine, so that people and tools find out who is on the bus:
/// "/tmp/tessaron/<binary>/bus/<name>". Nothing depends on it; failures are ignored.
namespace tessaron::bus {

/// Letters, digits, "-", "_" and "." stay, any other byte becomes "_"; nothing becomes "unnamed".
std::string sanitize_debug_name(std::string_view text);
std::string debug_name(proto::bus::NodeIdentity const& identity);
std::string debug_app_name(proto::bus::NodeIdentity const& identity);
std::filesystem::path bus_debug_root(std::string const& binary);

/// "address=<address> pid=<pid>", then the text, in place of what was there.
void touch_debug_marker(std::string const& binary, std::string const& name, std::uint32_t address,
                        std::string const& text);
void remove_debug_marker(std::string const& binary, std::string const& name);

} // namespace tessaron::bus
