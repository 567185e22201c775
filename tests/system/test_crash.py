"""A crash by a signal: what it leaves, and that the same process goes on with a new image."""
import os
import signal

import pytest
from crash_log import signal_told
from frame_app import (COUNT, FAULTS, FRAME_PROGRAM, WINDOW, frame_crashes, frame_log,
                       frame_log_messages, wait_frame_log)
from processes import environment_of

ARGUMENTS = ["--instance-policy=warn", "--bus-report"]


def signal_sets(pid):
    """What the process blocks and what it ignores, of all signals."""
    with open(f"/proc/{pid}/status", encoding="utf-8") as file:
        return [line for line in file if line.startswith(("SigBlk:", "SigIgn:"))]


def check_restart(app, pid, record_time):
    """The image is a new one in the same process: nothing but the two variables has changed."""
    assert app.process.poll() is None and app.pid == pid
    assert os.readlink(f"/proc/{pid}/exe") == str(FRAME_PROGRAM)
    with open(f"/proc/{pid}/cmdline", encoding="utf-8") as file:
        assert file.read().split("\0")[:-1] == [str(FRAME_PROGRAM), *ARGUMENTS]
    assert signal_sets(pid) == app.signal_sets
    environment = environment_of(pid)
    assert environment.pop(COUNT) == "1"
    assert int(environment.pop(WINDOW)) in (record_time - 1, record_time, record_time + 1)
    assert environment == app.environment


def check_record(app, pid, number, stamp):
    record, = frame_crashes()
    assert (record.signum, record.pid, record.build) == (number, pid, stamp)
    assert record.detail is None
    assert app.start_time <= record.time
    # What was logged last, whatever the level, ends the record.
    assert record.trace[-3:] == ["INFO [app] one", "TRACE [app] below the level of the file",
                                 "WARNING [app] three"]
    assert "INFO [logger.self] Log output redirected here from a previous destination" in record.trace
    return record


def check_readers(app, sessions):
    record, = frame_crashes()
    assert app.do("sessions") == sessions
    assert app.do("crashes") == [record.header, f"frames: {len(record.functions)}"]


def start_and_log(app):
    app.start(*ARGUMENTS)
    app.do("log INFO one")
    app.do("log TRACE below the level of the file")
    app.do("log WARNING three")
    wait_frame_log("three")
    assert "below the level" not in frame_log()
    app.signal_sets = signal_sets(app.pid)
    return app.pid


def check_everything(app, pid, number, stamp):
    record = check_record(app, pid, number, stamp)
    check_restart(app, pid, record.time)
    sessions = app.check_sessions(f"crash: signal {number.name}")
    assert app.errors() == signal_told(number, attempt=1)
    check_readers(app, sessions)
    return record


@pytest.mark.parametrize("how", FAULTS)
def test_a_crash_signal_from_outside_is_recorded_and_the_program_starts_anew(app, stamp, how):
    number, _ = FAULTS[how]
    pid = start_and_log(app)
    app.send(number)
    app.wait_ready()
    record = check_everything(app, pid, number, stamp)
    # Where the signal's details have the address of a fault, they have the sender of this one.
    assert record.addr == os.getpid() | os.getuid() << 32


def check_address(how, pid, record):
    if how == "segv":
        assert record.addr == 8
    elif how == "abort":
        assert record.addr == pid | os.getuid() << 32
    elif how == "bus":
        assert record.addr % 4096 == 0
    else:
        # That of the instruction, which its function's frame names, too.
        assert record.addr != 0


@pytest.mark.parametrize("how", FAULTS)
@pytest.mark.parametrize("thread", ["side", "main"])
def test_a_crash_is_recorded_with_its_function_and_the_program_starts_anew(app, stamp, thread, how):
    number, function = FAULTS[how]
    pid = start_and_log(app)
    app.crash(f"crash {how}" if thread == "side" else f"main-crash {how}")
    record = check_everything(app, pid, number, stamp)
    check_address(how, pid, record)
    assert record.names(function), record.functions
    assert ("main" in record.functions) == (thread == "main")


@pytest.mark.parametrize("command", ["crash", "main-crash"])
def test_a_stack_that_is_used_up_is_recorded_and_the_program_starts_anew(app, stamp, command):
    pid = start_and_log(app)
    app.crash(f"{command} overflow")
    record = check_everything(app, pid, signal.SIGSEGV, stamp)
    assert len(record.functions) == 32
    assert "use_up_the_stack" in record.functions[-1]


def test_a_crash_of_the_logs_own_thread_is_recorded_and_the_program_starts_anew(app):
    start_and_log(app)
    app.do("sink-crash segv")
    app.tell("log WARNING three")
    app.wait_ready()
    record, = frame_crashes()
    assert record.names("write_to_nowhere")
    assert record.trace[-1] == "WARNING [app] three"
    app.check_sessions("crash: signal SIGSEGV")
    # The line was in the file before its sink was called.
    assert frame_log_messages().count("WARNING [app] three") == 2


def test_threads_that_crash_at_once_leave_one_whole_record_each_time(app, stamp):
    start_and_log(app)
    for _ in range(5):
        app.crash("crash-together segv")
    records = frame_crashes()
    assert [record.signum for record in records] == [signal.SIGSEGV] * 5
    for record in records:
        assert record.build == stamp and record.names("write_to_nowhere") and record.trace
    app.check_sessions(*["crash: signal SIGSEGV"] * 5)
    assert app.errors() == "".join(signal_told(signal.SIGSEGV, attempt) for attempt in range(1, 6))


def test_the_runtime_state_stands_in_the_stop_line_of_a_crash(app):
    app.start(*ARGUMENTS)
    app.do("runtime mode=calm args=none; three words")
    app.crash("crash segv")
    sessions = app.check_sessions("crash: signal SIGSEGV", runtime="mode=calm args=none; three words")
    assert app.do("sessions") == sessions


@pytest.mark.parametrize("command", ["crash segv", "throw std"])
def test_a_crash_of_a_thread_that_blocks_signals_leaves_an_image_that_can_be_stopped(app, command):
    start_and_log(app)
    app.do("block-signals")
    app.crash(command)
    assert signal_sets(app.pid) == app.signal_sets
    assert app.stop() == 128 + signal.SIGTERM


@pytest.mark.parametrize("how", FAULTS)
def test_a_crash_in_a_stop_is_recorded_but_the_program_stays_down(app, stamp, how):
    number, function = FAULTS[how]
    pid = start_and_log(app)
    app.do(f"crash-on-stop {how}")
    assert app.stop() == 128 + number
    record = check_record(app, pid, number, stamp)
    assert record.names(function), record.functions
    app.check_sessions(f"end: crash: signal {number.name}")
    assert app.errors() == signal_told(number)


@pytest.mark.parametrize("how", FAULTS)
def test_a_crash_in_the_crash_handler_kills_the_process(app, stamp, how):
    pid = start_and_log(app)
    app.do("crash-in-handler")
    app.tell(f"crash {how}")
    # The second crash is one by SIGSEGV, whatever the first one was.
    assert app.wait_end() == -signal.SIGSEGV
    check_record(app, pid, FAULTS[how][0], stamp)
    app.check_sessions()


def test_a_signal_that_the_program_raises_itself_is_a_crash_like_any_other(app, stamp):
    pid = start_and_log(app)
    app.crash(f"crash raise {signal.SIGBUS.value}")
    check_everything(app, pid, signal.SIGBUS, stamp)
