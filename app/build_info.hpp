#pragma once

#include <string>

namespace tessaron {

/// What this build says of itself: core version, build timestamp and build machine, joined by "-".
std::string build_version();

} // namespace tessaron
