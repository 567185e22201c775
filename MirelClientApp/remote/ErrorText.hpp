#pragma once

#include <optional>
#include <string>

namespace mirelclient {

/// Why an operation failed. No value means that it succeeded.
using ErrorText = std::optional<std::string>;

} // namespace mirelclient
