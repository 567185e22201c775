#pragma once

#include "app/utilities/file_io.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace tessaron::test {

inline void put_file(std::string const& path, std::string_view bytes) {
    ASSERT_TRUE(write_file(path, bytes, O_TRUNC)) << path;
}

/// The whole file; a missing one is told apart from an empty one.
inline std::string text_of(std::string const& path) {
    return read_file(path).value_or("<no file>");
}

inline std::vector<std::string> lines_of(std::string const& path) {
    std::istringstream stream(read_file(path).value_or(""));
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

/// What a line says behind its label, level and time stamp.
inline std::string message_of(std::string const& line) {
    std::size_t position = 0;
    for (int bracket = 0; bracket < 3; ++bracket) {
        position = line.find("] ", position);
        if (position == std::string::npos) {
            return line;
        }
        position += 2;
    }
    return line.substr(position);
}

inline std::vector<std::string> messages_of(std::string const& path) {
    std::vector<std::string> messages;
    for (std::string const& line : lines_of(path)) {
        messages.push_back(message_of(line));
    }
    return messages;
}

} // namespace tessaron::test
