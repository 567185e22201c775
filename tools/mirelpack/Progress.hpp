#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace mirelpack {

/// One line on a terminal that tells how far a long step has come; nothing in a pipe or a log, and
/// nothing for a step that is over at once.
///
/// Thread safety: one thread at a time, the caller's duty.
class Progress {
public:
    /// `total` 0: not known.
    Progress(std::string label, std::uint64_t total);
    Progress(Progress const&) = delete;
    Progress& operator=(Progress const&) = delete;
    /// Wipes the line.
    ~Progress();

    void advance(std::uint64_t bytes);

private:
    using Clock = std::chrono::steady_clock;

    std::string label_;
    std::uint64_t total_;
    std::uint64_t done_ = 0;
    bool on_terminal_;
    bool drawn_ = false;
    Clock::time_point next_draw_;
};

/// "1.5 MiB".
std::string readable_size(std::uint64_t bytes);

} // namespace mirelpack
