#pragma once

#include "logger/ITimeProvider.hpp"

namespace tessaron {

/// The system clock.
///
/// Thread safety: safe from any thread.
class SystemTimeProvider final : public ITimeProvider {
public:
    TimePoint now() const override;
};

} // namespace tessaron
