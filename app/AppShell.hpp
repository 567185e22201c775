#pragma once

#include "app/AppContext.hpp"
#include "app/AppControl.hpp"
#include "app/CrashRestartBudget.hpp"
#include "app/InstanceLock.hpp"
#include "app/RuntimeState.hpp"
#include "app/StopSignals.hpp"
#include "app/TerminationReasons.hpp"
#include "libraries/threads/start_thread.hpp"
#include "libraries/vocabulary/Mutex.hpp"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

namespace tessaron {

/// What the command line asks of the shell.
struct ShellOptions {
    bool list_config = false;
    bool bus_report = false; ///< Of an application that declares what it puts on the bus.
    bool verbose = false;
    InstancePolicy instance_policy = InstancePolicy::warn;
};

/// What every application's shell does, whatever the application: one instance per machine, stop
/// signals, crash records, the restart after a crash or on request, the session's history and the
/// order of exit.
///
/// Life: constructed (the lock was tried, the handlers are in place) -> running (in `run`, once the
/// start stands in the history) -> stopping (the flag is clear, `run_impl` returns) -> ended, or
/// the same process goes on with a new image.
///
/// A crash on any thread: handler -> crash.log -> sessions.log -> new image, or exit with 128 and
/// the signal's number. An exception that nobody caught goes the same way.
///
/// One shell at a time in a process: the handlers find it through a static pointer.
///
/// Thread safety: `request_stop`, `wait_until_stopped` and `app_control` from any thread;
/// everything else only on the main thread.
class AppShellBase {
public:
    /// The application's own reaction to a stop signal. Called by the watcher, which ends as soon
    /// as it sees the shell not running: mostly before `run` was entered, and then without a call.
    /// Never called before or after `run`. No stop depends on it.
    virtual void user_signal_handler(int /*signal_number*/) {}

    AppShellBase(AppShellBase const&) = delete;
    AppShellBase& operator=(AppShellBase const&) = delete;
    virtual ~AppShellBase();

    /// Runs the application and returns the process's exit code: that of `run_impl`; the command
    /// line's own for --help, --version and mistakes; 255 if another instance holds the lock, and
    /// for a second call; 128 and the signal's number after a stop signal. Does not return where
    /// the program starts itself anew. Throws what `run_impl` throws.
    int run(int argc, char** argv);

    AppControl& app_control() { return control_; }

protected:
    /// Parses the command line; a value is the exit code to end with.
    using ArgvParser = std::function<std::optional<int>(int argc, char const* const* argv)>;

    /// `reasons` begins with the five of `DefaultTerminationReasons`.
    /// An application that declares nothing of what it puts on the bus has no report of it.
    AppShellBase(AppContext& context, std::string shell_name,
                 std::span<TerminationReason const> reasons, std::unique_ptr<IRuntimeState> runtime,
                 bool declares_components);

    /// The application's main loop; returns the exit code.
    virtual int run_impl() = 0;
    /// Called on the main thread before the program replaces itself on request: the moment to end
    /// what is under way, within a fraction of a second.
    virtual void prepare_for_restart() {}

    AppContext& context() { return context_; }
    void request_stop() TESSARON_EXCLUDES(m_cv_mutex);
    void wait_until_stopped() TESSARON_EXCLUDES(m_cv_mutex);
    /// True once a stop was requested, false when `time` has passed without one.
    [[nodiscard]] bool wait_until_stopped_for(std::chrono::milliseconds time)
        TESSARON_EXCLUDES(m_cv_mutex);

    /// Called in the order of registration at the end of the process, and before an uncaught
    /// exception ends it.
    void register_flush_on_exit(std::function<void()> callback);
    /// Called with every stop request, on the thread that makes it, with no lock held.
    void set_stop_hook(std::function<void()> hook) TESSARON_EXCLUDES(m_cv_mutex);

    ShellOptions m_options;
    ArgvParser m_argv_parser_; ///< Set by the derived class's constructor.

private:
    /// How a session ended, and what follows.
    struct SessionEnd {
        DefaultTerminationReasons::Reason reason = DefaultTerminationReasons::Reason::normal;
        std::string detail;
        bool restart = false;
    };

