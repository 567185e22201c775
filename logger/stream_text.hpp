#pragma once

#include <array>
#include <charconv>
#include <concepts>
#include <cstddef>
#include <memory_resource>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>

/// Turns the arguments of a log call into the text that an output stream would make of them, but
/// without a stream for the types that nearly every call is made of: building an
/// `std::ostringstream` costs more than all the rest of the call.
namespace tessaron::detail {

template <typename T, typename... Candidates>
concept AnyOf = (std::same_as<T, Candidates> || ...);

// clang-format off
template <typename T>
concept PlainString = AnyOf<std::decay_t<T>, std::string, std::string_view, char*, char const*>;
// clang-format on

template <typename T>
concept PlainCharacter = AnyOf<T, char, signed char, unsigned char>;

template <typename T>
concept PlainInteger = AnyOf<T, short, unsigned short, int, unsigned, long, unsigned long,
                             long long, unsigned long long>;

template <typename T>
concept PlainArgument =
    PlainString<T> || PlainCharacter<T> || PlainInteger<T> || std::same_as<T, bool>;

/// Digits and sign of the longest 64-bit integer.
inline constexpr std::size_t K_LONGEST_INTEGER = 20;

/// The characters of a string-like argument; a null pointer has none.
template <PlainString T>
std::string_view view_of(T const& argument) {
    if constexpr (AnyOf<std::decay_t<T>, char*, char const*>) {
        char const* const text = argument;
        return text == nullptr ? std::string_view() : std::string_view(text);
    } else {
        return argument;
    }
}

template <PlainArgument T>
std::size_t longest_text_of(T const& argument) {
    if constexpr (PlainString<T>) {
        return view_of(argument).size();
    } else {
        return K_LONGEST_INTEGER;
    }
}

template <typename Text, PlainArgument T>
void append(Text& text, T const& argument) {
    if constexpr (PlainString<T>) {
        text.append(view_of(argument));
    } else if constexpr (PlainCharacter<T>) {
        text.push_back(static_cast<char>(argument));
    } else if constexpr (std::same_as<T, bool>) {
        text.push_back(argument ? '1' : '0');
    } else {
        char digits[K_LONGEST_INTEGER];
        auto const result = std::to_chars(digits, digits + sizeof digits, argument);
        text.append(digits, result.ptr);
    }
}

/// Longest message that needs no memory from the heap.
inline constexpr std::size_t K_SHORT_MESSAGE = 256;

/// Calls `consume` with the text of the arguments, which lives until `consume` returns.
///
/// One argument of another kind sends all of them through one stream, since a manipulator acts on
/// the arguments behind it.
template <typename Consume, typename... Args>
void with_stream_text(Consume&& consume, Args const&... args) {
    if constexpr ((PlainArgument<Args> && ...)) {
        std::array<std::byte, K_SHORT_MESSAGE + 1> block; // the string ends it with a NUL
        std::pmr::monotonic_buffer_resource memory(block.data(), block.size());
        std::pmr::string text(&memory);
        text.reserve((std::size_t{0} + ... + longest_text_of(args)));
        (append(text, args), ...);
        consume(std::string_view(text));
    } else {
        std::ostringstream stream;
        (stream << ... << args);
        consume(std::string_view(std::move(stream).str()));
    }
}

} // namespace tessaron::detail
