"""The crash path calls nothing that could wait for a lock: watched by a preloaded guard, and put to
the test while other threads hold the locks for ever."""
import os
import signal
import time

import pytest
from crash_log import exec_failure_told, loop_told, signal_told
from frame_app import COUNT, FAULTS, WINDOW, frame_crashes
from processes import environment_of, threads_in_system_call
from programs import BIN, wait_until

pytestmark = pytest.mark.preloads_allocator

GUARD = BIN / "crash_guard.so"
CONVICTED = 77

# The numbers of system calls, by the machine.
PAUSE, FUTEX = {"x86_64": (34, 202), "aarch64": (73, 98)}[os.uname().machine]


def start_guarded(app, environment=None):
    app.start(environment={"LD_PRELOAD": str(GUARD), **(environment or {})})
    with open(f"/proc/{app.pid}/maps", encoding="utf-8") as maps:
        assert str(GUARD) in maps.read()
    app.do("log INFO the last words")
    return app.pid


def check_record(record, pid, number, stamp):
    assert (record.signum, record.pid, record.build) == (number, pid, stamp)
    assert record.trace[-1] == "INFO [app] the last words"


def check_restart(app, pid, number, stamp):
    record, = frame_crashes()
    check_record(record, pid, number, stamp)
    app.check_sessions(f"crash: signal {number.name}")
    assert app.errors() == signal_told(number, attempt=1)
    assert environment_of(pid)[COUNT] == "1"
    return record


# -- the guard itself --

def convicted(app, call, number, command):
    app.do(f"unsafe-dump {call}")
    app.tell(command)
    assert app.wait_end() == CONVICTED
    assert app.errors() == signal_told(number) + f"crash_guard: {call} called in the crash path\n"


@pytest.mark.parametrize("call", ["malloc", "free", "pthread_mutex_lock", "printf", "fopen", "setenv",
                                  "dladdr", "dl_iterate_phdr"])
def test_the_guard_convicts_a_call_in_the_crash_path(app, call):
    start_guarded(app)
    convicted(app, call, signal.SIGSEGV, "crash segv")


@pytest.mark.parametrize("thread", ["crash", "main-crash"])
@pytest.mark.parametrize("how", FAULTS)
def test_the_guard_convicts_in_the_handler_of_every_crash_signal(app, thread, how):
    start_guarded(app)
    convicted(app, "malloc", FAULTS[how][0], f"{thread} {how}")


def test_the_guard_lets_everything_pass_outside_of_the_crash_path(app):
    start_guarded(app)
    app.do("unsafe-dump malloc")
    app.do("burst 100")
    app.crash("throw std")
    assert app.stop() == 128 + signal.SIGTERM
    assert "crash_guard" not in app.errors()


# -- crashes under guard --

@pytest.mark.parametrize("how", FAULTS)
@pytest.mark.parametrize("thread", ["crash", "main-crash", "crash-together", "sink-crash"])
def test_a_crash_with_a_restart_is_safe(app, stamp, thread, how):
    pid = start_guarded(app)
    if thread == "sink-crash":
        app.do(f"{thread} {how}")
        app.tell("log INFO the last words")
        app.wait_ready()
    else:
        app.crash(f"{thread} {how}")
    number, function = FAULTS[how]
    assert check_restart(app, pid, number, stamp).names(function)


@pytest.mark.parametrize("how", FAULTS)
def test_a_crash_by_a_signal_from_outside_is_safe(app, stamp, how):
    pid = start_guarded(app)
    app.send(FAULTS[how][0])
    app.wait_ready()
    check_restart(app, pid, FAULTS[how][0], stamp)


@pytest.mark.parametrize("thread", ["crash", "main-crash"])
def test_a_crash_of_a_thread_without_any_stack_left_is_safe(app, stamp, thread):
    pid = start_guarded(app)
    app.crash(f"{thread} overflow")
    check_restart(app, pid, signal.SIGSEGV, stamp)


@pytest.mark.parametrize("how", FAULTS)
@pytest.mark.parametrize("thread", ["crash", "main-crash"])
def test_a_crash_without_a_restart_is_safe(app, stamp, thread, how):
    number, _ = FAULTS[how]
    pid = start_guarded(app, {COUNT: "5", WINDOW: str(int(time.time()))})
    app.tell(f"{thread} {how}")
    assert app.wait_end() == 128 + number
    check_record(frame_crashes()[0], pid, number, stamp)
    app.check_sessions(f"end: crash: signal {number.name}")
    assert app.errors() == signal_told(number) + loop_told(crash=6)


@pytest.mark.parametrize("how", FAULTS)
def test_a_crash_in_a_stop_is_safe(app, stamp, how):
    number, _ = FAULTS[how]
    pid = start_guarded(app)
    app.do(f"crash-on-stop {how}")
    assert app.stop() == 128 + number
    check_record(frame_crashes()[0], pid, number, stamp)


@pytest.mark.parametrize("how", FAULTS)
def test_a_crash_of_a_program_that_cannot_be_executed_any_more_is_safe(copied, stamp, how):
    number, _ = FAULTS[how]
    pid = start_guarded(copied)
    copied.program.unlink()
    copied.tell(f"crash {how}")
    assert copied.wait_end() == 128 + number
    check_record(frame_crashes()[0], pid, number, stamp)
    assert copied.errors() == (signal_told(number, attempt=1)
                               + exec_failure_told(copied.program, "No such file or directory"))


@pytest.mark.parametrize("how", FAULTS)
def test_a_crash_in_the_crash_handler_is_safe(app, how):
    start_guarded(app)
    app.do("crash-in-handler")
    app.tell(f"crash {how}")
    assert app.wait_end() == -signal.SIGSEGV
    assert "crash_guard" not in app.errors()


# -- locks that another thread holds for ever --

def hold_allocator(app):
    app.do("hold-allocator")
    wait_until(lambda: threads_in_system_call(app.pid, "alloc-holder", PAUSE),
               "a thread hangs in the allocator")


def hold_log_queue(app):
    app.do("hold-queue")
    wait_until(lambda: threads_in_system_call(app.pid, "queue-holder", PAUSE),
               "a thread hangs in the queue of the log")
    app.do("log-aside")
    wait_until(lambda: threads_in_system_call(app.pid, "side-logger", FUTEX),
               "another one waits for it")


@pytest.mark.parametrize("how", FAULTS)
@pytest.mark.parametrize("hold", [hold_allocator, hold_log_queue])
def test_a_lock_that_another_thread_holds_does_not_keep_a_crash_from_its_record(app, hold, how):
    start_guarded(app)
    hold(app)
    app.crash(f"crash {how}")
    number, function = FAULTS[how]
    record, = frame_crashes()
    assert record.signum == number and record.names(function)
    assert "INFO [app] the last words" in record.trace
    app.check_sessions(f"crash: signal {number.name}")


def test_both_locks_at_once_do_not_keep_a_crash_from_its_record(app):
    start_guarded(app)
    hold_log_queue(app)
    hold_allocator(app)
    app.send(signal.SIGSEGV)
    app.wait_ready()
    assert "INFO [app] the last words" in frame_crashes()[0].trace
    app.check_sessions("crash: signal SIGSEGV")
