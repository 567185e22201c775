#include "MirelClientApp/web/ReceiveBuffer.hpp"

#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <vector>

namespace mirelclient {
namespace {

/// Hands out what was put in, a piece a call, and notes how much was asked for.
class Source {
public:
    explicit Source(std::vector<std::string> pieces) : pieces_(std::move(pieces)) {}

    std::size_t operator()(char* to, std::size_t most) {
        asked_.push_back(most);
        if (next_ == pieces_.size()) {
            return 0;
        }
        return pieces_[next_++].copy(to, most);
    }
    std::vector<std::size_t> const& asked() const { return asked_; }

private:
    std::vector<std::string> pieces_;
    std::size_t next_ = 0;
    std::vector<std::size_t> asked_;
};

class ReceiveBufferTest : public testing::Test {
protected:
    /// What was read, or "end".
    std::string read(Source& source, std::size_t size) {
        std::string bytes(size, '\0');
        auto const receive = [&source](char* to, std::size_t most) { return source(to, most); };
        return buffer_.read_full(bytes.data(), size, receive) ? bytes : "end";
    }

    ReceiveBuffer<8> buffer_;
};

TEST_F(ReceiveBufferTest, WhatCameTogetherCostsOneCall) {
    Source source({"abcdef"});
    EXPECT_EQ(read(source, 2), "ab");
    EXPECT_EQ(read(source, 3), "cde");
    EXPECT_EQ(read(source, 1), "f");
    EXPECT_EQ(source.asked(), std::vector<std::size_t>{8});
}

TEST_F(ReceiveBufferTest, WhatComesByteByByteIsPutTogether) {
    Source source({"a", "b", "c"});
    EXPECT_EQ(read(source, 3), "abc");
}

TEST_F(ReceiveBufferTest, WhatIsLargeGoesPastTheBufferButNotPastWhatIsInIt) {
    Source source({"abc", "defghijk", "lm"});
    EXPECT_EQ(read(source, 1), "a");
    EXPECT_EQ(read(source, 12), "bcdefghijklm");
    EXPECT_EQ(source.asked(), (std::vector<std::size_t>{8, 10, 8}));
}

TEST_F(ReceiveBufferTest, AnEndWithinWhatIsAskedForIsTheEnd) {
    Source source({"ab"});
    EXPECT_EQ(read(source, 3), "end");
    EXPECT_EQ(read(source, 1), "end");
}

TEST_F(ReceiveBufferTest, NothingIsAlwaysThere) {
    Source source({});
    EXPECT_EQ(read(source, 0), "");
    EXPECT_TRUE(source.asked().empty());
}

} // namespace
} // namespace mirelclient
