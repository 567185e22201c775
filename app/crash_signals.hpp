#pragma once

#include <array>
#include <csignal>

namespace tessaron {

/// The signals that take a process down from within, in the order their handlers are installed.
inline constexpr std::array K_CRASH_SIGNALS{SIGSEGV, SIGABRT, SIGFPE, SIGILL, SIGBUS};

namespace detail {

/// "SIGABRT", ...; "unknown signal" for any but a crash signal. Async-signal-safe.
char const* crash_signal_name_signal_safe(int signal_number) noexcept;

} // namespace detail
} // namespace tessaron
