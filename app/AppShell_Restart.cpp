// The next image: on the main thread after a request, on the thread that failed after an exception,
// in the signal handler after a crash (the functions named so).

#include "app/AppShell.hpp"
#include "app/crash_signals.hpp"
#include "app/utilities/process_identity.hpp"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <unistd.h>

namespace tessaron {

void AppShellBase::restart_on_request() {
    // The answer to a request over the bus gets out before the process is another one.
    control_.leave_bus();
    prepare_for_restart();
    run_flush_callbacks();
    context_.logger().flush();
    exec_self_restart(saved_argv_);
}

bool AppShellBase::should_auto_restart_after_crash(std::string const& description) {
    auto const [restart, number] = restart_budget_.count_crash_signal_safe(::time(nullptr));
    if (restart) {
        say(LogLevel::ERROR, description + " - auto-restarting (attempt " + std::to_string(number) +
                                 " of " + std::to_string(CrashRestartBudget::K_MAX_RESTARTS) +
                                 " within " + std::to_string(CrashRestartBudget::K_WINDOW_SECONDS) +
                                 "s)");
    } else {
        say(LogLevel::ERROR,
            description + " - this is crash #" + std::to_string(number) + " within " +
                std::to_string(CrashRestartBudget::K_WINDOW_SECONDS) + "s (max " +
                std::to_string(CrashRestartBudget::K_MAX_RESTARTS) +
                ") - crash-loop detected, refusing further auto-restart, staying exited. Manual "
                "intervention required.");
    }
    return restart;
}

void AppShellBase::exec_self_restart(char** argv) {
    int const error = exec_self_signal_safe(argv);
    std::string const path = restart_path(argv);
    say(LogLevel::ERROR, "--instance-policy reboot: execv(" + path + ") failed: " +
                             std::strerror(error) + " - staying exited instead of restarting");
}

char const* AppShellBase::restart_path(char* const* argv) noexcept {
    std::string const& path = detail::get_executable_path();
    return path.empty() ? argv[0] : path.c_str();
}

/// What the process blocks at its start, without the signals that must be able to end it.
sigset_t AppShellBase::signal_mask_for_next_image() {
    sigset_t mask;
    ::sigprocmask(SIG_SETMASK, nullptr, &mask);
    sigdelset(&mask, SIGALRM);
    for (int const signal_number : K_CRASH_SIGNALS) {
        sigdelset(&mask, signal_number);
    }
    return mask;
}

/// The same process id, arguments and environment; what is open is close-on-exec. Returns `errno`
/// where the program cannot be executed.
int AppShellBase::exec_self_signal_safe(char** argv) noexcept {
    lock_.release_signal_safe(); // the next image takes it anew
    ::alarm(0);                  // would go on to tick in the next image
    // The next image begins with the mask of this thread, which may be any, in a handler above all.
    ::sigprocmask(SIG_SETMASK, &next_signal_mask_, nullptr);
    ::execve(restart_path(argv), argv, restart_budget_.next_environment_signal_safe());
    return errno;
}

} // namespace tessaron
