"""How often a program starts itself anew after crashes, and what happens where it cannot."""
import os
import signal
import time

import pytest
from frame_app import COUNT, WINDOW, crash_records, environment_of

LOOP = "[app] crash-loop detected - giving up (crash #{})\n"


def attempt_line(number):
    return f"[app] crash - auto-restarting (attempt {number} of 5)\n"


def preset(count, window):
    return {COUNT: str(count), WINDOW: str(window)}


@pytest.mark.parametrize("name", ["SIGSEGV", "SIGABRT", "SIGFPE", "SIGILL", "SIGBUS"])
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
    app.check_sessions(pid, *[f"crash: signal {name}"] * 5, f"end: crash: signal {name}")
    assert [record.signum for record in crash_records()] == [number] * 6
    crash_line = f"[app] crash: signal {name}\n"
    assert app.errors() == "".join(crash_line + attempt_line(n) for n in range(1, 6)) + \
        crash_line + LOOP.format(6)


def test_a_start_by_hand_after_the_last_crash_begins_to_count_anew(app):
    app.start(environment=preset(5, int(time.time())))
    app.tell("crash segv")
    assert app.wait_end() == 128 + signal.SIGSEGV
    app.start()
    app.crash("crash segv")
    assert environment_of(app.pid)[COUNT] == "1"


@pytest.mark.parametrize("how, ending", [
    ("crash segv", "[app] crash: signal SIGSEGV\n" + LOOP.format(6)),
    ("throw std", "[console_app] crash: uncaught exception - told to throw\n"
                  "crash: uncaught exception - told to throw - this is crash #6 within 60s (max 5) - "
                  "crash-loop detected, refusing further auto-restart, staying exited. Manual "
                  "intervention required.\n"
                  "[app] crash: signal SIGABRT\n" + LOOP.format(6))])
def test_crashes_of_former_images_within_the_window_count(app, how, ending):
    pid = app.start(environment=preset(5, int(time.time()))).pid
    app.tell(how)
    assert app.wait_end() == 128 + (signal.SIGSEGV if how.startswith("crash") else signal.SIGABRT)
    assert app.errors() == ending
    if how.startswith("crash"):
        app.check_sessions(pid, "end: crash: signal SIGSEGV")


def test_a_count_beyond_the_limit_stays_beyond_it(app):
    app.start(environment=preset(41, int(time.time())))
    app.tell("crash segv")
    assert app.wait_end() == 128 + signal.SIGSEGV
    assert app.errors() == "[app] crash: signal SIGSEGV\n" + LOOP.format(42)


def test_a_window_that_is_over_begins_anew(app):
    begin = int(time.time()) - 1
    app.start(environment=preset(5, begin - 61))
    app.crash("crash segv")
    environment = environment_of(app.pid)
    assert environment[COUNT] == "1"
    assert begin <= int(environment[WINDOW]) <= time.time()
    assert app.errors() == "[app] crash: signal SIGSEGV\n" + attempt_line(1)


def test_a_window_that_is_not_over_goes_on(app):
    window = int(time.time()) - 10
    app.start(environment=preset(3, window))
    app.crash("crash segv")
    environment = environment_of(app.pid)
    assert (environment[COUNT], environment[WINDOW]) == ("4", str(window))
    assert app.errors() == "[app] crash: signal SIGSEGV\n" + attempt_line(4)


@pytest.mark.parametrize("environment", [
    preset("five", "now"), preset("", ""), preset("-1", "-1"), preset("5", "soon"),
    preset("99999999999999999999999", "1"), preset(" 5", "0x10"), {COUNT: "5"}, {WINDOW: "1"}])
def test_variables_that_are_no_numbers_count_as_absent(app, environment):
    begin = int(time.time()) - 1
    app.start(environment=environment)
    app.crash("crash segv")
    after = environment_of(app.pid)
    assert after[COUNT] == "1"
    assert begin <= int(after[WINDOW]) <= time.time()
    assert app.errors() == "[app] crash: signal SIGSEGV\n" + attempt_line(1)


