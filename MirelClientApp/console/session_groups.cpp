#include "MirelClientApp/console/session_groups.hpp"

#include "app/utilities/file_io.hpp"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

namespace mirelclient {

namespace {

struct ProcessState {
    char letter = 0;
    pid_t group = 0;
    pid_t session = 0;
};

/// From "pid (name) letter parent group session ..."; the name may hold anything.
bool read_state(std::string const& stat, ProcessState& state) {
    std::size_t const name_end = stat.rfind(')');
    int parent = 0;
    return name_end != std::string::npos &&
           std::sscanf(stat.c_str() + name_end + 1, " %c %d %d %d", &state.letter, &parent,
                       &state.group, &state.session) == 4;
}

std::vector<pid_t> members(SessionGroups const& groups) {
    std::vector<pid_t> found;
    std::error_code error;
    for (std::filesystem::directory_iterator entry("/proc", error), end; !error && entry != end;
         entry.increment(error)) {
        pid_t const pid = std::atoi(entry->path().filename().c_str());
        auto const stat = pid > 0 ? tessaron::read_file(entry->path() / "stat") : std::nullopt;
        ProcessState state;
        if (stat && read_state(*stat, state) && state.letter != 'Z' && state.letter != 'X' &&
            state.session == groups.session &&
            (state.group == groups.session || state.group == groups.foreground_group)) {
            found.push_back(pid);
        }
    }
    return found;
}

} // namespace

bool SessionGroups::some_live() const {
    return !members(*this).empty();
}

void SessionGroups::kill_all() const {
    for (pid_t const pid : members(*this)) {
        ::kill(pid, SIGKILL);
    }
}

} // namespace mirelclient
