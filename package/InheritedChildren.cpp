#include "package/InheritedChildren.hpp"

#include "app/utilities/file_io.hpp"
#include "app/utilities/fs_tools.hpp"
#include "package/child_process.hpp"

#include <algorithm>
#include <sstream>
#include <string>

namespace tessaron {

InheritedChildren InheritedChildren::of_this_process() {
    InheritedChildren result;
    for (std::string const& task : fs_tools::list_dirs("/proc/self/task")) {
        std::istringstream pids(read_file("/proc/self/task/" + task + "/children").value_or(""));
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
