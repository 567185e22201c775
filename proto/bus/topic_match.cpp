#include "proto/bus/topic_match.hpp"

#include <cstddef>

namespace proto::bus {

bool glob_match(std::string_view pattern, std::string_view text) {
    std::size_t in_pattern = 0;
    std::size_t in_text = 0;
    // Where to go back to on a mismatch: behind the last star, with one byte more for the star.
    std::size_t behind_star = std::string_view::npos;
    std::size_t star_end = 0;
    while (in_text < text.size()) {
        if (in_pattern < pattern.size() && pattern[in_pattern] == '*') {
            behind_star = ++in_pattern;
            star_end = in_text;
        } else if (in_pattern < pattern.size() && pattern[in_pattern] == text[in_text]) {
            ++in_pattern;
            ++in_text;
        } else if (behind_star != std::string_view::npos) {
            in_pattern = behind_star;
            in_text = ++star_end;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of('*', in_pattern) == std::string_view::npos;
}

} // namespace proto::bus
