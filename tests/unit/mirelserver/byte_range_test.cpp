#include "mirelserver/byte_range.hpp"

#include <gtest/gtest.h>

namespace mirelserver {
namespace {

void expect_range(char const* header, std::uint64_t offset, std::uint64_t length) {
    auto const wanted = parse_range(header, 100);
    ASSERT_TRUE(wanted) << header;
    EXPECT_TRUE(wanted->satisfiable) << header;
    EXPECT_EQ(wanted->range.offset, offset) << header;
    EXPECT_EQ(wanted->range.length, length) << header;
}

TEST(ByteRange, BothEndsAreIncluded) {
    expect_range("bytes=0-0", 0, 1);
    expect_range("bytes=10-19", 10, 10);
    expect_range("bytes=0-99", 0, 100);
}

TEST(ByteRange, AnOpenOrTooLargeEndIsTheEndOfTheFile) {
    expect_range("bytes=90-", 90, 10);
    expect_range("bytes=90-100", 90, 10);
    expect_range("bytes=0-18446744073709551615", 0, 100);
}

TEST(ByteRange, ASuffixCountsFromTheEnd) {
    expect_range("bytes=-1", 99, 1);
    expect_range("bytes=-100", 0, 100);
    expect_range("bytes=-1000", 0, 100);
}

TEST(ByteRange, ARangeBehindTheEndCannotBeSatisfied) {
    EXPECT_FALSE(parse_range("bytes=100-", 100)->satisfiable);
    EXPECT_FALSE(parse_range("bytes=0-", 0)->satisfiable);
    EXPECT_FALSE(parse_range("bytes=-0", 100)->satisfiable);
    EXPECT_FALSE(parse_range("bytes=-5", 0)->satisfiable);
}

TEST(ByteRange, WhatIsNoSingleRangeIsIgnored) {
    for (char const* header : {"", "bytes", "bytes=", "bytes=-", "bytes=5", "bytes=9-2",
                               "bytes=a-b", "bytes=1-b", "bytes=1-2,4-5", "lines=1-2", "bytes=--1",
                               "bytes=+1-2", "bytes= 1-2", "bytes=99999999999999999999-"}) {
        EXPECT_FALSE(parse_range(header, 100)) << header;
    }
}

} // namespace
} // namespace mirelserver
