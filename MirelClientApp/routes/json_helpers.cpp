#include "MirelClientApp/routes/json_helpers.hpp"

namespace mirelclient::json_helpers {

using tessaron::json::Value;

Value config_field(tessaron::config::ConfigFieldInfo const& info) {
    return Value::Object{{"name", info.name},
                         {"type_name", info.type},
                         {"description", info.description},
                         {"current_value", info.value},
                         {"default_value", info.default_value},
                         {"is_default", info.is_default}};
}

} // namespace mirelclient::json_helpers
