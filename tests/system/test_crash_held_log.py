"""Crashes while the log's own thread is stuck, with its lock, in a file that gives no answer."""
import os
import signal

import pytest
from frame_app import CRASH_SIGNALS, FRAME_LOG, frame_crashes, wait_frame_log
from programs import wait_until


def descriptors_of_pipe(app, path):
    folder = f"/proc/{app.pid}/fd"
    links = [os.readlink(f"{folder}/{name}") for name in os.listdir(folder)]
    return links.count(str(path))


def make_the_log_stick(app):
    """The log's file is replaced by a pipe, in which the log's thread then waits for an end."""
    app.do("log INFO the last words")
    wait_frame_log("the last words")
    FRAME_LOG.unlink()
    os.mkfifo(FRAME_LOG)
    # Held open, so that opening the pipe does not block already.
    pipe = os.open(FRAME_LOG, os.O_RDWR | os.O_NONBLOCK)
    try:
        app.do("log INFO into the pipe")
        wait_until(lambda: descriptors_of_pipe(app, FRAME_LOG) == 2, "the log reads the pipe it writes")
        FRAME_LOG.unlink()  # the next image finds no pipe
        return pipe
    except BaseException:
        os.close(pipe)
        raise


@pytest.fixture
def stuck(app):
    app.start()
    pipe = make_the_log_stick(app)
    yield app
    os.close(pipe)


@pytest.mark.parametrize("name", CRASH_SIGNALS)
def test_a_log_that_is_stuck_does_not_keep_a_crash_from_its_record(stuck, name):
    stuck.send(signal.Signals[name])
    stuck.wait_ready()
    record, = frame_crashes()
    assert record.trace[-2:] == ["INFO [app] the last words", "INFO [app] into the pipe"]
    stuck.check_sessions(f"crash: signal {name}")


def test_an_exception_whose_report_hangs_in_the_log_ends_as_a_crash(stuck):
    stuck.crash("throw std")
    report, crash = frame_crashes()
    assert (report.signum, report.detail, report.trace) == (0, "told to throw", None)
    assert crash.signum == signal.SIGABRT
    assert crash.trace[-2].startswith("ERROR [console_app] crash: uncaught exception - told to throw")
    stuck.check_sessions("crash: signal SIGABRT")
