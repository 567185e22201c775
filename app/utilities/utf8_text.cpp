#include "app/utilities/utf8_text.hpp"

#include <algorithm>
#include <cstdlib>
#include <unistd.h>
#include <utility>

namespace tessaron::detail {
namespace {

/// How many bytes the code point that begins with `lead` should have.
std::size_t bytes_after_lead(char lead) {
    auto const byte = static_cast<unsigned char>(lead);
    if ((byte & 0xE0U) == 0xC0U) {
        return 2;
    }
    if ((byte & 0xF0U) == 0xE0U) {
        return 3;
    }
    return (byte & 0xF8U) == 0xF0U ? 4 : 1;
}

/// Fills lines with words, in the order they come.
class LineFiller {
public:
    explicit LineFiller(std::size_t width) : width_(width) {}

    void add_word(std::string_view word) {
        if (utf8_length(word) > width_) {
            add_long_word(word);
        } else if (line_.empty()) {
            line_ = word;
        } else if (utf8_length(line_) + 1 + utf8_length(word) > width_) {
            end_line();
            line_ = word;
        } else {
            line_ += ' ';
            line_ += word;
        }
    }

    std::vector<std::string> take() {
        end_line();
        if (lines_.empty()) {
            lines_.emplace_back();
        }
        return std::move(lines_);
    }

private:
    void add_long_word(std::string_view word) {
        end_line();
        while (utf8_length(word) > width_) {
            std::string_view const piece = utf8_truncate(word, width_);
            lines_.emplace_back(piece);
            word.remove_prefix(piece.size());
        }
        line_ = word;
    }

    void end_line() {
        if (!line_.empty()) {
            lines_.push_back(std::move(line_));
            line_.clear();
        }
    }

    std::size_t const width_;
    std::string line_;
    std::vector<std::string> lines_;
};

} // namespace

std::size_t utf8_length(std::string_view text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char byte) {
        return (static_cast<unsigned char>(byte) & 0xC0U) != 0x80U;
    }));
}

std::string_view utf8_truncate(std::string_view text, std::size_t limit) {
    std::size_t end = 0;
    for (std::size_t taken = 0; taken < limit && end < text.size(); ++taken) {
        end += bytes_after_lead(text[end]);
    }
    // A last character whose bytes are missing would reach beyond the text.
    return text.substr(0, end);
}

std::vector<std::string> wrap_text(std::string_view text, std::size_t width) {
    if (width == 0) {
        return {std::string(text)};
    }
    LineFiller filler(width);
    while (!text.empty()) {
        std::string_view const word = text.substr(0, text.find(' '));
        if (!word.empty()) {
            filler.add_word(word);
        }
        text.remove_prefix(std::min(word.size() + 1, text.size()));
    }
    return filler.take();
}

std::string ansi_colorize(std::string_view text, char const* color, bool enabled) {
    std::string colored(text);
    if (enabled && color != nullptr && *color != '\0') {
        colored.insert(0, color).append(K_ANSI_RESET);
    }
    return colored;
}

bool stdout_supports_color() {
    return std::getenv("NO_COLOR") == nullptr && isatty(STDOUT_FILENO) == 1;
}

} // namespace tessaron::detail