    // AppShell.cpp: life and the run sequence

    void apply_instance_policy();
    void report_already_running();
    void print_config_fields();
    void print_bus_report();
    int run_application();
    SessionEnd decide_session_end() const;
    void record_session_end_as(DefaultTerminationReasons::Reason reason, std::string const& detail);
    std::string reason_text(DefaultTerminationReasons::Reason reason,
                            std::string const& detail) const;
    void clear_running_flag() TESSARON_EXCLUDES(m_cv_mutex);
    void watch_for_stop() TESSARON_EXCLUDES(m_cv_mutex);
    void end_watch() TESSARON_EXCLUDES(m_cv_mutex);
    void run_flush_callbacks() noexcept;
    void say(LogLevel level, std::string const& text);
    void join_bus();

    // AppShell_Restart.cpp: the next image

    void restart_on_request();
    bool should_auto_restart_after_crash(std::string const& description);
    void exec_self_restart(char** argv);
    int exec_self_signal_safe(char** argv) noexcept;
    static sigset_t signal_mask_for_next_image();
    static char const* restart_path(char* const* argv) noexcept;

    // AppShell_Terminate.cpp: an exception that nobody caught

    static void terminate_handler();
    void end_after_uncaught_exception(std::string const& description);

    // AppShell_Crash_signal_safe.cpp: the crash path

    static void install_crash_signal_handlers() noexcept;
    static void static_signal_action_handler(int signal_number, siginfo_t* info, void* context);
    [[noreturn]] static void handle_fatal_signal_and_terminate(int signal_number,
                                                               siginfo_t const* info) noexcept;
    void record_crash_signal_safe(int signal_number, siginfo_t const* info) noexcept;
    bool should_auto_restart_after_crash_signal_safe() noexcept;
    void restart_after_crash_signal_safe() noexcept;

    static std::atomic<AppShellBase*> s_instance;

    AppContext& context_;
    std::string const shell_name_;
    std::span<TerminationReason const> const reasons_;
    bool const declares_components_;
    std::shared_ptr<LoggerBusClient> const log_;
    AppControl control_;
    std::shared_ptr<IRuntimeState> const runtime_; ///< shared with the incident report under way
    std::vector<std::function<void()>> flush_callbacks_;
    CrashRestartBudget restart_budget_;
    InstanceLock lock_;

    // For the main thread, like those of `start_thread`.
    std::unique_ptr<std::byte[]> const signal_stack_memory_;
    AlternateSignalStack const signal_stack_;

    // What a crash handler needs to start anew.
    sigset_t const next_signal_mask_;
    std::atomic<char**> saved_argv_{nullptr}; ///< set on the main thread before `run_impl`

    /// Changed under the mutex, so that no wake-up is lost; read without it by the signal path.
    std::atomic<bool> running_{false};
    std::atomic<bool> run_entered_{false};
    Mutex m_cv_mutex;
    std::condition_variable m_cv;
    std::function<void()> stop_hook_ TESSARON_GUARDED_BY(m_cv_mutex);

    // Last: their threads use the members above.
    StopSignals signals_;
    std::thread watcher_;
};

/// The singleton shell of the application `Derived`, which is built on first use.
///
/// `Reasons` names how sessions may end, `Components` are the types that declare what the
/// application puts on the bus, `Runtime` is the state that goes into the session records.
template <typename Derived, typename Reasons = DefaultTerminationReasons,
          typename Components = std::tuple<>, typename Runtime = app_shell_detail::NoRuntime>
class AppShell : public AppShellBase {
public:
    /// Thread safety: safe from any thread. Errors: what `Derived`'s constructor throws.
    static Derived& instance(AppContext& context) {
        static Derived s_instance(context);
        return s_instance;
    }

protected:
    AppShell(AppContext& context, std::string shell_name)
        : AppShellBase(context, std::move(shell_name), Reasons::describe(),
                       std::make_unique<Runtime>(context.app_dir() + "/runtime.txt"),
                       std::tuple_size_v<Components> != 0) {}
};

} // namespace tessaron
