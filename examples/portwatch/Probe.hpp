#pragma once

#include "Target.hpp"

#include <chrono>
#include <optional>
#include <vector>

namespace portwatch {

/// Connects to all targets at the same time, so that those which don't answer cost one time-out
/// together, and closes the connections at once.
///
/// Returns nothing if `stop_descriptor` became readable before all were done: what is not known by
/// then is nobody's fault.
///
/// Thread safety: stateless; safe from any thread.
/// Errors: each is that of its target, and told in its check.
std::optional<std::vector<Check>> probe(std::vector<Target> const& targets,
                                        std::chrono::milliseconds timeout, int stop_descriptor);

} // namespace portwatch
