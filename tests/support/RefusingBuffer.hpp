#pragma once

#include <streambuf>

namespace tessaron::test {

/// The buffer of a device that takes nothing.
class RefusingBuffer final : public std::streambuf {
    int sync() override { return -1; }
};

} // namespace tessaron::test
