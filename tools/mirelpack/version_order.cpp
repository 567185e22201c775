#include "tools/mirelpack/version_order.hpp"

#include <algorithm>
#include <cstddef>

namespace mirelpack {

namespace {

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

/// Cuts the leading run of digits, or of anything but digits, off `text`.
std::string_view take_run(std::string_view& text) {
    std::size_t size = 0;
    while (size < text.size() && is_digit(text[size]) == is_digit(text[0])) {
        ++size;
    }
    auto const run = text.substr(0, size);
    text.remove_prefix(size);
    return run;
}

int compare_numbers(std::string_view a, std::string_view b) {
    a.remove_prefix(std::min(a.find_first_not_of('0'), a.size()));
    b.remove_prefix(std::min(b.find_first_not_of('0'), b.size()));
    if (a.size() != b.size()) {
        return a.size() < b.size() ? -1 : 1;
    }
    return a.compare(b);
}

/// One dot-separated part: numbers by value, numbers before words, and "rc2" before "rc10".
int compare_parts(std::string_view a, std::string_view b) {
    while (!a.empty() && !b.empty()) {
        if (is_digit(a[0]) != is_digit(b[0])) {
            return is_digit(a[0]) ? -1 : 1;
        }
        bool const numeric = is_digit(a[0]);
        auto const left = take_run(a);
        auto const right = take_run(b);
        if (int const order = numeric ? compare_numbers(left, right) : left.compare(right)) {
            return order;
        }
    }
    return static_cast<int>(!a.empty()) - static_cast<int>(!b.empty());
}

std::string_view take_part(std::string_view& text) {
    auto const dot = std::min(text.find('.'), text.size());
    auto const part = text.substr(0, dot);
    text.remove_prefix(std::min(dot + 1, text.size()));
    return part;
}

/// `absent` stands for the parts that the shorter text does not have.
int compare_dotted(std::string_view a, std::string_view b, std::string_view absent) {
    while (!a.empty() || !b.empty()) {
        auto const left = a.empty() ? absent : take_part(a);
        auto const right = b.empty() ? absent : take_part(b);
        if (int const order = compare_parts(left, right)) {
            return order;
        }
    }
    return 0;
}

struct Version {
    std::string_view core;
    std::string_view suffix;
    bool is_final;
};

Version split(std::string_view text) {
    text = text.substr(0, text.find('+'));
    auto const mark = text.find_first_of("-~");
    bool const is_final = mark == std::string_view::npos;
    return {text.substr(0, mark), is_final ? std::string_view() : text.substr(mark + 1), is_final};
}

} // namespace

int compare_versions(std::string_view a, std::string_view b) {
    Version const left = split(a);
    Version const right = split(b);
    if (int const order = compare_dotted(left.core, right.core, "0")) {
        return order;
    }
    if (left.is_final != right.is_final) {
        return left.is_final ? 1 : -1;
    }
    if (int const order = compare_dotted(left.suffix, right.suffix, "")) {
        return order;
    }
    return a.compare(b);
}

} // namespace mirelpack
