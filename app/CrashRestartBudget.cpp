#include "app/CrashRestartBudget.hpp"

#include "app/signal_safe_text.hpp"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string_view>
#include <unistd.h>

namespace tessaron {

namespace app_shell_detail {

std::string make_env_var_name(std::string const& name, std::string const& suffix) {
    std::string result = name;
    std::transform(result.begin(), result.end(), result.begin(), [](unsigned char byte) {
        return byte == '-' ? '_' : static_cast<char>(std::toupper(byte));
    });
    return result + suffix;
}

} // namespace app_shell_detail

namespace {

constexpr std::uint64_t K_UNCOUNTABLE = std::numeric_limits<std::uint64_t>::max();

/// Takes a number out of the environment.
std::optional<std::uint64_t> take_number(std::string const& name) {
    char const* const value = std::getenv(name.c_str());
    auto const number = value != nullptr ? detail::parse_unsigned_signal_safe(value) : std::nullopt;
    ::unsetenv(name.c_str());
    return number;
}

bool assigns(char const* entry, std::string const& name) noexcept {
    return std::strncmp(entry, name.data(), name.size()) == 0 && entry[name.size()] == '=';
}

/// "NAME=number" with a NUL. The name is short, so that it always fits.
void write_assignment(char* destination, std::string const& name, std::uint64_t number) noexcept {
    detail::NumberBuffer buffer;
    std::string_view const digits = detail::format_unsigned_signal_safe(number, buffer);
    destination = std::copy_n(name.data(), name.size(), destination);
    *destination++ = '=';
    destination = std::copy_n(digits.data(), digits.size(), destination);
    *destination = '\0';
}

std::size_t environment_size() {
    std::size_t count = 0;
    while (environ != nullptr && environ[count] != nullptr) {
        ++count;
    }
    return count;
}

} // namespace

CrashRestartBudget::CrashRestartBudget(std::string const& name)
    : count_name_(app_shell_detail::make_env_var_name(name, "_CRASH_RESTART_COUNT")),
      window_name_(app_shell_detail::make_env_var_name(name, "_CRASH_RESTART_WINDOW_START")),
      count_(take_number(count_name_)), window_start_(take_number(window_name_)),
      count_assignment_(count_name_.size() + K_NUMBER_ROOM),
      window_assignment_(window_name_.size() + K_NUMBER_ROOM),
      environment_(environment_size() + K_SPARE_ENTRIES) {
    if (!count_ || !window_start_) {
        count_.reset();
        window_start_.reset();
    }
}

CrashRestartBudget::Decision
CrashRestartBudget::count_crash_signal_safe(std::int64_t now) noexcept {
    auto const seconds = static_cast<std::uint64_t>(std::max<std::int64_t>(now, 0));
    // A window that begins in the future, after the clock was set back, is one that has begun.
    bool const expired =
        window_start_ && seconds > *window_start_ && seconds - *window_start_ > K_WINDOW_SECONDS;
    bool const begins = !count_ || expired;
    std::uint64_t const crash_number = begins ? 1 : *count_ + (*count_ < K_UNCOUNTABLE ? 1 : 0);
    if (crash_number > K_MAX_RESTARTS) {
        return {false, crash_number};
    }
    count_ = crash_number;
    window_start_ = begins ? seconds : *window_start_;
    return {true, crash_number};
}

char* const* CrashRestartBudget::next_environment_signal_safe() noexcept {
    std::size_t used = 0;
    if (count_) {
        write_assignment(count_assignment_.data(), count_name_, *count_);
        write_assignment(window_assignment_.data(), window_name_, *window_start_);
        environment_[used++] = count_assignment_.data();
        environment_[used++] = window_assignment_.data();
    }
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        if (used + 1 < environment_.size() && !assigns(*entry, count_name_) &&
            !assigns(*entry, window_name_)) {
            environment_[used++] = *entry;
        }
    }
    environment_[used] = nullptr;
    return environment_.data();
}

} // namespace tessaron
