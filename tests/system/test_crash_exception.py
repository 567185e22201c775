"""An exception that nobody caught: what it leaves, and that the same process goes on."""
import signal

import pytest
from crash_log import exception_loop_told, exception_told, loop_told, signal_told
from frame_app import COUNT, frame_crashes, frame_log_messages
from processes import environment_of

# What is thrown, and how it is told.
THROWN = {"std": "told to throw", "int": "an exception not derived from std::exception"}


def reason_of(what):
    return f"crash: uncaught exception - {THROWN[what]}"


def check_record(record, pid, what, stamp):
    assert (record.signum, record.addr, record.pid) == (0, None, pid)
    assert record.build == stamp
    assert record.detail == THROWN[what]
    assert record.trace is None


@pytest.mark.parametrize("what", THROWN)
def test_an_exception_of_a_side_thread_is_recorded_and_the_program_starts_anew(app, stamp, what):
    pid = app.start().pid
    app.crash(f"throw {what}")
    record, = frame_crashes()
    check_record(record, pid, what, stamp)
    assert record.names("throw_something"), record.functions
    sessions = app.check_sessions(reason_of(what))
    assert environment_of(pid)[COUNT] == "1"
    assert app.errors() == exception_told(reason_of(what))
    assert app.do("sessions") == sessions
    assert app.do("crashes") == [record.header, f"detail: {THROWN[what]}",
                                 f"frames: {len(record.functions)}"]


def test_the_log_tells_of_the_exception_the_stop_and_the_restart_in_this_order(app):
    pid = app.start().pid
    app.do("log INFO the last words")
    app.crash("throw std")
    messages = frame_log_messages()
    begin = messages.index("INFO [app] the last words")
    text = "crash: uncaught exception - told to throw"
    assert messages[begin + 1] == f"ERROR [console_app] {text}"
    assert messages[begin + 2].startswith(f"INFO session stop: pid={pid} duration_s=")
    assert messages[begin + 2].endswith(f" reason={text}")
    assert messages[begin + 3] == f"ERROR [console_app] {text} - auto-restarting (attempt 1 of 5 within 60s)"
    assert messages[begin + 4] == "INFO [app] Logger started, writing to console"


def test_a_standard_exception_out_of_the_main_loop_ends_the_program_as_an_error(app):
    app.start()
    app.tell("main-throw std")
    assert app.wait_end() == 1
    app.check_sessions("end: error: told to throw")
    assert app.errors() == "Failed to start frame_app: told to throw\n"
    assert frame_crashes() == []


def test_another_exception_out_of_the_main_loop_is_an_error_and_then_a_crash(app, stamp):
    pid = app.start().pid
    app.crash("main-throw int")
    record, = frame_crashes()
    check_record(record, pid, "int", stamp)
    app.check_sessions("then: error: unknown exception", reason_of("int"))
    assert app.errors() == exception_told(reason_of("int"))


def test_exceptions_and_signals_are_counted_together(app):
    pid = app.start().pid
    app.crash("crash segv")
    app.crash("throw std")
    app.crash("main-crash fpe")
    assert environment_of(pid)[COUNT] == "3"
    assert app.errors() == (signal_told(signal.SIGSEGV, attempt=1)
                            + exception_told(reason_of("std"), attempt=2)
                            + signal_told(signal.SIGFPE, attempt=3))


def test_the_sixth_exception_within_the_window_ends_in_an_abort_with_a_record_of_its_own(app, stamp):
    pid = app.start().pid
    for _ in range(5):
        app.crash("throw std")
    app.tell("throw std")
    assert app.wait_end() == 128 + signal.SIGABRT
    *earlier, last = frame_crashes()
    assert len(earlier) == 6
    for record in earlier:
        check_record(record, pid, "std", stamp)
    assert (last.signum, last.pid, last.detail) == (signal.SIGABRT, pid, None)
    text = "crash: uncaught exception - told to throw"
    assert f"ERROR [console_app] {text}" in last.trace
    app.check_sessions(*[text] * 5, f"then: {text}", "end: crash: signal SIGABRT")
    refusal = exception_loop_told(text, crash=6)
    assert app.errors() == (
        "".join(exception_told(text, attempt) for attempt in range(1, 6)) +
        f"[console_app] {text}\n{refusal}\n" + signal_told(signal.SIGABRT) + loop_told(crash=6))
    assert frame_log_messages()[-1] == f"ERROR [console_app] {refusal}"
