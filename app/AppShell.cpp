#include "app/AppShell.hpp"

namespace tessaron {

namespace {

/// What a shell reports for a program that a signal ended.
constexpr int K_SIGNAL_EXIT_BASE = 128;

} // namespace

AppShellBase::AppShellBase(AppContext& context)
    : context_(context), signals_([this] { request_stop(); }) {
}

AppShellBase::~AppShellBase() = default;

int AppShellBase::run(int /*argc*/, char** /*argv*/) {
    {
        MutexLock lock(stop_mutex_);
        running_ = true;
    }
    int const code = run_impl();
    request_stop();
    int const signal_number = signals_.last_signal();
    return signal_number != 0 ? signal_number + K_SIGNAL_EXIT_BASE : code;
}

void AppShellBase::request_stop() {
    MutexLock lock(stop_mutex_);
    running_ = false;
    stopped_.notify_all();
}

void AppShellBase::wait_until_stopped() {
    MutexLock lock(stop_mutex_);
    stopped_.wait(lock.native(), [this]() TESSARON_REQUIRES(stop_mutex_) { return !running_; });
}

bool AppShellBase::wait_until_stopped_for(std::chrono::milliseconds time) {
    MutexLock lock(stop_mutex_);
    return stopped_.wait_for(lock.native(), time,
                             [this]() TESSARON_REQUIRES(stop_mutex_) { return !running_; });
}

} // namespace tessaron
