#include "logger/log_generations.hpp"

#include "app/utilities/fs_tools.hpp"

#include <algorithm>
#include <charconv>
#include <limits>
#include <optional>
#include <string_view>
#include <unistd.h>

namespace tessaron::log_generations {
namespace {

std::optional<std::uint64_t> parse(std::string_view digits) {
    if (digits.empty() ||
        !std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        return std::nullopt;
    }
    std::uint64_t number = 0;
    auto const result = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    // The highest number of all has none behind it; nobody has rotated so often.
    if (result.ec != std::errc() || number == std::numeric_limits<std::uint64_t>::max()) {
        return std::nullopt;
    }
    return number;
}

} // namespace

std::string backup_path(std::string const& path, std::uint64_t generation) {
    return path + "." + std::to_string(generation);
}

std::vector<std::uint64_t> existing(std::string const& path) {
    std::string const prefix = fs_tools::file_name(path) + ".";
    std::vector<std::uint64_t> numbers;
    for (std::string const& name : fs_tools::list_dir_fs(fs_tools::dir_name(path), prefix)) {
        if (auto const number = parse(std::string_view(name).substr(prefix.size()))) {
            numbers.push_back(*number);
        }
    }
    return numbers;
}

std::uint64_t next(std::string const& path) {
    std::vector<std::uint64_t> const numbers = existing(path);
    return numbers.empty() ? 0 : *std::max_element(numbers.begin(), numbers.end()) + 1;
}

void prune(std::string const& path, std::uint64_t keep) {
    std::vector<std::uint64_t> numbers = existing(path);
    if (keep == 0 || numbers.size() <= keep) {
        return;
    }
    std::sort(numbers.begin(), numbers.end());
    numbers.resize(numbers.size() - static_cast<std::size_t>(keep));
    for (std::uint64_t const number : numbers) {
        unlink(backup_path(path, number).c_str());
    }
}

} // namespace tessaron::log_generations
