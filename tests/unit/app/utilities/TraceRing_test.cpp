#include "app/utilities/TraceRing.hpp"

#include <cstring>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

namespace tessaron {
namespace {

struct Entry {
    std::uint64_t number = 0;
    char text[16] = {};
};

Entry entry(std::uint64_t number, char const* text = "") {
    Entry filled;
    filled.number = number;
    detail::copy_truncated(filled.text, sizeof filled.text, text);
    return filled;
}

TEST(CopyTruncated, ShortTextIsCopiedWhole) {
    char room[8];
    EXPECT_EQ(detail::copy_truncated(room, sizeof room, "seven!!"), 7U);
    EXPECT_STREQ(room, "seven!!");
}

TEST(CopyTruncated, LongTextEndsInThreeDots) {
    char room[8];
    EXPECT_EQ(detail::copy_truncated(room, sizeof room, "eight!!!"), 7U);
    EXPECT_STREQ(room, "eigh...");
}

TEST(CopyTruncated, RoomForLessThanTheDotsHoldsAsManyAsFit) {
    char room[3];
    detail::copy_truncated(room, sizeof room, "long");
    EXPECT_STREQ(room, "..");
    detail::copy_truncated(room, 1, "long");
    EXPECT_STREQ(room, "");
    EXPECT_EQ(detail::copy_truncated(room, 0, "long"), 0U);
}

TEST(CopyTruncated, EmptyTextIsJustTheNul) {
    char room[3] = "xx";
    EXPECT_EQ(detail::copy_truncated(room, sizeof room, {}), 0U);
    EXPECT_STREQ(room, "");
}

TEST(TraceRing, KeepsTheNewestEntriesAndTheIndexGoesOn) {
    TraceRing<Entry, 3> ring;
    for (std::uint64_t number = 0; number < 5; ++number) {
        ring.put(entry(number));
    }
    EXPECT_EQ(ring.raw_write_index(), 5u);
    auto const copy = ring.snapshot();
    EXPECT_EQ(copy.write_index, 5u);
    EXPECT_EQ(copy.entries[0].number, 3u);
    EXPECT_EQ(copy.entries[1].number, 4u);
    EXPECT_EQ(copy.entries[2].number, 2u);
}

TEST(TraceRing, ASlotReadsAsWhatWasPutThere) {
    TraceRing<Entry, 2> ring;
    ring.put(entry(7, "seven"));
    Entry const read = read_trace_slot(ring.raw_entries()[0]);
    EXPECT_EQ(read.number, 7u);
    EXPECT_STREQ(read.text, "seven");
}

TEST(TraceRing, APartIsWrittenInWholeWords) {
    TraceRing<Entry, 1> ring;
    ring.put(entry(1, "abcdefghijklmno"));
    ring.put(entry(2, "x"), sizeof(std::uint64_t) + 2);
    auto const copy = ring.snapshot();
    EXPECT_EQ(copy.entries[0].number, 2u);
    EXPECT_STREQ(copy.entries[0].text, "x");
    EXPECT_STREQ(copy.entries[0].text + 8, "ijklmno");
}

TEST(TraceRing, NoEntryIsLostWhateverThreadsWrite) {
    TraceRing<Entry, 4096> ring;
    std::vector<std::thread> threads;
    for (std::uint64_t thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&ring, thread] {
            for (std::uint64_t i = 0; i < 1000; ++i) {
                ring.put(entry(thread * 1000 + i + 1));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::vector<bool> seen(4001);
    auto const copy = ring.snapshot();
    for (std::uint64_t i = 0; i < copy.write_index; ++i) {
        seen[copy.entries[i].number] = true;
    }
    EXPECT_EQ(std::vector<bool>(seen.begin() + 1, seen.end()), std::vector<bool>(4000, true));
}

} // namespace
} // namespace tessaron
