#pragma once

#include <string>

namespace mirelclient {

/// The platform this build is for, as "<cpu>-<os>" (for instance "x86_64-linux"). The registry
/// matches it exactly against the arch of a published build.
std::string detect_platform_arch();

} // namespace mirelclient
