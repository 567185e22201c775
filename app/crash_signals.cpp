#include "app/crash_signals.hpp"

namespace tessaron::detail {

char const* crash_signal_name_signal_safe(int signal_number) noexcept {
    switch (signal_number) {
    case SIGABRT:
        return "SIGABRT";
    case SIGSEGV:
        return "SIGSEGV";
    case SIGFPE:
        return "SIGFPE";
    case SIGILL:
        return "SIGILL";
    case SIGBUS:
        return "SIGBUS";
    default:
        return "unknown signal";
    }
}

} // namespace tessaron::detail
