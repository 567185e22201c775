#pragma once

#include "libraries/crc/crcFast/CrcFast.hpp"
#include "libraries/vocabulary/Mutex.hpp"
#include "proto/bus/Bytes.hpp"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>

/// What the program `bus_node` reads and prints.
namespace bus_node {

using proto::bus::Bytes;

/// Prints a line at once, whichever thread it comes from.
inline void print_line(std::string const& line) {
    static tessaron::Mutex s_mutex;
    tessaron::MutexLock const lock(s_mutex);
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

/// Two digits a byte; "-" for no bytes.
inline Bytes parse_bytes(std::string const& text) {
    Bytes bytes;
    if (text == "-") {
        return bytes;
    }
    if (text.empty() || text.size() % 2 != 0) {
        throw std::invalid_argument("no bytes: " + text);
    }
    for (std::size_t i = 0; i < text.size(); i += 2) {
        bytes.push_back(static_cast<std::uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

/// "SIZE CRC", so that a large payload is told in few words.
inline std::string summary(Bytes const& bytes) {
    static proto::CrcFast const s_crc;
    Bytes copy = bytes;
    return std::to_string(bytes.size()) + " " +
           std::to_string(s_crc.calc({copy.data(), copy.size()}));
}

/// The lines of a text, each with a word before it.
inline void print_lines(std::string const& word, std::string const& text) {
    std::size_t begin = 0;
    while (begin < text.size()) {
        std::size_t const end = std::min(text.find('\n', begin), text.size());
        print_line(word + " " + text.substr(begin, end - begin));
        begin = end + 1;
    }
}

} // namespace bus_node
