#include "app/signal_safe_text.hpp"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <unistd.h>

namespace tessaron::detail {

namespace {

std::string_view format_signal_safe(std::uint64_t number, unsigned base,
                                    NumberBuffer& buffer) noexcept {
    std::size_t begin = buffer.size();
    do {
        buffer[--begin] = "0123456789abcdef"[number % base];
        number /= base;
    } while (number != 0);
    return {buffer.data() + begin, buffer.size() - begin};
}

} // namespace

std::string_view format_unsigned_signal_safe(std::uint64_t number, NumberBuffer& buffer) noexcept {
    return format_signal_safe(number, 10, buffer);
}

std::string_view format_hex_signal_safe(std::uint64_t number, NumberBuffer& buffer) noexcept {
    return format_signal_safe(number, 16, buffer);
}

std::optional<std::uint64_t> parse_unsigned_signal_safe(char const* text) noexcept {
    constexpr std::uint64_t K_MAX = std::numeric_limits<std::uint64_t>::max();
    std::uint64_t number = 0;
    if (*text == '\0') {
        return std::nullopt;
    }
    for (; *text != '\0'; ++text) {
        if (*text < '0' || *text > '9') {
            return std::nullopt;
        }
        auto const digit = static_cast<std::uint64_t>(*text - '0');
        if (number > (K_MAX - digit) / 10) {
            return std::nullopt;
        }
        number = number * 10 + digit;
    }
    return number;
}

void write_literal_signal_safe(int fd, std::string_view text) noexcept {
    while (!text.empty()) {
        ssize_t const written = ::write(fd, text.data(), text.size());
        if (written > 0) {
            text.remove_prefix(static_cast<std::size_t>(written));
        } else if (written == 0 || errno != EINTR) {
            return;
        }
    }
}

void write_literal_no_spaces_signal_safe(int fd, std::string_view text) noexcept {
    SignalSafeWriter writer(fd);
    for (char const byte : text) {
        writer.text(byte == ' ' ? std::string_view("_") : std::string_view(&byte, 1));
    }
}

SignalSafeWriter& SignalSafeWriter::text(std::string_view piece) noexcept {
    while (!piece.empty()) {
        if (used_ == buffer_.size()) {
            flush();
        }
        std::size_t const count = std::min(piece.size(), buffer_.size() - used_);
        std::copy_n(piece.data(), count, buffer_.data() + used_);
        used_ += count;
        piece.remove_prefix(count);
    }
    return *this;
}

SignalSafeWriter& SignalSafeWriter::one_line(std::string_view piece) noexcept {
    for (char const byte : piece) {
        text(byte == '\n' || byte == '\r' ? std::string_view(" ") : std::string_view(&byte, 1));
    }
    return *this;
}

SignalSafeWriter& SignalSafeWriter::number(std::uint64_t value) noexcept {
    NumberBuffer digits;
    return text(format_unsigned_signal_safe(value, digits));
}

SignalSafeWriter& SignalSafeWriter::hex(std::uint64_t value) noexcept {
    NumberBuffer digits;
    return text(format_hex_signal_safe(value, digits));
}

void SignalSafeWriter::flush() noexcept {
    write_literal_signal_safe(fd_, {buffer_.data(), used_});
    used_ = 0;
}

} // namespace tessaron::detail
