#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

/// Text within a signal handler: `write` and the stack, nothing else. All of it is
/// async-signal-safe, and no result of a `write` is looked at: there is nothing left to be done.
namespace tessaron::detail {

/// Room for any number in either form.
using NumberBuffer = std::array<char, 24>;

/// The text lies within `buffer`. Hexadecimal digits are lower-case and without "0x".
std::string_view format_unsigned_signal_safe(std::uint64_t number, NumberBuffer& buffer) noexcept;
std::string_view format_hex_signal_safe(std::uint64_t number, NumberBuffer& buffer) noexcept;

/// Decimal digits alone, and at least one; nothing for anything else and for a number too large.
std::optional<std::uint64_t> parse_unsigned_signal_safe(char const* text) noexcept;

void write_literal_signal_safe(int fd, std::string_view text) noexcept;
/// With "_" for each blank.
void write_literal_no_spaces_signal_safe(int fd, std::string_view text) noexcept;

/// Gathers pieces of text, so that a whole line takes one `write`. What is left is written by
/// `flush` or at the end.
class SignalSafeWriter {
public:
    explicit SignalSafeWriter(int fd) noexcept : fd_(fd) {}
    ~SignalSafeWriter() { flush(); }
    SignalSafeWriter(SignalSafeWriter const&) = delete;
    SignalSafeWriter& operator=(SignalSafeWriter const&) = delete;

    SignalSafeWriter& text(std::string_view piece) noexcept;
    /// Line breaks become blanks: one entry is one line.
    SignalSafeWriter& one_line(std::string_view piece) noexcept;
    SignalSafeWriter& number(std::uint64_t value) noexcept;
    SignalSafeWriter& hex(std::uint64_t value) noexcept;
    void flush() noexcept;

private:
    int const fd_;
    std::size_t used_ = 0;
    std::array<char, 4096> buffer_;
};

} // namespace tessaron::detail
