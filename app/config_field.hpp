#pragma once

#include <string>
#include <string_view>
#include <variant>

namespace tessaron::config {

/// Compile-time description of one configuration field. `T` is `char const*` or `long long`.
template <typename T>
struct FieldSpec {
    char const* name;
    char const* description;
    T default_value;
};

/// What a field was set to; `std::monostate` means "not set, read the default".
using FieldValue = std::variant<std::monostate, bool, long long, double, std::string>;
using FieldDefault = std::variant<bool, long long, double, std::string>;

/// One field at run time.
struct ConfigField {
    std::string name;
    std::string description;
    std::string type; ///< "string" or "int", as `detail::type_name` gives it.
    FieldValue value;
    FieldDefault default_value;
};

/// One field as a reader sees it: every value in its text form.
struct ConfigFieldInfo {
    std::string name;
    std::string type;
    std::string description; ///< Cut to `K_WIRE_DESCRIPTION_MAX` characters.
    std::string value;
    std::string default_value;
    bool is_default = true; ///< The value's text equals the default's.
};

inline constexpr std::size_t K_WIRE_DESCRIPTION_MAX = 40;

/// A text longer than `max` becomes its first `max - 3` characters and "...".
std::string truncate_for_wire(std::string_view text, std::size_t max);

ConfigFieldInfo describe_config_field(ConfigField const& field);

namespace detail {

/// The type's name as the configuration file and every listing show it.
template <typename T>
std::string type_name();

/// The text form of a value, which `parse_value` reads back.
template <typename T>
std::string value_to_string(T const& value);

/// Reads a value's text form. Numbers follow the standard conversions: leading blanks and trailing
/// garbage are accepted. Throws a standard exception on text that is no such value.
template <typename T>
T parse_value(std::string const& text);

/// Parses `text` as the type that `default_value` holds; throws as `parse_value`.
FieldValue parse_as_type_of(FieldDefault const& default_value, std::string const& text);

} // namespace detail
} // namespace tessaron::config
