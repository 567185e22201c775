"""What a daemon takes of the machine when nobody wants anything of it."""
from daemon import STOPPED_BY_SIGTERM
from processes import memory, open_files, thread_names
from programs import is_sanitized, wait_until

# Between two looks at the same state the allocator's free memory differs by some hundred kilobytes, over
# five thousand sessions as over a thousand. A thread's stack or one buffer of a session, left by each of
# several hundred sessions, is more than this.
UNEVEN = 2 << 20


def footprint(daemon):
    return open_files(daemon.pid), daemon.children(), thread_names(daemon.pid)


def at_rest(daemon):
    """The footprint once it has stopped to change, and the threads that wait for the next connection
    have given up."""
    looks = []

    def is_at_rest():
        looks.append(footprint(daemon))
        return len(looks) > 10 and all(look == looks[-1] for look in looks[-10:]) and \
            "web-connection" not in looks[-1][2]
    wait_until(is_at_rest, "the daemon is at rest")
    return looks[-1]


def check_rounds_leave_nothing(daemon, run_round, rounds):
    """Runs rounds of equal size, and compares what is left with what was there before the first one.

    Memory is compared with what it was after the first few: they make the buffers, the threads' stacks
    and the allocator's arenas that are kept and used again, for as many threads as run at once. A
    sanitizer's program is not asked for its memory: it keeps what was freed for a while, and something
    of each thread for ever; the address sanitizer's complains at the stop of what was never freed.
    """
    before = at_rest(daemon)
    warm = None
    for number in range(rounds):
        run_round(number)
        if number == rounds // 4:
            assert at_rest(daemon) == before
            warm = memory(daemon.pid)
    assert at_rest(daemon) == before
    grown = memory(daemon.pid) - warm
    assert grown < UNEVEN or is_sanitized(), f"{grown} bytes more"
    assert daemon.stop() == STOPPED_BY_SIGTERM
