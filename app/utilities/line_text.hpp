#pragma once

#include <charconv>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

/// What the readers and writers of line-oriented files share. Thread safety: stateless.
namespace tessaron {

/// The number that the text consists of; nothing for any other text, or a number that `T` cannot
/// hold. No sign but "-", and that for a signed `T` only.
template <typename T>
std::optional<T> parse_number(std::string_view text, int base = 10) {
    T number{};
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    if (error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return number;
}

/// The text with a blank for each character that would end its line.
inline std::string one_line(std::string_view text) {
    std::string line(text);
    for (char& c : line) {
        if (c == '\n' || c == '\r') {
            c = ' ';
        }
    }
    return line;
}

/// The parts with one `separator` between any two.
inline std::string join(std::vector<std::string> const& parts, char separator) {
    std::string joined;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        joined.append(i == 0 ? 0 : 1, separator).append(parts[i]);
    }
    return joined;
}

/// The line without the carriage returns that an editor of another system left at its end.
inline std::string_view without_carriage_returns(std::string_view line) {
    while (line.ends_with('\r')) {
        line.remove_suffix(1);
    }
    return line;
}

} // namespace tessaron
