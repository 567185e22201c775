#pragma once

#include <sys/types.h>

/// Waiting for children of this process, whatever signals arrive meanwhile. A `pid` below 1 names
/// no child: to the system it would mean a whole group of them. Stateless; one thread at a time for
/// one child, the caller's duty.
namespace tessaron::child_process {

/// True if the child has ended, and then it is reaped. A child that someone else reaped has ended
/// too: its id may by now belong to a stranger.
[[nodiscard]] bool has_ended(pid_t pid);

/// False if certainly no child of this process waits to be reaped. One call for all of them, so
/// that looking after hundreds of children that live costs no more than looking after one.
[[nodiscard]] bool some_child_may_have_ended();

/// Blocks until the child has ended and reaps it.
void wait_for_end(pid_t pid);

/// Sends the signal; nothing is sent if `pid` names no single process.
void send_signal(pid_t pid, int signal_number);

} // namespace tessaron::child_process
