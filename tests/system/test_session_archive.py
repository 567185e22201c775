"""What is kept of the last sessions of an application: their log, their crash, their incidents."""
import os
import re
import time

import pytest
from frame_app import FRAME_CRASHES, FRAME_DATA, FRAME_LOG, frame_log, FRAME_PROGRAM, FRAME_SESSIONS
from instance_lock import USER
from programs import wait_until
from sessions import session_lines

ARCHIVES = FRAME_DATA / "sessions"
INCIDENTS = FRAME_DATA / "incidents"
CONFIG_HISTORY = FRAME_DATA / "config_history.log"
CLOCK_REALTIME_COARSE = 5
NO_STOP = "stop: (none recorded - crash/SIGKILL with no stop line, or still running)\n"


@pytest.fixture
def keeping(frame):
    """Starts the application so that it keeps archives."""
    return lambda count=3, *arguments: frame(*arguments, FRAME_APP_KEEP=str(count)).wait_ready()


def archive_of(start):
    return ARCHIVES / f"{start['ts']}_{start['pid']}"


def archives():
    return {path.name for path in ARCHIVES.iterdir()}


def names_of(begun):
    return {archive_of(start).name for start in begun}


def starts():
    return [line for line in session_lines(FRAME_SESSIONS) if line["event"] == "start"]


def stops():
    return [line for line in session_lines(FRAME_SESSIONS) if line["event"] == "stop"]


def expected_meta(start, stop, changes=""):
    text = (f"pid: {start['pid']}\nexe: {FRAME_PROGRAM}\nuser: {USER}\ncwd: {os.getcwd()}\n"
            f"args: {start['args']}\nstart_ts: {start['ts']}\n")
    if start["runtime"]:
        text += f"start_runtime: {start['runtime']}\n"
    if stop is None:
        return text + NO_STOP + changes
    text += f"stop_ts: {stop['ts']}\nduration_s: {stop['duration_s']}\nreason: {stop['reason']}\n"
    if stop["runtime"]:
        text += f"stop_runtime: {stop['runtime']}\n"
    return text + changes


def log_lines(begin, end):
    """The lines of the log between two places in it, across its rotations, both included."""
    lines = []
    for generation in range(int(begin["generation"]), int(end["generation"]) + 1):
        backup = FRAME_LOG.with_name(f"app.log.{generation}")
        part = (backup if backup.exists() else FRAME_LOG).read_text().splitlines(keepends=True)
        if generation == int(end["generation"]):
            part = part[:int(end["log_line"])]
        if generation == int(begin["generation"]):
            part = part[max(int(begin["log_line"]), 1) - 1:]
        lines += part
    return "".join(lines)


def log_line(program, text):
    """A line in the file, so that not even a crash loses it."""
    program.do(f"log INFO {text}")
    wait_until(lambda: f"] {text}\n" in frame_log(), "the line is in the log")


def wait_for_another_second(start):
    """Two sessions of one process that begin in the same second would share their archive."""
    # As the program reads it: the coarse clock is some milliseconds behind the exact one.
    wait_until(lambda: int(time.clock_gettime(CLOCK_REALTIME_COARSE)) > int(start["ts"]), "the next second has come")


def test_a_session_is_archived_when_it_ends(keeping):
    program = keeping(3, "--verbose")
    assert not ARCHIVES.exists()
    program.do("log WARNING mine")
    program.do("runtime lamp=on")
    program.tell("stop")
    assert program.wait_end() == 0
    (start,), (stop,) = starts(), stops()
    assert archives() == names_of([start])
    assert sorted(path.name for path in archive_of(start).iterdir()) == ["meta.txt", "session.log"]
    assert (archive_of(start) / "meta.txt").read_text() == expected_meta(start, stop)
    assert stop["reason"] == "normal" and stop["runtime"] == "lamp=on" and start["args"] == "--verbose"
    log = (archive_of(start) / "session.log").read_text()
    assert log == log_lines(start, stop)
    assert log.count("] mine\n") == 1
    assert log.endswith(f"session stop: pid={program.pid} duration_s={stop['duration_s']} reason=normal\n")


