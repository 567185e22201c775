"""A stop signal while an application logs as much as it can."""
from frame_app import FRAME_CRASHES, frame_log, FRAME_SESSIONS
from programs import wait_until
from sessions import check_stop_line


def test_a_hundred_stops_amid_bursts_of_log_lines(frame):
    """The log is written to the end of what was logged before the stop, and the stop is told in it."""
    for number in range(100):
        program = frame().wait_ready()
        program.tell("burst 20000")
        if number % 2:
            wait_until(lambda: "burst " in frame_log(), "the burst is under way")
        assert program.stop() == 143
        check_stop_line(FRAME_SESSIONS, program.pid)
        program.kill()
    assert not FRAME_CRASHES.read_text()
