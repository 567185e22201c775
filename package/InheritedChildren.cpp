#include "package/InheritedChildren.hpp"

#include "app/utilities/file_io.hpp"
#include "package/child_process.hpp"

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <system_error>

namespace tessaron {

InheritedChildren InheritedChildren::of_this_process() {
    InheritedChildren result;
    std::error_code error;
    for (auto const& task : std::filesystem::directory_iterator("/proc/self/task", error)) {
        std::istringstream pids(read_file(task.path() / "children").value_or(""));
        for (pid_t pid = 0; pids >> pid;) {
            result.pids_.push_back(pid);
        }
    }
    return result;
}

void InheritedChildren::reap_ended() {
    pids_.erase(std::remove_if(pids_.begin(), pids_.end(), child_process::has_ended), pids_.end());
}

} // namespace tessaron
