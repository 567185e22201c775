#pragma once

#include "proto/FieldName.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <tuple>
#include <type_traits>

/// What can be asked of a list of fields (a tuple whose types have a `K_NAME`) while compiling.
namespace proto {

namespace detail {

template <typename List>
struct ListTraits;

template <typename... Entries>
struct ListTraits<std::tuple<Entries...>> {
    static constexpr std::array<FieldName, sizeof...(Entries)> K_NAMES{Entries::K_NAME...};
};

template <typename Fields>
struct BufferCount;

template <typename... Fields>
struct BufferCount<std::tuple<Fields...>> {
    static constexpr std::size_t K_VALUE = std::max({std::size_t{Fields::K_BUFFER}...}) + 1;
};

} // namespace detail

/// The ordinal of the first entry of that kind from ordinal FROM on; the length of the list if
/// there is none.
template <typename List, FieldName NAME, std::size_t FROM = 0>
constexpr std::size_t field_index() {
    auto const& names = detail::ListTraits<List>::K_NAMES;
    std::size_t index = std::min(FROM, names.size());
    while (index < names.size() && names[index] != NAME) {
        ++index;
    }
    return index;
}

template <typename List, FieldName NAME, std::size_t FROM = 0>
inline constexpr bool K_HAS_FIELD = field_index<List, NAME, FROM>() < std::tuple_size_v<List>;

/// How many buffers the fields of a frame lie in.
template <typename Fields>
inline constexpr std::size_t K_BUFFER_COUNT = detail::BufferCount<Fields>::K_VALUE;

} // namespace proto
