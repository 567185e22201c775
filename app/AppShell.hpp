#pragma once

#include "app/AppContext.hpp"
#include "app/StopSignals.hpp"
#include "libraries/vocabulary/Mutex.hpp"

#include <chrono>
#include <condition_variable>

namespace tessaron {

/// What every application's shell does, whatever the application: it runs the application's main
/// loop until a stop request and chooses the exit code.
///
/// Life: constructed (stop signals are caught) -> running (`run`) -> stopping (the flag is clear,
/// `run_impl` returns) -> ended.
///
/// Thread safety: `request_stop` and `wait_until_stopped` from any thread; `run` only on the main
/// thread.
class AppShellBase {
public:
    AppShellBase(AppShellBase const&) = delete;
    AppShellBase& operator=(AppShellBase const&) = delete;
    virtual ~AppShellBase();

    /// Runs the application and returns the process's exit code: that of `run_impl`, or 128 and
    /// the signal's number after a stop signal.
    int run(int argc, char** argv);

protected:
    explicit AppShellBase(AppContext& context);

    /// The application's main loop; returns the exit code.
    virtual int run_impl() = 0;

    AppContext& context() { return context_; }
    void request_stop() TESSARON_EXCLUDES(stop_mutex_);
    void wait_until_stopped() TESSARON_EXCLUDES(stop_mutex_);
    /// True once a stop was requested, false when `time` has passed without one.
    [[nodiscard]] bool wait_until_stopped_for(std::chrono::milliseconds time)
        TESSARON_EXCLUDES(stop_mutex_);

private:
    AppContext& context_;
    Mutex stop_mutex_;
    std::condition_variable stopped_;
    bool running_ TESSARON_GUARDED_BY(stop_mutex_) = false;
    StopSignals signals_; // Last: its thread calls into the members above.
};

/// The singleton shell of the application `Derived`, which is built on first use.
template <typename Derived>
class AppShell : public AppShellBase {
public:
    /// Thread safety: safe from any thread. Errors: what `Derived`'s constructor throws.
    static Derived& instance(AppContext& context) {
        static Derived s_instance(context);
        return s_instance;
    }

protected:
    using AppShellBase::AppShellBase;
};

} // namespace tessaron
