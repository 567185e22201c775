#pragma once

#include "app/config_field.hpp"

#include <functional>
#include <string>
#include <tuple>
#include <vector>

namespace tessaron::config {

/// The fields of one application, in the order of its field tuple.
///
/// Thread safety: one thread at a time, the caller's duty (`ConfigStore` is the shared form).
/// Errors: an unknown name throws `std::out_of_range` ("Config: no such field: <name>").
class Config {
public:
    /// One `FieldSpec` per field, in order.
    template <typename... Specs>
    explicit Config(std::tuple<Specs...> const& specs) {
        std::apply([this](auto const&... spec) { (this->add_one(spec), ...); }, specs);
    }

    ConfigField const& find(std::string const& name) const;
    ConfigField& find_mutable(std::string const& name);

    /// The value if one is set, otherwise the default. Asking for another type than the field's is
    /// a fault of the program and throws `std::bad_variant_access`.
    template <typename T>
    T get(std::string const& name) const {
        ConfigField const& field = find(name);
        T const* value = std::get_if<T>(&field.value);
        return value != nullptr ? *value : std::get<T>(field.default_value);
    }

    template <typename T>
    void set(std::string const& name, T value) {
        find_mutable(name).value = std::move(value);
    }

    /// Calls `function` for each field, in order.
    void for_each(std::function<void(ConfigField const&)> const& function) const;

    /// Every field reads as its default afterwards.
    void reset_to_defaults();

private:
    void add_one(FieldSpec<char const*> const& spec) {
        add<std::string>(spec.name, spec.description, spec.default_value,
                         detail::type_name<char const*>());
    }
    void add_one(FieldSpec<long long> const& spec) {
        add<long long>(spec.name, spec.description, spec.default_value,
                       detail::type_name<long long>());
    }
    template <typename T>
    void add(std::string name, std::string description, T default_value, std::string type) {
        fields_.push_back({std::move(name),
                           std::move(description),
                           std::move(type),
                           {},
                           FieldDefault(std::move(default_value))});
    }

    std::vector<ConfigField> fields_;
};

} // namespace tessaron::config
