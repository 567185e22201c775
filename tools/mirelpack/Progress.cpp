#include "tools/mirelpack/Progress.hpp"

#include <array>
#include <cstdio>
#include <unistd.h>
#include <utility>

namespace mirelpack {

namespace {

constexpr std::chrono::milliseconds K_REDRAW_INTERVAL{250};

} // namespace

Progress::Progress(std::string label, std::uint64_t total)
    : label_(std::move(label)), total_(total), on_terminal_(isatty(STDERR_FILENO) == 1),
      next_draw_(Clock::now() + K_REDRAW_INTERVAL) {
}

Progress::~Progress() {
    if (drawn_) {
        std::fputs("\r\033[K", stderr);
    }
}

void Progress::advance(std::uint64_t bytes) {
    done_ += bytes;
    if (!on_terminal_ || Clock::now() < next_draw_) {
        return;
    }
    next_draw_ = Clock::now() + K_REDRAW_INTERVAL;
    drawn_ = true;
    std::string line = "\r\033[K" + label_ + " " + readable_size(done_);
    if (total_ > 0) {
        line += " of " + readable_size(total_) + ", " + std::to_string(done_ * 100 / total_) + "%";
    }
    std::fputs(line.c_str(), stderr);
}

std::string readable_size(std::uint64_t bytes) {
    if (bytes < 1024) {
        return std::to_string(bytes) + " bytes";
    }
    static constexpr std::array K_UNITS = {"KiB", "MiB", "GiB", "TiB"};
    double size = static_cast<double>(bytes) / 1024;
    std::size_t unit = 0;
    while (size >= 1024 && unit + 1 < K_UNITS.size()) {
        size /= 1024;
        ++unit;
    }
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.1f %s", size, K_UNITS[unit]);
    return text.data();
}

} // namespace mirelpack
