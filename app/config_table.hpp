#pragma once

#include "app/Config.hpp"
#include "app/utilities/TableFormatter.hpp"

namespace tessaron::config {

/// Every field with its type, value and description, in order, as --list-config prints it.
TableFormatter config_table(Config const& config);

} // namespace tessaron::config
