#pragma once

#include <ostream>
#include <sstream>
#include <streambuf>
#include <string>

namespace tessaron::test {

/// Takes over what is written to a standard stream for as long as it lives. Read it when those who
/// write have come to rest.
class CapturedStream {
public:
    explicit CapturedStream(std::ostream& stream)
        : stream_(stream), former_(stream.rdbuf(buffer_.rdbuf())) {}
    ~CapturedStream() { stream_.rdbuf(former_); }
    CapturedStream(CapturedStream const&) = delete;
    CapturedStream& operator=(CapturedStream const&) = delete;

    std::string text() const { return buffer_.str(); }

private:
    std::ostringstream buffer_;
    std::ostream& stream_;
    std::streambuf* former_;
};

} // namespace tessaron::test
