#pragma once

#include "proto/FieldName.hpp"
#include "proto/field_list.hpp"

#include <tuple>
#include <type_traits>

namespace proto {

/// A copy of a received field, with its kind as part of its type.
template <FieldName NAME, typename T>
struct NamedValue {
    static constexpr FieldName K_NAME = NAME;
    T value;
};

namespace meta {

/// The value of the first entry of that kind in a tuple of `NamedValue`s. What it refers to lives
/// in the tuple, and may be moved out of it.
template <FieldName NAME, typename Named>
constexpr auto& get_named(Named& tuple) {
    constexpr auto K_INDEX = field_index<std::remove_const_t<Named>, NAME>();
    static_assert(K_INDEX < std::tuple_size_v<Named>, "the frame has no such field");
    return std::get<K_INDEX>(tuple).value;
}

} // namespace meta

} // namespace proto
