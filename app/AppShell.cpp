// Life and the run sequence of the shell: on the main thread, but for the watcher.

#include "app/AppShell.hpp"

#include "app/ReassertGuard.hpp"
#include "app/config_table.hpp"
#include "app/utilities/utf8_text.hpp"
#include "bus/Hub.hpp"

#include <cassert>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iostream>

namespace tessaron {

using Reason = DefaultTerminationReasons::Reason;

namespace {

/// What a shell reports for a program that a signal ended.
constexpr int K_SIGNAL_EXIT_BASE = 128;
constexpr int K_ALREADY_RUNNING = 255;

} // namespace

std::atomic<AppShellBase*> AppShellBase::s_instance{nullptr};

AppShellBase::AppShellBase(AppContext& context, std::string shell_name,
                           std::span<TerminationReason const> reasons,
                           std::unique_ptr<IRuntimeState> runtime, bool declares_components)
    : context_(context), shell_name_(std::move(shell_name)), reasons_(reasons),
      declares_components_(declares_components), log_(context.make_log_client(shell_name_)),
      control_(context, [this] { request_stop(); }), runtime_(std::move(runtime)),
      restart_budget_(shell_name_),
      lock_(context.app_name(), context.executable_path(), context.user_name(),
            [this](LogLevel level, std::string const& text) { log_->log(level, text); }),
      signal_stack_memory_(new std::byte[K_SIGNAL_STACK_SIZE]),
      signal_stack_(signal_stack_memory_.get(), K_SIGNAL_STACK_SIZE),
      next_signal_mask_(signal_mask_for_next_image()), signals_([this] { request_stop(); }) {
    register_flush_on_exit([this] { runtime_->save(); });
    context.set_extra_incident_content_provider(
        [runtime = runtime_] { return runtime->dump_named(); });
    join_bus();
    lock_.acquire_single_instance_lock();
    s_instance = this;
    install_crash_signal_handlers();
    std::set_terminate(&AppShellBase::terminate_handler);
    watcher_ = start_thread("stop-watcher", [this] { watch_for_stop(); });
}

AppShellBase::~AppShellBase() {
    control_.leave_bus();
    end_watch();
    context_.set_extra_incident_content_provider({});
    run_flush_callbacks();
    context_.logger().flush();
    // Who gets the lock next claims its name and its addresses at once, and must not find them
    // taken: others look for the application by its name.
    context_.leave_bus();
    lock_.release_signal_safe();
    detail::remove_lock_file_if_test_suffixed(context_.app_name());
    // From here on a crash has no shell to be recorded by.
    s_instance = nullptr;
}

void AppShellBase::join_bus() {
    // Only now: a request to reboot uses what is constructed behind `control_`.
    control_.join_bus();
    control_.serve_control_topic(
        "termination_reasons",
        [this](Bytes const&) {
            TerminationReasonsReply reply;
            for (TerminationReason const& reason : reasons_) {
                reply.reasons.push_back({reason.name, reason.description});
            }
            return reply.build();
        },
        "Lists this app's own termination-reason kinds (see sessions.log's own stop \"reason=\" "
        "prefix) - name + description");
}

int AppShellBase::run(int argc, char** argv) {
    assert(s_instance.load() == this);
    if (running_) {
        return K_ALREADY_RUNNING;
    }
    // Whichever way this ends: the watcher calls the derived class, as a request to reboot may,
    // and its end comes next.
    struct End {
        AppShellBase& shell;
        ~End() {
            shell.control_.leave_bus();
            shell.end_watch();
        }
    } const end{*this};
    run_entered_ = true;
    control_.note_main_thread();
    saved_argv_ = argc >= 1 ? argv : nullptr;
    assert(m_argv_parser_ && "Derived's own constructor must set "
                             "m_argv_parser_ before run() is ever called");
    if (std::optional<int> const code = m_argv_parser_(argc, argv)) {
        return *code;
    }
    context_.logger().set_verbose_console_echo(m_options.verbose);
    if (!lock_.is_held()) {
        apply_instance_policy();
    }
    if (!lock_.is_held()) {
        report_already_running();
        context_.logger().flush();
        return K_ALREADY_RUNNING;
    }
    if (m_options.list_config) {
        print_config_fields();
        return 0;
    }
    if (m_options.bus_report && declares_components_) {
        print_bus_report();
        return 0;
    }
    control_.record_session_start(argc, argv, runtime_->dump_named());
    {
        MutexLock lock(m_cv_mutex);
        // What was asked for while the application was being made is done at once, not when the
        // next signal wants it to end.
        running_ = !control_.reboot_requested();
    }
    return run_application();
}

int AppShellBase::run_application() {
    ReassertGuard const guard(&AppShellBase::install_crash_signal_handlers);
    int code = 0;
    try {
        code = run_impl();
    } catch (std::exception const& failure) {
        clear_running_flag();
        record_session_end_as(Reason::error, failure.what());
        throw;
    } catch (...) {
        clear_running_flag();
        record_session_end_as(Reason::error, "unknown exception");
        throw;
    }
    clear_running_flag();
    SessionEnd const end = decide_session_end();
    record_session_end_as(end.reason, end.detail);
    int const signal_number = signals_.last_signal();
    if (signal_number != 0) {
        code = signal_number + K_SIGNAL_EXIT_BASE;
    }
    if (end.restart && saved_argv_ != nullptr) {
        restart_on_request();
    }
    return code;
}

AppShellBase::SessionEnd AppShellBase::decide_session_end() const {
    if (control_.reboot_requested()) {
        return {Reason::reboot, control_.reboot_reason(), true};
    }
    int const signal_number = signals_.last_signal();
    if (signal_number == 0) {
        return {};
    }
    char const* const name = ::strsignal(signal_number);
    return {Reason::signal, name != nullptr ? name : "?", false};
}

void AppShellBase::apply_instance_policy() {
    switch (m_options.instance_policy) {
    case InstancePolicy::warn:
        break;
    case InstancePolicy::wait:
        lock_.wait_for_single_instance();
        break;
    case InstancePolicy::kill:
        lock_.kill_existing_instance_and_wait();
        break;
    }
}

void AppShellBase::report_already_running() {
    say(LogLevel::WARNING,
        AlreadyRunningError::build_message(context_.app_name(), lock_.holder_info()));
}

void AppShellBase::print_config_fields() {
    config::config_table(context_.config().snapshot())
        .print(std::cout, detail::stdout_supports_color());
    std::cout.flush();
}

void AppShellBase::print_bus_report() {
    context_.hub().discover();
    std::this_thread::sleep_for(bus::Hub::DEFAULT_DISCOVERY_TIMEOUT);
    context_.hub().print_table_report(std::cout);
    std::cout.flush();
}

void AppShellBase::record_session_end_as(Reason reason, std::string const& detail) {
    control_.record_session_end(reason_text(reason, detail), runtime_->dump_named());
}

std::string AppShellBase::reason_text(Reason reason, std::string const& detail) const {
    std::string const name = name_of(reasons_, static_cast<std::uint8_t>(reason));
    return detail.empty() ? name : name + ": " + detail;
}

void AppShellBase::request_stop() {
    clear_running_flag();
    std::function<void()> hook;
    {
        MutexLock lock(m_cv_mutex);
        hook = stop_hook_;
    }
    if (hook) {
        hook();
    }
}

void AppShellBase::clear_running_flag() {
    MutexLock lock(m_cv_mutex);
    running_ = false;
    m_cv.notify_all();
}

void AppShellBase::set_stop_hook(std::function<void()> hook) {
    MutexLock lock(m_cv_mutex);
    stop_hook_ = std::move(hook);
}

void AppShellBase::wait_until_stopped() {
    MutexLock lock(m_cv_mutex);
    m_cv.wait(lock.native(), [this] { return !running_; });
}

bool AppShellBase::wait_until_stopped_for(std::chrono::milliseconds time) {
    MutexLock lock(m_cv_mutex);
    return m_cv.wait_for(lock.native(), time, [this] { return !running_; });
}

void AppShellBase::watch_for_stop() {
    wait_until_stopped();
    int const signal_number = signals_.last_signal();
    // Before `run` the derived class may still be under construction.
    if (signal_number != 0 && run_entered_) {
        user_signal_handler(signal_number);
    }
}

void AppShellBase::end_watch() {
    // No stop request: its hook may belong to the derived class, which is gone in the end.
    clear_running_flag();
    if (watcher_.joinable()) {
        watcher_.join();
    }
}

void AppShellBase::register_flush_on_exit(std::function<void()> callback) {
    flush_callbacks_.push_back(std::move(callback));
}

void AppShellBase::run_flush_callbacks() noexcept {
    for (std::function<void()> const& callback : flush_callbacks_) {
        try {
            callback();
        } catch (...) {
            std::fprintf(stderr, "[%s] flush-on-exit callback threw, ignoring\n",
                         shell_name_.c_str());
        }
    }
}

void AppShellBase::say(LogLevel level, std::string const& text) {
    std::fprintf(stderr, "%s\n", text.c_str());
    log_->log(level, text);
}

} // namespace tessaron
