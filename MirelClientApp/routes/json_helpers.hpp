#pragma once

#include "app/config_field.hpp"
#include "app/utilities/json_value.hpp"

/// The JSON shapes of the REST API, one function per record.
namespace mirelclient::json_helpers {

/// One configuration field; every value in its text form.
tessaron::json::Value config_field(tessaron::config::ConfigFieldInfo const& info);

} // namespace mirelclient::json_helpers
