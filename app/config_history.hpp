#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace tessaron::config {

// config_history.log, one line per change, appended and never pruned:
//
//     ts=<seconds since the epoch> field=<name> old=<text><0x1F>new=<text>
//
// The byte 0x1F parts the old value from the new one, so both may hold blanks and "=".

struct ConfigChange {
    std::int64_t time = 0; ///< Whole seconds since the Unix epoch.
    std::string field;
    std::string old_value;
    std::string new_value;
};

/// One line, its newline included.
std::string format_config_change_line(std::int64_t time, std::string const& name,
                                      std::string const& old_text, std::string const& new_text);

/// Appends a line to the history. False if the file could not be opened or written.
[[nodiscard]] bool append_config_change_line(std::string const& path, std::string const& line);

/// The change that a line (with or without its newline) tells, or nothing for any other line.
std::optional<ConfigChange> parse_config_change_line(std::string const& line);

} // namespace tessaron::config
