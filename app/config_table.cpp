#include "app/config_table.hpp"

#include "app/config_field.hpp"

#include <string>
#include <utility>

namespace tessaron::config {

namespace {

constexpr unsigned long K_VALUE_WIDTH = 32;
constexpr unsigned long K_DESCRIPTION_WIDTH = 60;

constexpr char const* K_NAME_COLOR = "\033[1;36m";
constexpr char const* K_DEFAULT_VALUE_COLOR = "\033[2m";
constexpr char const* K_CHANGED_VALUE_COLOR = "\033[1m";

char const* ansi_color_for_type(std::string const& type) {
    if (type == "string") {
        return "\033[32m";
    }
    if (type == "int") {
        return "\033[34m";
    }
    if (type == "double") {
        return "\033[36m";
    }
    return type == "bool" ? "\033[35m" : "\033[0m";
}

} // namespace

TableFormatter config_table(Config const& config) {
    TableFormatter table(
        {{"NAME", 0}, {"TYPE", 0}, {"VALUE", K_VALUE_WIDTH}, {"DESCRIPTION", K_DESCRIPTION_WIDTH}});
    config.for_each([&table](ConfigField const& field) {
        ConfigFieldInfo const info = describe_config_field(field);
        table.add_row({{info.name, K_NAME_COLOR},
                       {info.type, ansi_color_for_type(info.type)},
                       {info.is_default ? info.value + " [default]" : info.value,
                        info.is_default ? K_DEFAULT_VALUE_COLOR : K_CHANGED_VALUE_COLOR},
                       {field.description, ""}});
    });
    return table;
}

} // namespace tessaron::config
