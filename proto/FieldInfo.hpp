#pragma once

#include "proto/Field.hpp"
#include "proto/FieldName.hpp"
#include "proto/field_list.hpp"

#include <tuple>
#include <type_traits>

namespace proto {

/// A value to send: which field it is for, where it stands and how large it is.
///
/// Ownership: the value stays the caller's, and must be there until `send` returns.
template <FieldName NAME, typename T>
struct FieldInfo {
    static constexpr FieldName K_NAME = NAME;
    using Type = T;
    /// A pointer to the value, or for a string of bytes (`unsigned char*`) to the first one.
    using Pointer = std::remove_pointer_t<T> const*;

    Pointer value;
    unsigned long size;
};

template <FieldName NAME, typename T>
constexpr FieldInfo<NAME, T> make_field_info(typename FieldInfo<NAME, T>::Pointer value,
                                             unsigned long size = K_UNKNOWN_SIZE) {
    return {value, size};
}

/// The first `FieldInfo` for that kind of field in the tuple of a send.
template <FieldName NAME, typename Infos>
constexpr auto const& get_field_info_by_name(Infos const& infos) {
    return std::get<field_index<Infos, NAME>()>(infos);
}

template <typename... Infos, typename Function>
constexpr void for_each_info(std::tuple<Infos...> const& infos, Function&& function) {
    std::apply([&](auto const&... info) { (function(info), ...); }, infos);
}

} // namespace proto
