#include "package/spawn_package.hpp"

#include <array>
#include <cerrno>
#include <csignal>
#include <string_view>
#include <unistd.h>

namespace tessaron {

namespace {

constexpr std::string_view K_GATEWAY_PORT_ASSIGNMENT = "CONSOLE_APP_GATEWAY_TCP_PORT=";

// The signals that ask a program to end, or tell it that its reader has gone. A daemon may ignore
// or block them for its own sake; a package must still be stoppable.
constexpr std::array K_ENDING_SIGNALS{SIGINT, SIGTERM, SIGHUP, SIGPIPE};

// Everything the child needs, prepared before the fork: between fork and exec a process of many
// threads may neither allocate nor touch its environment.
struct PreparedProgram {
    std::vector<char*> argv;
    std::vector<char*> environment;
    sigset_t signal_mask;
};

std::vector<char*> make_argv(PackageProgram const& program) {
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(program.path.c_str()));
    for (std::string const& arg : program.args) {
        argv.push_back(const_cast<char*>(arg.c_str()));
    }
    argv.push_back(nullptr);
    return argv;
}

std::vector<char*> environment_without_gateway_port() {
    std::vector<char*> environment;
    for (char** variable = environ; variable != nullptr && *variable != nullptr; ++variable) {
        if (!std::string_view(*variable).starts_with(K_GATEWAY_PORT_ASSIGNMENT)) {
            environment.push_back(*variable);
        }
    }
    environment.push_back(nullptr);
    return environment;
}

// async-signal-safe
[[noreturn]] void run_child_signal_safe(PackageProgram const& program,
                                        PreparedProgram const& prepared) {
    struct sigaction to_default = {};
    to_default.sa_handler = SIG_DFL;
    for (int const signal_number : K_ENDING_SIGNALS) {
        sigaction(signal_number, &to_default, nullptr);
    }
    // A stop that arrived since the fork takes effect here, by the default action.
    sigprocmask(SIG_SETMASK, &prepared.signal_mask, nullptr);
    if (chdir(program.working_dir.c_str()) != 0) {
        _exit(127);
    }
    execve(program.path.c_str(), prepared.argv.data(), prepared.environment.data());
    _exit(127);
}

} // namespace

pid_t spawn_package(PackageProgram const& program) {
    PreparedProgram prepared{make_argv(program), environment_without_gateway_port(), {}};

    // No handler of this process may run in the child: it would swallow a stop, or act on
    // descriptors that both share.
    sigset_t all_signals;
    sigset_t own_mask;
    sigfillset(&all_signals);
    pthread_sigmask(SIG_SETMASK, &all_signals, &own_mask);
    prepared.signal_mask = own_mask;
    for (int const signal_number : K_ENDING_SIGNALS) {
        sigdelset(&prepared.signal_mask, signal_number);
    }

    pid_t const pid = fork();
    int const fork_error = errno;
    if (pid == 0) {
        run_child_signal_safe(program, prepared);
    }
    pthread_sigmask(SIG_SETMASK, &own_mask, nullptr);
    errno = fork_error;
    return pid;
}

} // namespace tessaron
