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

Value update_status(UpdateStatus const& status) {
    if (status.phase.empty()) {
        return Value::Object{{"phase", ""}};
    }
    return Value::Object{{"phase", status.phase},
                         {"error", status.error},
                         {"target_version", status.target_version}};
}

Value check_result(SelfUpdater::CheckResult const& result) {
    Value::Object members{{"available", result.update_available},
                          {"current_version", result.current_version},
                          {"latest_version", result.latest_version},
                          {"arch", result.arch}};
    if (!result.error.empty()) {
        members.emplace("error", result.error);
    }
    return members;
}

} // namespace mirelclient::json_helpers
