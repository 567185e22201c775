#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace portwatch {

/// One row of the table of targets, as an operator wrote it: the port need not be one.
struct Target {
    std::int64_t id = 0;
    std::string host; ///< an IPv4 or IPv6 address
    std::string port;
    std::string label;

    /// The place is the same, whatever it is called.
    bool is_at_place_of(Target const& other) const {
        return host == other.host && port == other.port;
    }

    std::string text() const {
        bool const has_colons = host.find(':') != std::string::npos;
        std::string const address = (has_colons ? "[" + host + "]" : host) + ":" + port;
        return label.empty() ? address : label + " (" + address + ")";
    }
};

/// What one look at a target found.
struct Check {
    Target target;
    bool up = false;
    std::chrono::milliseconds took{0};
    std::string error; ///< Why it is down.
};

} // namespace portwatch
