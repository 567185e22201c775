#pragma once

#include "app/utilities/file_io.hpp"

#include <chrono>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <sys/types.h>

namespace tessaron {

/// How long a holder that is told to end gets for it.
inline constexpr std::chrono::milliseconds K_KILL_PATIENCE{3000};

/// Another process of the same application name holds the instance lock.
class AlreadyRunningError : public std::runtime_error {
public:
    AlreadyRunningError(std::string const& app_name, std::string const& holder_info)
        : std::runtime_error(build_message(app_name, holder_info)) {}

    /// "\"name\" is already running", then ":\n" and the holder's own text, or "." without one.
    static std::string build_message(std::string const& app_name, std::string const& holder_info);
};

// The instance lock before there is a logger: a refused process must not have touched the files of
// the one that runs. Nothing here takes the lock for good (`InstanceLock` does), and all of it runs
// on the main thread.
namespace detail {

/// "/tmp/<name>.lock", with "_" for each blank and "/" of the name, and the value of the
/// environment variable CONSOLE_APP_LOCK_SUFFIX behind another "_" where it is set and not empty.
std::string make_lock_file_path(std::string const& app_name);

/// What the holder of the lock says of itself (may be empty), or nothing if nobody holds it or the
/// file cannot be opened.
std::optional<std::string> peek_existing_instance_holder(std::string const& app_name);

/// The process id in a holder's text: what follows the first "pid=". Nothing if there is none; a
/// number that cannot be read, or that no process can have, is 0. May be negative.
std::optional<pid_t> holder_pid(std::string const& holder_info);

/// The command line is not parsed yet at this stage, hence the scan by hand: "--instance-policy=X"
/// or "--instance-policy X", with the exact (lower-case) words or numbers of the policies.
bool argv_requests_wait_or_kill_policy(int argc, char const* const* argv);
bool argv_requests_kill_policy(int argc, char const* const* argv);

/// Clears the way, as the command line asks: waits for the holder to exit, for ever, or ends it by
/// SIGTERM and, `patience` later, by SIGKILL. After the same time again it returns in any case.
void resolve_instance_conflict_before_logging_starts(
    std::string const& app_name, int argc, char const* const* argv,
    std::chrono::milliseconds patience = K_KILL_PATIENCE);

/// Deletes the lock file if CONSOLE_APP_LOCK_SUFFIX is set and not empty, and nobody holds it;
/// otherwise the file stays.
void remove_lock_file_if_test_suffixed(std::string const& app_name);

// What `InstanceLock` needs as well.

/// Open for reading and writing, created if need be; `errno` tells why it failed.
[[nodiscard]] UniqueFd open_lock_file(std::string const& path);
/// Whether the path leads to the open file: one that was deleted is a lock that nobody else finds.
[[nodiscard]] bool is_file_at(std::string const& path, int fd);
/// `flock`, repeated while a signal interrupts it.
[[nodiscard]] bool flock_uninterrupted(int fd, int operation);
/// Locks without waiting, but for one case: while the process that the file names does not exist,
/// it tries again for a second. A program that was killed may leave a child between fork and exec,
/// which shares the lock for a moment.
[[nodiscard]] bool lock_unless_held(int fd);
/// The whole text of an open lock file, wherever its offset stands.
std::string read_holder_info(int fd);
/// Asks at once and then every 50 milliseconds until the answer is true, or `patience` has passed
/// (false).
[[nodiscard]] bool poll_within(std::chrono::milliseconds patience,
                               std::function<bool()> const& question);

} // namespace detail
} // namespace tessaron
