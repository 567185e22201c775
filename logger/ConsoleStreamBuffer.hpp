#pragma once

#include <streambuf>

namespace tessaron {

/// Forwards everything to the buffer that the standard output stream has at that moment.
///
/// Thread safety: that of the standard output stream.
class ConsoleStreamBuffer final : public std::streambuf {
protected:
    std::streamsize xsputn(char const* bytes, std::streamsize count) override;
    int_type overflow(int_type character) override;
    int sync() override;
};

} // namespace tessaron
