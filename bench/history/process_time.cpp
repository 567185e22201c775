// Runs commands in turns, their output thrown away, and prints for each the median time in
// microseconds from its start to its end. Usage: process_time ROUNDS COMMAND... [-- COMMAND...]...
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using Command = std::vector<char*>; // ends in a null pointer

/// Exits if the command cannot be run or fails: its time would mean nothing.
double run(Command const& command) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    auto const begin = std::chrono::steady_clock::now();
    pid_t pid = -1;
    int status = 1;
    if (posix_spawnp(&pid, command.front(), &actions, nullptr, command.data(), environ) != 0 ||
        waitpid(pid, &status, 0) != pid || status != 0) {
        std::fprintf(stderr, "failed: %s\n", command.front());
        std::exit(1);
    }
    std::chrono::duration<double, std::micro> const taken =
        std::chrono::steady_clock::now() - begin;
    posix_spawn_file_actions_destroy(&actions);
    return taken.count();
}

} // namespace

int main(int argc, char** argv) {
    int const rounds = argc > 2 ? std::atoi(argv[1]) : 0;
    if (rounds < 1) {
        std::fprintf(stderr, "usage: %s ROUNDS COMMAND... [-- COMMAND...]...\n", argv[0]);
        return 2;
    }
    std::vector<Command> commands(1);
    for (int i = 2; i < argc; ++i) {
        if (std::strcmp(argv[i], "--") == 0) {
            commands.emplace_back();
        } else {
            commands.back().push_back(argv[i]);
        }
    }
    std::vector<std::vector<double>> times(commands.size());
    for (Command& command : commands) {
        command.push_back(nullptr);
        run(command); // warms the caches
    }
    for (int round = 0; round < rounds; ++round) {
        for (std::size_t i = 0; i < commands.size(); ++i) {
            times[i].push_back(run(commands[i]));
        }
    }
    for (std::vector<double>& of_command : times) {
        auto const middle = of_command.begin() + static_cast<std::ptrdiff_t>(of_command.size() / 2);
        std::nth_element(of_command.begin(), middle, of_command.end());
        std::printf("%.1f\n", *middle);
    }
    return 0;
}
