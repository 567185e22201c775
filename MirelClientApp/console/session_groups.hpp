#pragma once

#include <sys/types.h>

namespace mirelclient {

/// The processes of a terminal's session that are in its shell's group or in the group of the job
/// that was in the foreground. Jobs in the background are none of them: who starts one that
/// survives the hang-up wants it to.
///
/// A process counts only if it is in the session too: the foreground group's id may meanwhile be a
/// stranger's, while the session's is reserved for as long as its shell is not reaped.
///
/// Thread safety: immutable after construction.
/// Errors: where the system does not tell its processes, there are none.
struct SessionGroups {
    pid_t session;
    pid_t foreground_group;

    /// Whether one of them is more than a zombie.
    bool some_live() const;
    void kill_all() const;
};

} // namespace mirelclient
