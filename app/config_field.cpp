#include "app/config_field.hpp"

#include <array>
#include <charconv>
#include <stdexcept>

namespace tessaron::config {

std::string truncate_for_wire(std::string_view text, std::size_t max) {
    constexpr std::string_view ellipsis = "...";
    if (text.size() <= max) {
        return std::string(text);
    }
    return std::string(text.substr(0, max - ellipsis.size())).append(ellipsis);
}

namespace {

template <typename T>
std::string text_of(T const& value) {
    return detail::value_to_string<T>(value);
}

} // namespace

ConfigFieldInfo describe_config_field(ConfigField const& field) {
    std::string const default_text =
        std::visit([](auto const& value) { return text_of(value); }, field.default_value);
    std::string value_text = default_text;
    if (!std::holds_alternative<std::monostate>(field.value)) {
        value_text = std::visit(
            [](auto const& value) {
                if constexpr (std::is_same_v<std::decay_t<decltype(value)>, std::monostate>) {
                    return std::string();
                } else {
                    return text_of(value);
                }
            },
            field.value);
    }
    return {field.name, field.type,   truncate_for_wire(field.description, K_WIRE_DESCRIPTION_MAX),
            value_text, default_text, value_text == default_text};
}

namespace detail {

template <>
std::string type_name<char const*>() {
    return "string";
}
template <>
std::string type_name<long long>() {
    return "int";
}

template <>
std::string value_to_string(std::string const& value) {
    return value;
}
template <>
std::string value_to_string(long long const& value) {
    return std::to_string(value);
}
template <>
std::string value_to_string(bool const& value) {
    return value ? "true" : "false";
}
template <>
std::string value_to_string(double const& value) {
    std::array<char, 32> buffer{}; // The shortest text that reads back as the same double fits.
    auto const end = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value).ptr;
    return std::string(buffer.data(), end);
}

template <>
std::string parse_value(std::string const& text) {
    return text;
}
template <>
long long parse_value(std::string const& text) {
    return std::stoll(text, nullptr, 10);
}
template <>
double parse_value(std::string const& text) {
    return std::stod(text);
}
template <>
bool parse_value(std::string const& text) {
    if (text == "true" || text == "1") {
        return true;
    }
    if (text == "false" || text == "0") {
        return false;
    }
    throw std::invalid_argument("not a bool: " + text);
}

FieldValue parse_as_type_of(FieldDefault const& default_value, std::string const& text) {
    return std::visit(
        [&text](auto const& value) -> FieldValue {
            return parse_value<std::decay_t<decltype(value)>>(text);
        },
        default_value);
}

} // namespace detail
} // namespace tessaron::config
