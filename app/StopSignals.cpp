#include "app/StopSignals.hpp"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <pthread.h>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>

namespace tessaron {

namespace {

constexpr std::array K_STOP_SIGNALS{SIGINT, SIGTERM, SIGHUP};

// Reached from the signal handler, which can carry no pointer of its own.
std::atomic<int> s_wake_fd{-1};
std::atomic<int> s_last_signal{0};
std::atomic<bool> s_ending{false};

// Async-signal-safe: atomics and write() alone, and errno as it was.
extern "C" void note_stop_signal(int signal_number) {
    int const saved_errno = errno;
    s_last_signal = signal_number;
    std::uint64_t const one = 1;
    [[maybe_unused]] auto const written = ::write(s_wake_fd, &one, sizeof one);
    errno = saved_errno;
}

} // namespace

StopSignals::StopSignals(std::function<void()> on_signal)
    : on_signal_(std::move(on_signal)), wake_(::eventfd(0, EFD_CLOEXEC)) {
    if (!wake_.is_open()) {
        throw std::system_error(errno, std::generic_category(), "StopSignals: eventfd");
    }
    s_last_signal = 0;
    s_ending = false;
    s_wake_fd = wake_.get();
    thread_ = std::thread([this] { relay(); });
    for (int const signal_number : K_STOP_SIGNALS) {
        std::signal(signal_number, note_stop_signal);
    }
}

StopSignals::~StopSignals() {
    for (int const signal_number : K_STOP_SIGNALS) {
        std::signal(signal_number, SIG_DFL);
    }
    s_ending = true;
    std::uint64_t const one = 1;
    [[maybe_unused]] auto const written = ::write(wake_.get(), &one, sizeof one);
    thread_.join();
    s_wake_fd = -1;
}

int StopSignals::last_signal() const {
    return s_last_signal;
}

void StopSignals::relay() {
    pthread_setname_np(pthread_self(), "stop-signals");
    for (;;) {
        std::uint64_t count = 0;
        if (::read(wake_.get(), &count, sizeof count) < 0 && errno != EINTR) {
            return;
        }
        if (s_ending) {
            return;
        }
        if (s_last_signal != 0) {
            on_signal_();
        }
    }
}

} // namespace tessaron
