#include "app/StopSignals.hpp"

#include "libraries/threads/start_thread.hpp"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace tessaron {

namespace {

constexpr std::array K_STOP_SIGNALS{SIGINT, SIGTERM, SIGHUP};

// Reached from the signal handler, which can carry no pointer of its own. The descriptor is never
// closed: a handler that runs on another thread at the very end may still write to it.
std::atomic<int> s_wake_fd{-1};
std::atomic<int> s_last_signal{0};

// Async-signal-safe: atomics and write() alone, and errno as it was.
extern "C" void note_stop_signal(int signal_number) {
    int const saved_errno = errno;
    s_last_signal = signal_number;
    std::uint64_t const one = 1;
    [[maybe_unused]] auto const written = ::write(s_wake_fd, &one, sizeof one);
    errno = saved_errno;
}

/// They may come blocked from whoever started this process, or from the thread that crashed in the
/// image before this one. One that waits already is delivered here.
void unblock_stop_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (int const signal_number : K_STOP_SIGNALS) {
        sigaddset(&signals, signal_number);
    }
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

void open_wake_fd() {
    if (s_wake_fd < 0) {
        s_wake_fd = ::eventfd(0, EFD_CLOEXEC);
    }
    if (s_wake_fd < 0) {
        throw std::system_error(errno, std::generic_category(), "StopSignals: eventfd");
    }
}

} // namespace

StopSignals::StopSignals(std::function<void()> on_signal) : on_signal_(std::move(on_signal)) {
    open_wake_fd();
    s_last_signal = 0;
    thread_ = start_thread("stop-signals", [this] { relay(); });
    for (int const signal_number : K_STOP_SIGNALS) {
        std::signal(signal_number, note_stop_signal);
    }
    unblock_stop_signals();
}

StopSignals::~StopSignals() {
    ending_ = true;
    std::uint64_t const one = 1;
    [[maybe_unused]] auto const written = ::write(s_wake_fd, &one, sizeof one);
    thread_.join();
}

int StopSignals::last_signal() const noexcept {
    return s_last_signal;
}

void StopSignals::relay() {
    for (;;) {
        std::uint64_t count = 0;
        if (::read(s_wake_fd, &count, sizeof count) < 0 && errno != EINTR) {
            return;
        }
        if (ending_) {
            return;
        }
        if (s_last_signal != 0) {
            on_signal_();
        }
    }
}

} // namespace tessaron
