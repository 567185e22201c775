#include "app/instance_lock.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <initializer_list>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <tuple>
#include <unistd.h>

namespace tessaron {
namespace {

constexpr std::chrono::milliseconds K_LOCK_POLL{50};
constexpr std::chrono::milliseconds K_DEAD_HOLDER_PATIENCE{1000};
constexpr std::chrono::milliseconds K_DEAD_HOLDER_POLL{5};

/// Empty without one.
std::string lock_file_suffix() {
    char const* const suffix = std::getenv("CONSOLE_APP_LOCK_SUFFIX");
    return suffix != nullptr ? suffix : "";
}

bool argv_requests_policy(int argc, char const* const* argv,
                          std::initializer_list<std::string_view> values) {
    for (int i = 1; i < argc; ++i) {
        std::string_view const argument = argv[i];
        if (!argument.starts_with("--instance-policy")) {
            continue;
        }
        std::string_view value;
        if (std::size_t const equals = argument.find('='); equals != std::string_view::npos) {
            value = argument.substr(equals + 1);
        } else if (i + 1 < argc) {
            value = argv[i + 1];
        }
        if (std::find(values.begin(), values.end(), value) != values.end()) {
            return true;
        }
    }
    return false;
}

void terminate_holder(std::string const& app_name, std::chrono::milliseconds patience) {
    std::optional<std::string> const info = detail::peek_existing_instance_holder(app_name);
    pid_t const holder = detail::holder_pid(info.value_or("")).value_or(0);
    if (holder <= 0) {
        return;
    }
    auto const nobody_holds_it = [&] {
        return !detail::peek_existing_instance_holder(app_name).has_value();
    };
    kill(holder, SIGTERM);
    if (detail::poll_within(patience, nobody_holds_it)) {
        return;
    }
    kill(holder, SIGKILL);
    // In vain or not, the start goes on: taking the lock will tell.
    std::ignore = detail::poll_within(patience, nobody_holds_it);
}

} // namespace

std::string AlreadyRunningError::build_message(std::string const& app_name,
                                               std::string const& holder_info) {
    return "\"" + app_name + "\" is already running" +
           (holder_info.empty() ? "." : ":\n" + holder_info);
}

namespace detail {

std::string make_lock_file_path(std::string const& app_name) {
    std::string name = app_name;
    std::replace(name.begin(), name.end(), ' ', '_');
    std::replace(name.begin(), name.end(), '/', '_');
    std::string const suffix = lock_file_suffix();
    return "/tmp/" + name + (suffix.empty() ? "" : "_" + suffix) + ".lock";
}

std::optional<std::string> peek_existing_instance_holder(std::string const& app_name) {
    UniqueFd const file = open_lock_file(make_lock_file_path(app_name));
    if (!file.is_open()) {
        return std::nullopt;
    }
    if (lock_unless_held(file.get())) {
        std::ignore = flock_uninterrupted(file.get(), LOCK_UN); // Closing would do as well.
        return std::nullopt;
    }
    return read_holder_info(file.get());
}

std::optional<pid_t> holder_pid(std::string const& holder_info) {
    constexpr std::string_view K_KEY = "pid=";
    std::size_t const key = holder_info.find(K_KEY);
    if (key == std::string::npos) {
        return std::nullopt;
    }
    pid_t pid = 0; // Stays so when the number is none or too large for a process id.
    char const* const end = holder_info.data() + holder_info.size();
    std::from_chars(holder_info.data() + key + K_KEY.size(), end, pid);
    return pid;
}

bool argv_requests_wait_or_kill_policy(int argc, char const* const* argv) {
    return argv_requests_policy(argc, argv, {"wait", "1", "kill", "2"});
}

bool argv_requests_kill_policy(int argc, char const* const* argv) {
    return argv_requests_policy(argc, argv, {"kill", "2"});
}

void resolve_instance_conflict_before_logging_starts(std::string const& app_name, int argc,
                                                     char const* const* argv,
                                                     std::chrono::milliseconds patience) {
    if (!peek_existing_instance_holder(app_name).has_value()) {
        return;
    }
    if (argv_requests_kill_policy(argc, argv)) {
        terminate_holder(app_name, patience);
        return;
    }
    UniqueFd const file = open_lock_file(make_lock_file_path(app_name));
    if (file.is_open() && flock_uninterrupted(file.get(), LOCK_EX)) {
        std::ignore = flock_uninterrupted(file.get(), LOCK_UN); // Closing would do as well.
    }
}

void remove_lock_file_if_test_suffixed(std::string const& app_name) {
    if (lock_file_suffix().empty()) {
        return;
    }
    std::string const path = make_lock_file_path(app_name);
    UniqueFd const file = open_file(path, O_RDWR);
    // The next instance may hold it by now, and one that comes later must find it held.
    if (file.is_open() && flock_uninterrupted(file.get(), LOCK_EX | LOCK_NB)) {
        unlink(path.c_str());
    }
}

bool is_file_at(std::string const& path, int fd) {
    struct stat opened {};
    struct stat named {};
    return fstat(fd, &opened) == 0 && stat(path.c_str(), &named) == 0 &&
           opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

UniqueFd open_lock_file(std::string const& path) {
    // First without creating it: the kernel refuses even root to "create" a file of somebody else's
    // that is there already, in a folder that everybody may write to.
    UniqueFd file = open_file(path, O_RDWR);
    if (!file.is_open() && errno == ENOENT) {
        file = open_file(path, O_RDWR | O_CREAT, 0666);
    }
    return file;
}

bool flock_uninterrupted(int fd, int operation) {
    int result = 0;
    do {
        result = flock(fd, operation);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

bool lock_unless_held(int fd) {
    auto const deadline = std::chrono::steady_clock::now() + K_DEAD_HOLDER_PATIENCE;
    while (!flock_uninterrupted(fd, LOCK_EX | LOCK_NB)) {
        pid_t const holder = holder_pid(read_holder_info(fd)).value_or(0);
        bool const is_dead = holder > 0 && kill(holder, 0) != 0 && errno == ESRCH;
        if (!is_dead || std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(K_DEAD_HOLDER_POLL);
    }
    return true;
}

std::string read_holder_info(int fd) {
    std::string text;
    std::array<char, 256> piece;
    for (;;) {
        ssize_t const count =
            pread(fd, piece.data(), piece.size(), static_cast<off_t>(text.size()));
        if (count > 0) {
            text.append(piece.data(), static_cast<std::size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            return text;
        }
    }
}

bool poll_within(std::chrono::milliseconds patience, std::function<bool()> const& question) {
    auto const deadline = std::chrono::steady_clock::now() + patience;
    do {
        if (question()) {
            return true;
        }
        std::this_thread::sleep_for(K_LOCK_POLL);
    } while (std::chrono::steady_clock::now() < deadline);
    return false;
}

} // namespace detail
} // namespace tessaron