def test_a_program_that_was_started_anew_stops_like_any_other(app):
    pid = app.start().pid
    app.crash("crash segv")
    app.crash("throw std")
    app.send(signal.SIGTERM)
    assert app.wait_end() == 128 + signal.SIGTERM
    app.check_sessions(pid, "crash: signal SIGSEGV", "crash: uncaught exception - told to throw",
                       "end: signal: Terminated")


# -- where the program is not to be executed any more --

def refusal(program, cause):
    return (f"--instance-policy reboot: execv({program}) failed: {cause} - "
            "staying exited instead of restarting\n")


SPOILT = {"No such file or directory": os.unlink, "Permission denied": lambda path: os.chmod(path, 0)}


@pytest.mark.parametrize("cause", SPOILT)
def test_a_crash_of_a_program_that_cannot_be_executed_any_more_ends_it(copied, cause):
    pid = copied.start().pid
    SPOILT[cause](copied.program)
    copied.tell("crash segv")
    assert copied.wait_end() == 128 + signal.SIGSEGV
    assert copied.errors() == ("[app] crash: signal SIGSEGV\n" + attempt_line(1)
                               + refusal(copied.program, cause))
    copied.check_sessions(pid, "end: crash: signal SIGSEGV")
    assert len(crash_records()) == 1


@pytest.mark.parametrize("cause", SPOILT)
def test_an_exception_in_a_program_that_cannot_be_executed_any_more_ends_in_an_abort(copied, cause):
    pid = copied.start().pid
    SPOILT[cause](copied.program)
    copied.tell("throw std")
    assert copied.wait_end() == 128 + signal.SIGABRT
    text = "crash: uncaught exception - told to throw"
    assert copied.errors() == (f"[console_app] {text}\n"
                               f"{text} - auto-restarting (attempt 1 of 5 within 60s)\n"
                               + refusal(copied.program, cause) + "[app] crash: signal SIGABRT\n"
                               + attempt_line(2) + refusal(copied.program, cause))
    copied.check_sessions(pid, f"then: {text}", "end: crash: signal SIGABRT")
    assert [record.signum for record in crash_records()] == [0, signal.SIGABRT]


@pytest.mark.parametrize("cause", SPOILT)
def test_a_reboot_of_a_program_that_cannot_be_executed_any_more_ends_it(copied, cause):
    pid = copied.start().pid
    SPOILT[cause](copied.program)
    copied.tell("reboot x")
    assert copied.wait_end() == 0
    assert copied.errors() == refusal(copied.program, cause)
    assert copied.log_messages()[-1] == "ERROR " + refusal(copied.program, cause).rstrip("\n")
    copied.check_sessions(pid, "end: reboot: x")


# -- on request --

def test_a_reboot_is_a_new_session_of_the_same_process(app):
    pid = app.start("--instance-policy=warn").pid
    app.tell("reboot why = because")
    app.wait_ready()
    assert app.process.poll() is None and app.pid == pid
    sessions = app.check_sessions(pid, "reboot: why = because")
    assert app.do("sessions") == sessions
    assert "INFO AppControl: reboot requested (why = because)" in app.log_messages()
    assert app.errors() == ""
    assert COUNT not in environment_of(pid) and crash_records() == []


def test_a_reboot_loses_no_line_of_the_log(app):
    pid = app.start().pid
    app.tell("burst 1000\nreboot x")
    app.wait_ready()
    messages = app.log_messages()
    begin = messages.index("INFO burst 1000")
    assert messages[begin:begin + 1000] == [f"INFO burst {number}" for number in range(1000, 0, -1)]
    assert messages[begin + 1000] == "INFO AppControl: reboot requested (x)"
    assert messages[begin + 1001].startswith(f"INFO session stop: pid={pid} ")
    app.check_sessions(pid, "reboot: x")


def test_a_reboot_keeps_the_count_of_the_crashes(app):
    app.start()
    app.crash("crash segv")
    window = environment_of(app.pid)[WINDOW]
    app.crash("reboot x")
    assert environment_of(app.pid)[COUNT] == "1"
    app.crash("crash segv")
    environment = environment_of(app.pid)
    assert (environment[COUNT], environment[WINDOW]) == ("2", window)
