#pragma once

#include <array>
#include <cstdint>
#include <span>

namespace tessaron {

/// One way in which a session may end: what stands behind "reason=" in the history, and what it
/// means.
struct TerminationReason {
    std::uint8_t value;
    char const* name;
    char const* description;
};

/// The reasons that the shell itself gives. An application with further ones supplies a structure
/// of the same shape, whose first five entries are these.
struct DefaultTerminationReasons {
    enum class Reason : std::uint8_t { normal = 0, reboot = 1, signal = 2, crash = 3, error = 4 };

    static constexpr std::array<TerminationReason, 5> K_ENTRIES{{
        {0, "normal", "Clean, expected shutdown - RunImpl() returned normally"},
        {1, "reboot", "Requested via the \"reboot\" bus topic or RequestReboot()"},
        {2, "signal", "Terminated by a non-fatal signal (SIGINT/SIGTERM/...)"},
        {3, "crash", "A fatal signal or an uncaught exception took the process down"},
        {4, "error", "RunImpl() itself threw"},
    }};

    /// What can be told to someone who reads the history.
    static constexpr std::span<TerminationReason const> describe() { return K_ENTRIES; }
};

/// The name of a reason in a table of them; "unknown" for one that is not there.
constexpr char const* name_of(std::span<TerminationReason const> entries, std::uint8_t value) {
    for (TerminationReason const& entry : entries) {
        if (entry.value == value) {
            return entry.name;
        }
    }
    return "unknown";
}

} // namespace tessaron
