#pragma once

#include <iostream>
#include <string>

namespace bench {

/// What every server under test answers to GET /api/status (nginx.conf repeats it).
inline std::string const K_JSON = R"({"name":"mirelclient","state":"running","packages":12})";

/// Tells the script that the port is open, then waits until the script closes our input.
inline void serve_until_end_of_input(int port) {
    std::cout << port << std::endl;
    std::string ignored;
    while (std::getline(std::cin, ignored)) {
    }
}

} // namespace bench
