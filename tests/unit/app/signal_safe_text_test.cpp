#include "app/signal_safe_text.hpp"

#include "app/utilities/file_io.hpp"

#include <array>
#include <gtest/gtest.h>
#include <limits>
#include <string>
#include <unistd.h>

namespace tessaron::detail {
namespace {

/// Collects what is written to a descriptor; small enough for the pipe to hold.
class Pipe {
public:
    Pipe() {
        std::array<int, 2> ends{};
        EXPECT_EQ(::pipe(ends.data()), 0);
        read_end_.reset(ends[0]);
        write_end_.reset(ends[1]);
    }
    int fd() const { return write_end_.get(); }
    std::string text() {
        write_end_.reset();
        std::string all;
        std::array<char, 4096> block{};
        for (ssize_t count = 0;
             (count = ::read(read_end_.get(), block.data(), block.size())) > 0;) {
            all.append(block.data(), static_cast<std::size_t>(count));
        }
        return all;
    }

private:
    UniqueFd read_end_;
    UniqueFd write_end_;
};

TEST(SignalSafeText, FormatsEveryNumberThatFits) {
    NumberBuffer buffer;
    EXPECT_EQ(format_unsigned_signal_safe(0, buffer), "0");
    EXPECT_EQ(format_unsigned_signal_safe(4096, buffer), "4096");
    constexpr auto K_MAX = std::numeric_limits<std::uint64_t>::max();
    EXPECT_EQ(format_unsigned_signal_safe(K_MAX, buffer), "18446744073709551615");
    EXPECT_EQ(format_hex_signal_safe(0, buffer), "0");
    EXPECT_EQ(format_hex_signal_safe(0xdeadbeef, buffer), "deadbeef");
    EXPECT_EQ(format_hex_signal_safe(K_MAX, buffer), "ffffffffffffffff");
}

TEST(SignalSafeText, ParsesDigitsAndNothingElse) {
    EXPECT_EQ(parse_unsigned_signal_safe("0"), 0U);
    EXPECT_EQ(parse_unsigned_signal_safe("0042"), 42U);
    EXPECT_EQ(parse_unsigned_signal_safe("18446744073709551615"),
              std::numeric_limits<std::uint64_t>::max());
    for (char const* text : {"", " 1", "1 ", "-1", "+1", "0x1", "1e3", "18446744073709551616",
                             "99999999999999999999999"}) {
        EXPECT_EQ(parse_unsigned_signal_safe(text), std::nullopt) << text;
    }
}

TEST(SignalSafeText, ALiteralIsWrittenAsItStandsOrWithoutItsBlanks) {
    Pipe pipe;
    write_literal_signal_safe(pipe.fd(), "GNU 12 .2");
    write_literal_no_spaces_signal_safe(pipe.fd(), "GNU 12 .2");
    EXPECT_EQ(pipe.text(), "GNU 12 .2GNU_12_.2");
}

TEST(SignalSafeText, AClosedDescriptorIsNoReasonToStay) {
    write_literal_signal_safe(-1, "nobody reads this");
    SignalSafeWriter(-1).text("nor this");
}

TEST(SignalSafeWriter, PiecesComeOutInOrder) {
    Pipe pipe;
    SignalSafeWriter(pipe.fd()).text("a=").number(7).text(" b=0x").hex(255).text("\n");
    EXPECT_EQ(pipe.text(), "a=7 b=0xff\n");
}

TEST(SignalSafeWriter, ATextLongerThanItsBufferLosesNothing) {
    Pipe pipe;
    std::string const text(10'000, 'x');
    SignalSafeWriter(pipe.fd()).text("<").text(text).text(">");
    EXPECT_EQ(pipe.text(), "<" + text + ">");
}

TEST(SignalSafeWriter, OneEntryStaysOneLine) {
    Pipe pipe;
    SignalSafeWriter(pipe.fd()).one_line("two\nlines\r\n=== crash ===").text("\n");
    EXPECT_EQ(pipe.text(), "two lines  === crash ===\n");
}

} // namespace
} // namespace tessaron::detail