def test_the_archives_of_the_last_three_sessions_are_kept(keeping):
    first = keeping()
    log_line(first, "from the first")
    first.tell("stop")
    assert first.wait_end() == 0
    second = keeping()
    log_line(second, "from the second")
    assert second.stop() == 143
    assert archives() == names_of(starts())

    # Ended by a crash, and archived by the image that replaces it.
    third = keeping()
    log_line(third, "from the third")
    wait_for_another_second(starts()[2])
    third.crash("crash segv")
    assert archives() == names_of(starts()[:3])

    # Killed, and archived by the next start.
    log_line(third, "from the fourth")
    third.kill()
    fifth = keeping()
    assert archives() == names_of(starts()[1:4])
    log_line(fifth, "from the fifth")
    wait_for_another_second(starts()[4])
    fifth.crash("reboot because I say so")
    assert archives() == names_of(starts()[2:5])

    begun = starts()
    crash, reboot = stops()[2:]
    assert crash["reason"] == "crash: signal SIGSEGV"
    assert reboot["reason"] == "reboot: because I say so"
    for start, stop in [(begun[2], crash), (begun[3], None), (begun[4], reboot)]:
        assert (archive_of(start) / "meta.txt").read_text() == expected_meta(start, stop)
    logs = [(archive_of(start) / "session.log").read_text() for start in begun[2:5]]
    for log, own in zip(logs, ["third", "fourth", "fifth"]):
        assert re.findall(r"\] from the (\w+)\n", log) == [own]
    assert logs[1] == log_lines(begun[3], begun[4])
    assert logs[2] == log_lines(begun[4], reboot)

    assert fifth.stop() == 143
    assert archives() == names_of(starts()[3:6])
    assert [(archive_of(start) / "crash.txt").exists() for start in starts()[3:6]] == [False] * 3


def test_the_archive_of_a_crash_has_its_record(keeping):
    program = keeping()
    log_line(program, "the last words")
    wait_for_another_second(starts()[0])
    program.crash("crash abort")
    start = starts()[0]
    crash = (archive_of(start) / "crash.txt").read_text()
    record = FRAME_CRASHES.read_text()
    head, *rest = record.splitlines()
    fields = dict(word.split("=", 1) for word in head.split() if "=" in word and word != "===")
    assert fields["pid"] == str(program.pid) and fields["signum"] == "6"
    trace = rest.index("--- recent activity ---")
    assert crash.splitlines() == [
        f"version: {fields['version']} build_ts={fields['build_ts']} commit={fields['commit']} "
        f"build_type={fields['build_type']}", "backtrace:",
        *(f"  {frame}" for frame in rest[:trace]), *rest[trace + 1:]]
    assert 0 < trace <= 32
    assert any("the last words" in line for line in rest[trace + 1:])
    log = (archive_of(start) / "session.log").read_text()
    assert log.endswith("] the last words\n")
    assert frame_log().startswith(log_lines({"generation": 0, "log_line": 1}, start))


def test_an_uncaught_exception_is_archived_with_its_session(keeping):
    program = keeping()
    wait_for_another_second(starts()[0])
    program.crash("throw std")
    start, stop = starts()[0], stops()[0]
    assert stop["reason"] == "crash: uncaught exception - told to throw"
    crash, incident, *others = sorted(path.name for path in archive_of(start).iterdir())
    assert (crash, others) == ("crash.txt", ["meta.txt", "session.log"])
    # It was logged as the error that it is.
    assert incident == next(INCIDENTS.iterdir()).name
    assert (archive_of(start) / "meta.txt").read_text() == expected_meta(start, stop)
    assert (archive_of(start) / "session.log").read_text() == log_lines(start, stop)


def test_a_session_s_log_goes_on_across_rotations(keeping):
    other = keeping()
    other.do("log INFO not mine")
    assert other.stop() == 143
    program = keeping()
    for _ in range(3):
        program.do("burst 20000")
    assert program.stop() == 143
    assert len(list(FRAME_LOG.parent.iterdir())) >= 3, "the log was rotated twice"
    start, stop = starts()[1], stops()[1]
    assert int(stop["generation"]) >= int(start["generation"]) + 2
    log = (archive_of(start) / "session.log").read_text()
    assert log == log_lines(start, stop)
    numbers = [int(number) for number in re.findall(r"\] burst (\d+)\n", log)]
    assert numbers == list(range(20000, 0, -1)) * 3
    assert "not mine" not in log and "session stop: pid=%s " % program.pid in log


