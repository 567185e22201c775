"""How often a program starts itself anew after crashes, and what happens where it cannot."""
import os
import signal
import time

import pytest
from crash_log import (exception_loop_told, exception_told, exec_failure_told,
                       loop_told, signal_told)
from frame_app import COUNT, CRASH_SIGNALS, WINDOW, frame_crashes, frame_log_messages
from processes import environment_of

THROWN = "crash: uncaught exception - told to throw"


def preset(count, window):
    return {COUNT: str(count), WINDOW: str(window)}


def window_after_a_crash(app, environment, attempt):
    """The second of the window's begin, as the image after a crash has it."""
    app.start(environment=environment)
    app.crash("crash segv")
    after = environment_of(app.pid)
    assert after[COUNT] == str(attempt)
    assert app.errors() == signal_told(signal.SIGSEGV, attempt)
    return after[WINDOW]


@pytest.mark.parametrize("name", CRASH_SIGNALS)
def test_the_sixth_crash_within_the_window_is_the_last_one(app, name):
    number = signal.Signals[name]
    pid = app.start().pid
    windows = set()
    for attempt in range(1, 6):
        app.send(number)
        app.wait_ready()
        environment = environment_of(pid)
        assert environment[COUNT] == str(attempt)
        windows.add(environment[WINDOW])
    assert len(windows) == 1
    app.send(number)
    assert app.wait_end() == 128 + number
    app.check_sessions(*[f"crash: signal {name}"] * 5, f"end: crash: signal {name}")
    assert [record.signum for record in frame_crashes()] == [number] * 6
    assert app.errors() == ("".join(signal_told(number, attempt) for attempt in range(1, 6))
                            + signal_told(number) + loop_told(crash=6))


def test_a_start_by_hand_after_the_last_crash_begins_to_count_anew(app):
    app.start(environment=preset(5, int(time.time())))
    app.tell("crash segv")
    assert app.wait_end() == 128 + signal.SIGSEGV
    app.start()
    app.crash("crash segv")
    assert environment_of(app.pid)[COUNT] == "1"


@pytest.mark.parametrize("how, ending", [
    ("crash segv", signal_told(signal.SIGSEGV) + loop_told(crash=6)),
    ("throw std", f"[console_app] {THROWN}\n{exception_loop_told(THROWN, crash=6)}\n"
                  + signal_told(signal.SIGABRT) + loop_told(crash=6))])
def test_crashes_of_former_images_within_the_window_count(app, how, ending):
    app.start(environment=preset(5, int(time.time())))
    app.tell(how)
    assert app.wait_end() == 128 + (signal.SIGSEGV if how.startswith("crash") else signal.SIGABRT)
    assert app.errors() == ending
    if how.startswith("crash"):
        app.check_sessions("end: crash: signal SIGSEGV")


def test_a_count_beyond_the_limit_stays_beyond_it(app):
    app.start(environment=preset(41, int(time.time())))
    app.tell("crash segv")
    assert app.wait_end() == 128 + signal.SIGSEGV
    assert app.errors() == signal_told(signal.SIGSEGV) + loop_told(crash=42)


def test_a_window_that_is_over_begins_anew(app):
    begin = int(time.time()) - 1
    assert begin <= int(window_after_a_crash(app, preset(5, begin - 61), attempt=1)) <= time.time()


def test_a_window_that_is_not_over_goes_on(app):
    window = int(time.time()) - 10
    assert window_after_a_crash(app, preset(3, window), attempt=4) == str(window)


@pytest.mark.parametrize("environment", [
    preset("five", "now"), preset("", ""), preset("-1", "-1"), preset("5", "soon"),
    preset("99999999999999999999999", "1"), preset(" 5", "0x10"), {COUNT: "5"}, {WINDOW: "1"}])
def test_variables_that_are_no_numbers_count_as_absent(app, environment):
    begin = int(time.time()) - 1
    assert begin <= int(window_after_a_crash(app, environment, attempt=1)) <= time.time()


def test_a_program_that_was_started_anew_stops_like_any_other(app):
    app.start()
    app.crash("crash segv")
    app.crash("throw std")
    assert app.stop() == 128 + signal.SIGTERM
    app.check_sessions("crash: signal SIGSEGV", THROWN, "end: signal: Terminated")


# -- where the program is not to be executed any more --

SPOILT = {"No such file or directory": os.unlink, "Permission denied": lambda path: os.chmod(path, 0)}


@pytest.mark.parametrize("cause", SPOILT)
def test_a_crash_of_a_program_that_cannot_be_executed_any_more_ends_it(copied, cause):
    copied.start()
    SPOILT[cause](copied.program)
    copied.tell("crash segv")
    assert copied.wait_end() == 128 + signal.SIGSEGV
    assert copied.errors() == (signal_told(signal.SIGSEGV, attempt=1)
                               + exec_failure_told(copied.program, cause))
    copied.check_sessions("end: crash: signal SIGSEGV")
    assert len(frame_crashes()) == 1


@pytest.mark.parametrize("cause", SPOILT)
def test_an_exception_in_a_program_that_cannot_be_executed_any_more_ends_in_an_abort(copied, cause):
    copied.start()
    SPOILT[cause](copied.program)
    copied.tell("throw std")
    assert copied.wait_end() == 128 + signal.SIGABRT
    failure = exec_failure_told(copied.program, cause)
    assert copied.errors() == (exception_told(THROWN) + failure
                               + signal_told(signal.SIGABRT, attempt=2) + failure)
    copied.check_sessions(f"then: {THROWN}", "end: crash: signal SIGABRT")
    assert [record.signum for record in frame_crashes()] == [0, signal.SIGABRT]


@pytest.mark.parametrize("cause", SPOILT)
def test_a_reboot_of_a_program_that_cannot_be_executed_any_more_ends_it(copied, cause):
    copied.start()
    SPOILT[cause](copied.program)
    copied.tell("reboot x")
    assert copied.wait_end() == 0
    assert copied.errors() == exec_failure_told(copied.program, cause)
    assert frame_log_messages()[-1] == "ERROR [console_app] " + copied.errors().rstrip("\n")
    copied.check_sessions("end: reboot: x")


# -- on request --

def test_a_reboot_is_a_new_session_of_the_same_process(app):
    pid = app.start("--instance-policy=warn").pid
    app.tell("reboot why = because")
    app.wait_ready()
    assert app.process.poll() is None and app.pid == pid
    sessions = app.check_sessions("reboot: why = because")
    assert app.do("sessions") == sessions
    assert "INFO [app] AppControl: reboot requested (why = because)" in frame_log_messages()
    assert app.errors() == ""
    assert COUNT not in environment_of(pid) and frame_crashes() == []


def test_a_reboot_loses_no_line_of_the_log(app):
    pid = app.start().pid
    app.tell("burst 1000\nreboot x")
    app.wait_ready()
    messages = frame_log_messages()
    begin = messages.index("INFO [app] burst 1000")
    assert messages[begin:begin + 1000] == [f"INFO [app] burst {number}" for number in range(1000, 0, -1)]
    assert messages[begin + 1000] == "INFO [app] AppControl: reboot requested (x)"
    assert messages[begin + 1001].startswith(f"INFO session stop: pid={pid} ")
    app.check_sessions("reboot: x")


def test_a_reboot_keeps_the_count_of_the_crashes(app):
    app.start()
    app.crash("crash segv")
    window = environment_of(app.pid)[WINDOW]
    app.crash("reboot x")
    assert environment_of(app.pid)[COUNT] == "1"
    app.crash("crash segv")
    environment = environment_of(app.pid)
    assert (environment[COUNT], environment[WINDOW]) == ("2", window)
