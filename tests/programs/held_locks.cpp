#include "tests/programs/held_locks.hpp"

#include "libraries/threads/start_thread.hpp"

#include <cstdlib>
#include <string>

namespace held_locks {

namespace {

void allocate(std::size_t size) {
    void* volatile memory = std::malloc(size);
    std::free(memory);
}

} // namespace

void hold_allocator() {
    tessaron::start_thread("alloc-holder", [] { allocate(K_HOLD_ALLOCATOR_SIZE); }).detach();
}

void hold_log_queue(tessaron::ILogger& log) {
    tessaron::start_thread("queue-holder", [&log] {
        std::string const line(K_LARGE_SIZE, 'x');
        allocate(K_HANG_AT_LARGE_SIZE);
        log.log_impl(tessaron::LogLevel::INFO, "", line);
    }).detach();
}

void log_aside(tessaron::ILogger& log) {
    tessaron::start_thread("side-logger", [&log] {
        log.log(tessaron::LogLevel::INFO, "behind a full queue");
    }).detach();
}

} // namespace held_locks
