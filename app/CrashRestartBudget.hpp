#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tessaron {

namespace app_shell_detail {

/// The name in capitals, with "_" for each "-", and the suffix behind it.
std::string make_env_var_name(std::string const& name, std::string const& suffix);

} // namespace app_shell_detail

/// How often a program may start itself anew after a crash: `K_MAX_RESTARTS` times within
/// `K_WINDOW_SECONDS`, counted from the first of them.
///
/// The count travels in two environment variables from one image of the process to the next, and
/// only there: they are taken out of the environment at construction, so that no child begins its
/// own life with the crashes of its parent, and handed to the next image by `next_environment`.
///
/// Thread safety: one thread at a time, the caller's duty; everything but the constructor is
/// async-signal-safe: the room it needs is reserved at construction.
/// Errors: none; a variable that cannot be read counts as absent.
class CrashRestartBudget {
public:
    static constexpr std::uint64_t K_MAX_RESTARTS = 5;
    static constexpr std::uint64_t K_WINDOW_SECONDS = 60;

    struct Decision {
        bool restart = false;
        std::uint64_t crash_number = 0; ///< within the window, from 1
    };

    /// `name` is the shell's, from which the variables' names follow.
    explicit CrashRestartBudget(std::string const& name);
    CrashRestartBudget(CrashRestartBudget const&) = delete;
    CrashRestartBudget& operator=(CrashRestartBudget const&) = delete;

    /// Counts one crash at `now` (seconds since the Unix epoch). The one that is too many is not
    /// counted, so that asking again, on the way down, gives the same answer.
    Decision count_crash_signal_safe(std::int64_t now) noexcept;

    /// The process's environment with the two variables as they stand now (none before the first
    /// crash of a chain); for `execve`. Valid until the next call.
    char* const* next_environment_signal_safe() noexcept;

private:
    /// For "=", a number's digits and a NUL.
    static constexpr std::size_t K_NUMBER_ROOM = 24;
    /// Variables that may be added after construction; further ones are lost to the next image.
    static constexpr std::size_t K_SPARE_ENTRIES = 256;

    std::string const count_name_;
    std::string const window_name_;
    std::optional<std::uint64_t> count_;
    std::optional<std::uint64_t> window_start_;
    std::vector<char> count_assignment_;
    std::vector<char> window_assignment_;
    std::vector<char*> environment_;
};

} // namespace tessaron
