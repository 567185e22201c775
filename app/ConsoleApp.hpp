#pragma once

#include "app/AppShell.hpp"
#include "app/CommandLine.hpp"

#include <tuple>

namespace tessaron {

/// A shell with a command line: what an application derives from.
///
///     class MyApp : public tessaron::ConsoleApp<MyApp> {
///     public:
///         explicit MyApp(tessaron::AppContext& context) : ConsoleApp(context) {}
///         void user_signal_handler(int) override { request_stop(); }
///     private:
///         int run_impl() override { wait_until_stopped(); return 0; }
///     };
///
///     return MyApp::instance(context).run(argc, argv);
///
/// Thread safety: as `AppShellBase`.
template <typename Derived, typename Reasons = DefaultTerminationReasons,
          typename Components = std::tuple<>, typename Runtime = app_shell_detail::NoRuntime>
class ConsoleApp : public AppShell<Derived, Reasons, Components, Runtime> {
protected:
    explicit ConsoleApp(AppContext& context)
        : AppShell<Derived, Reasons, Components, Runtime>(context, "console_app"),
          command_line_(context.app_name(), context.app_description(), context.version(),
                        this->m_options) {
        this->m_argv_parser_ = [this](int argc, char const* const* argv) {
            return command_line_.parse(argc, argv);
        };
    }

    CommandLine& command_line() { return command_line_; }

private:
    CommandLine command_line_;
};

} // namespace tessaron
