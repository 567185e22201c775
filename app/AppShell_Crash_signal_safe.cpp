// The crash path: on the thread that crashed, or that the signal was sent to. What it may call:
// write, clock_gettime, time, getpid, gettid, sigaction, raise, nanosleep, flock, close, execve,
// _exit, and the ..._signal_safe functions. No allocation, no lock, no stream.

#include "app/AppShell.hpp"
#include "app/crash_signals.hpp"
#include "app/signal_safe_text.hpp"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <sys/syscall.h>
#include <unistd.h>

namespace tessaron {

namespace {

constexpr int K_SIGNAL_EXIT_BASE = 128;
/// How long a thread that crashes too waits for the one that is ending the process already.
constexpr int K_SECOND_CRASH_GRACE_SECONDS = 10;

/// The thread that is ending the process; 0 while none is.
std::atomic<long> s_crashing_thread{0};

void say_signal_safe(std::string_view text) noexcept {
    detail::write_literal_signal_safe(STDERR_FILENO, text);
}

/// Lets the first crash of the process pass, and ends the thread of any other here.
void claim_crash_signal_safe(int signal_number) noexcept {
    long const own = ::syscall(SYS_gettid);
    long first = 0;
    if (s_crashing_thread.compare_exchange_strong(first, own)) {
        return;
    }
    if (first != own) {
        // Two threads crashed at once: what the first one writes must not be cut short.
        timespec const grace{K_SECOND_CRASH_GRACE_SECONDS, 0};
        ::nanosleep(&grace, nullptr);
    }
    // A crash within the crash handler: let it kill the process, as it would have without us.
    std::signal(signal_number, SIG_DFL);
    sigset_t own_signal;
    sigemptyset(&own_signal);
    sigaddset(&own_signal, signal_number);
    ::sigprocmask(SIG_UNBLOCK, &own_signal, nullptr);
    std::raise(signal_number);
    ::_exit(signal_number + K_SIGNAL_EXIT_BASE);
}

} // namespace

void AppShellBase::install_crash_signal_handlers() noexcept {
    struct sigaction action {};
    action.sa_sigaction = &AppShellBase::static_signal_action_handler;
    // On the alternate stack: a thread that has used up its own still gets its record.
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    for (int const signal_number : K_CRASH_SIGNALS) {
        ::sigaction(signal_number, &action, nullptr);
    }
}

void AppShellBase::static_signal_action_handler(int signal_number, siginfo_t* info,
                                                void* /*context*/) {
    handle_fatal_signal_and_terminate(signal_number, info);
}

void AppShellBase::handle_fatal_signal_and_terminate(int signal_number,
                                                     siginfo_t const* info) noexcept {
    claim_crash_signal_safe(signal_number);
    char const* const name = detail::crash_signal_name_signal_safe(signal_number);
    AppShellBase* const shell = s_instance;
    if (shell != nullptr) {
        shell->record_crash_signal_safe(signal_number, info);
    }
    say_signal_safe("[app] crash: signal ");
    say_signal_safe(name);
    say_signal_safe("\n");
    if (shell != nullptr) {
        IRuntimeState::RawDump const dump = shell->runtime_->raw_dump_signal_safe();
        shell->control_.record_session_end_signal_safe(name, dump.text, dump.length);
        shell->restart_after_crash_signal_safe();
    }
    ::_exit(signal_number + K_SIGNAL_EXIT_BASE);
}

void AppShellBase::record_crash_signal_safe(int signal_number, siginfo_t const* info) noexcept {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    control_.write_crash_record_signal_safe(signal_number, info, now.tv_sec,
                                            now.tv_nsec / 1'000'000);
    control_.write_crash_trace_signal_safe();
}

void AppShellBase::restart_after_crash_signal_safe() noexcept {
    // A process that was being stopped stays down.
    if (signals_.last_signal() != 0 || saved_argv_ == nullptr ||
        !should_auto_restart_after_crash_signal_safe()) {
        return;
    }
    int const error = exec_self_signal_safe(saved_argv_);
    detail::SignalSafeWriter(STDERR_FILENO)
        .text("--instance-policy reboot: execv(")
        .text(restart_path(saved_argv_))
        .text(") failed: ")
        .text(::strerrordesc_np(error))
        .text(" - staying exited instead of restarting\n");
}

bool AppShellBase::should_auto_restart_after_crash_signal_safe() noexcept {
    auto const [restart, number] = restart_budget_.count_crash_signal_safe(::time(nullptr));
    detail::SignalSafeWriter out(STDERR_FILENO);
    if (restart) {
        out.text("[app] crash - auto-restarting (attempt ").number(number);
        out.text(" of ").number(CrashRestartBudget::K_MAX_RESTARTS).text(")\n");
    } else {
        out.text("[app] crash-loop detected - giving up (crash #").number(number).text(")\n");
    }
    return restart;
}

} // namespace tessaron
