#pragma once

#include "MirelClientApp/updates/PackageUpdater.hpp"
#include "MirelClientApp/updates/SelfUpdater.hpp"
#include "app/config_field.hpp"
#include "app/utilities/json_value.hpp"

/// The JSON shapes of the REST API, one function per record.
namespace mirelclient::json_helpers {

/// One configuration field; every value in its text form.
tessaron::json::Value config_field(tessaron::config::ConfigFieldInfo const& info);

/// Nothing but the empty phase for a package that was never updated.
tessaron::json::Value update_status(UpdateStatus const& status);

/// Without `error` when that is empty.
tessaron::json::Value check_result(SelfUpdater::CheckResult const& result);

} // namespace mirelclient::json_helpers