def test_a_generation_that_is_gone_is_told(keeping):
    program = keeping()
    for _ in range(2):
        program.do("burst 20000")
    wait_until(lambda: len(list(FRAME_LOG.parent.glob("app.log.*"))) >= 2, "the log was rotated twice")
    first = min(FRAME_LOG.parent.glob("app.log.*"), key=lambda path: int(path.suffix[1:]))
    first.unlink()
    assert program.stop() == 143
    start, stop = starts()[0], stops()[0]
    log = (archive_of(start) / "session.log").read_text()
    note, rest = log.split("\n", 1)
    assert note == f"partial log - generation {first.suffix[1:]} no longer retained"
    assert rest == log_lines({"generation": int(first.suffix[1:]) + 1, "log_line": 1}, stop)


def test_the_changes_and_incidents_of_the_session_s_time_are_in_it(keeping):
    program = keeping()
    begin = int(starts()[0]["ts"])
    CONFIG_HISTORY.write_text(f"ts={begin - 1} field=greeting old=a\x1fnew=b\n"
                              f"ts={begin} field=greeting old=b\x1fnew=two words\n"
                              "not a change\n"
                              f"ts={begin + 100000} field=greeting old=c\x1fnew=d\n"
                              f"ts={begin} field=log_min_level old=1\x1fnew=2\n")
    INCIDENTS.mkdir()
    inside = [f"incident-{begin}000.txt", f"incident-{begin}999.txt"]
    for name in [*inside, f"incident-{begin - 1}999.txt", f"incident-{begin + 100000}000.txt",
                 "incident-.txt", "incident-soon.txt", f"report-{begin}000.txt", f"incident-{begin}000.txt.tmp"]:
        (INCIDENTS / name).write_text(f"report {name}\n")
    (INCIDENTS / f"incident-{begin}001.txt").mkdir()
    assert program.stop() == 143
    (start,), (stop,) = starts(), stops()
    assert sorted(path.name for path in archive_of(start).iterdir()) == [*inside, "meta.txt", "session.log"]
    for name in inside:
        assert (archive_of(start) / name).read_text() == f"report {name}\n"
        assert (INCIDENTS / name).exists()
    assert (archive_of(start) / "meta.txt").read_text() == expected_meta(
        start, stop, "config changes during this session:\n"
                     f"  ts={begin} field=greeting old=b new=two words\n"
                     f"  ts={begin} field=log_min_level old=1 new=2\n")


def test_an_archive_that_lost_its_log_is_written_again(keeping):
    assert keeping().stop() == 143
    archive = archive_of(starts()[0])
    log = (archive / "session.log").read_text()
    (archive / "session.log").unlink()
    (archive / "meta.txt").write_text("spoilt")
    keeping()
    assert (archive / "session.log").read_text() == log
    assert (archive / "meta.txt").read_text() == expected_meta(starts()[0], stops()[0])


def test_an_archive_that_is_whole_is_left_alone(keeping):
    assert keeping().stop() == 143
    archive = archive_of(starts()[0])
    (archive / "meta.txt").write_text("a remark")
    keeping()
    assert (archive / "meta.txt").read_text() == "a remark"


def test_a_lower_count_removes_the_surplus_at_the_next_start(keeping):
    for _ in range(3):
        assert keeping().stop() == 143
    (ARCHIVES / "notes").mkdir()
    assert len(archives()) == 4
    program = keeping(1)
    assert archives() == {archive_of(starts()[2]).name, "notes"}
    assert program.stop() == 143
    assert archives() == {archive_of(starts()[3]).name, "notes"}


def test_without_a_count_there_are_no_archives(frame):
    program = frame().wait_ready()
    wait_for_another_second(starts()[0])
    program.crash("crash segv")
    program.kill()
    assert frame().wait_ready().stop() == 143
    assert not ARCHIVES.exists()


def test_a_count_of_zero_leaves_earlier_archives_alone(keeping, frame):
    assert keeping().stop() == 143
    before = {path: path.read_bytes() for path in ARCHIVES.rglob("*") if path.is_file()}
    assert frame(FRAME_APP_KEEP="0").wait_ready().stop() == 143
    assert {path: path.read_bytes() for path in ARCHIVES.rglob("*") if path.is_file()} == before


def test_archives_that_cannot_be_written_do_not_keep_the_application_from_running(keeping):
    FRAME_DATA.mkdir(parents=True)
    ARCHIVES.write_text("in the way")
    program = keeping()
    assert program.stop() == 143
    assert [line["event"] for line in session_lines(FRAME_SESSIONS)] == ["start", "stop"]
    assert ARCHIVES.read_text() == "in the way"
