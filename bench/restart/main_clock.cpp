// Preloaded into the program that MAIN_CLOCK_PROGRAM names: tells when its `main` is about to
// begin, in nanoseconds of the monotonic clock, by one line appended to the file that
// MAIN_CLOCK_FILE names. With MAIN_CLOCK_EXIT set the program ends there. Its children inherit the
// library, too.

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

[[gnu::constructor]] static void tell_the_time() {
    char const* const path = std::getenv("MAIN_CLOCK_FILE");
    char const* const program = std::getenv("MAIN_CLOCK_PROGRAM");
    if (path == nullptr || program == nullptr ||
        std::strcmp(program, program_invocation_short_name) != 0) {
        return;
    }
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    char line[64];
    int const length = std::snprintf(line, sizeof line, "%ld%09ld\n", now.tv_sec, now.tv_nsec);
    int const fd = ::open(path, O_WRONLY | O_APPEND | O_CLOEXEC);
    if (fd >= 0) {
        [[maybe_unused]] auto const written = ::write(fd, line, static_cast<std::size_t>(length));
        ::close(fd);
    }
    if (std::getenv("MAIN_CLOCK_EXIT") != nullptr) {
        ::_exit(0);
    }
}
