#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace tessaron {

struct PackageProgram {
    std::string path; ///< Also argv[0].
    std::vector<std::string> args;
    std::string working_dir;
};

/// Starts the program in its working directory and returns its process id, or -1 with `errno` set
/// if there could be no new process. A directory or program that does not exist shows as a child
/// that exits with 127.
///
/// The child gets this process's environment without the bus gateway's port, its standard streams,
/// its process group, and default dispositions for the signals that ask a program to end.
///
/// Thread safety: safe from any thread.
[[nodiscard]] pid_t spawn_package(PackageProgram const& program);

} // namespace tessaron
