// Reads the newest records of one history and prints how many they are, and how many microseconds
// the reading itself took. Usage: history_read sessions|crashes FILE COUNT
#include "app/crash_history.hpp"
#include "app/session_history.hpp"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s sessions|crashes FILE COUNT\n", argv[0]);
        return 2;
    }
    std::string const kind = argv[1];
    auto const count = static_cast<std::size_t>(std::strtoul(argv[3], nullptr, 10));
    auto const begin = std::chrono::steady_clock::now();
    std::size_t const read =
        kind == "sessions"
            ? tessaron::read_session_history(argv[2], count).size()
            : tessaron::read_crash_history(argv[2], count, tessaron::K_CRASH_BACKTRACE_MAX).size();
    std::chrono::duration<double, std::micro> const taken =
        std::chrono::steady_clock::now() - begin;
    std::printf("%zu %.1f\n", read, taken.count());
    return read == count ? 0 : 1;
}
