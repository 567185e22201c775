// An exception that nobody caught: on the thread that threw it, outside of any signal handler.

#include "app/AppShell.hpp"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <unistd.h>

namespace tessaron {

namespace {

/// The exception may have come out of the very code that the report needs, with its lock held:
/// after this time a hanging report is ended like a crash.
constexpr unsigned K_REPORT_SECONDS = 5;

std::atomic<bool> s_terminating{false};

std::string describe_current_exception() {
    if (!std::current_exception()) {
        return "std::terminate() called directly (no exception in flight)";
    }
    try {
        throw;
    } catch (std::exception const& failure) {
        return failure.what();
    } catch (...) {
        return "an exception not derived from std::exception";
    }
}

} // namespace

void AppShellBase::terminate_handler() {
    while (s_terminating.exchange(true)) {
        ::pause(); // Another thread got here first and ends the process.
    }
    std::string const description = describe_current_exception();
    AppShellBase* const shell = s_instance;
    std::fprintf(stderr, "[%s] crash: uncaught exception - %s\n",
                 shell != nullptr ? shell->shell_name_.c_str() : "app", description.c_str());
    if (shell != nullptr) {
        shell->end_after_uncaught_exception(description);
    }
    std::abort();
}

/// Returns where the process is not to start anew, or cannot.
void AppShellBase::end_after_uncaught_exception(std::string const& description) {
    std::signal(SIGALRM, [](int) { handle_fatal_signal_and_terminate(SIGABRT, nullptr); });
    ::alarm(K_REPORT_SECONDS);

    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    control_.write_crash_record_signal_safe(0, nullptr, now.tv_sec, now.tv_nsec / 1'000'000);
    control_.write_crash_detail_signal_safe(description);
    std::string const detail = "uncaught exception - " + description;
    std::string const text = "crash: " + detail;
    log_->log(LogLevel::ERROR, text);
    record_session_end_as(DefaultTerminationReasons::Reason::crash, detail);
    run_flush_callbacks();
    if (saved_argv_ == nullptr) {
        return;
    }
    bool const restart = should_auto_restart_after_crash(text);
    context_.logger().flush();
    if (restart) {
        exec_self_restart(saved_argv_);
    }
}

} // namespace tessaron
