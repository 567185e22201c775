#pragma once

#include <sys/types.h>
#include <vector>

namespace tessaron {

/// The children that this process had before it replaced its own image: they run on, and nobody
/// else will ever wait for them. Without this each would stay behind as a zombie once it ends.
///
/// Ownership: of the reaping of those children; they are neither signalled nor told about.
/// Thread safety: one thread at a time, the caller's duty.
/// Errors: none; where the system does not tell the children of a process, there are none.
class InheritedChildren {
public:
    /// None.
    InheritedChildren() = default;

    /// The children of the calling process at this moment. To be asked for before the process
    /// starts any of its own.
    static InheritedChildren of_this_process();

    /// Reaps those that have ended; cheap when there are none left.
    void reap_ended();

    bool empty() const noexcept { return pids_.empty(); }

private:
    std::vector<pid_t> pids_;
};

} // namespace tessaron
