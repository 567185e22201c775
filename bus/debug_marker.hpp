#pragma once

#include "proto/bus/NodeIdentity.hpp"

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

/// A file for each node on this machine, so that people and tools find out who is on the bus:
/// "/tmp/tessaron/<binary>/bus/<name>". Nothing depends on it; failures are ignored.
///
/// Everybody may write in /tmp, and the daemon may be root: no symbolic link is followed on the
/// way, and nothing but a regular file is written.
///
/// Stateless, safe from any thread; of two that write one marker at once either may win.
namespace tessaron::bus {

inline constexpr char K_DEBUG_MARKER_BASE[] = "/tmp/tessaron";

/// Letters, digits, "-", "_" and "." stay, any other byte becomes "_"; nothing becomes "unnamed".
std::string sanitize_debug_name(std::string_view text);
std::string debug_name(proto::bus::NodeIdentity const& identity);
std::string debug_app_name(proto::bus::NodeIdentity const& identity);
std::filesystem::path bus_debug_root(std::string const& binary,
                                     std::filesystem::path const& base = K_DEBUG_MARKER_BASE);

/// "address=<address> pid=<pid>", then the text, in place of what was there. Makes the directories
/// from the base on. The name as `debug_name` gives it; the binary is sanitised here.
void touch_debug_marker(std::string const& binary, std::string const& name, std::uint32_t address,
                        std::string const& text,
                        std::filesystem::path const& base = K_DEBUG_MARKER_BASE);
void remove_debug_marker(std::string const& binary, std::string const& name,
                         std::filesystem::path const& base = K_DEBUG_MARKER_BASE);

} // namespace tessaron::bus
