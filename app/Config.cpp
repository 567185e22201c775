#include "app/Config.hpp"

#include <stdexcept>
#include <utility>

namespace tessaron::config {

ConfigField const& Config::find(std::string const& name) const {
    for (ConfigField const& field : fields_) {
        if (field.name == name) {
            return field;
        }
    }
    throw std::out_of_range("Config: no such field: " + name);
}

ConfigField& Config::find_mutable(std::string const& name) {
    return const_cast<ConfigField&>(std::as_const(*this).find(name));
}

void Config::for_each(std::function<void(ConfigField const&)> const& function) const {
    for (ConfigField const& field : fields_) {
        function(field);
    }
}

void Config::reset_to_defaults() {
    for (ConfigField& field : fields_) {
        field.value = std::monostate{};
    }
}

} // namespace tessaron::config
