"""The daemon itself crashes, and goes on with its work in the same process."""
import os
import re
import signal
import subprocess

import pytest
from crash_log import crash_records, loop_told, restart_told, signal_told
from daemon import APP_DIR, CRASHES, LOCK, MIRELCLIENT, run_to_its_end, SESSIONS
from frame_app import COUNT, CRASH_SIGNALS, WINDOW
from preloaded import preload
from processes import environment_of
from programs import DEADLINE, wait_until
from sessions import check_sessions, session_lines, start_pattern

TELLER = "#!/bin/sh\nenv >told.tmp\nmv told.tmp told\nexec sleep 1000\n"


def check_daemon_sessions(pid, *reasons):
    check_sessions(SESSIONS, start_pattern(pid, MIRELCLIENT), pid, reasons)


@pytest.mark.parametrize("name", CRASH_SIGNALS)
def test_it_survives_five_crashes_within_a_minute_and_not_the_sixth(daemon, name):
    number = signal.Signals[name]
    pid = daemon.start().pid
    for _ in range(5):
        daemon.crash(number)
        assert daemon.pid == pid and daemon.process.poll() is None
        assert os.readlink(f"/proc/{pid}/exe") == str(MIRELCLIENT)
    os.kill(pid, number)
    assert daemon.process.wait(DEADLINE) == 128 + number
    check_daemon_sessions(pid, *[f"crash: signal {name}"] * 5, f"end: crash: signal {name}")
    assert [(record.signum, record.pid) for record in crash_records(CRASHES)] == [(number, pid)] * 6
    assert daemon.output().count(signal_told(number)) == 6
    told = [line for line in daemon.output().splitlines(keepends=True) if "attempt" in line or "loop" in line]
    assert told == [*map(restart_told, range(1, 6)), loop_told(crash=6)]


def test_a_stop_after_a_crash_is_a_complete_one(daemon):
    pid = daemon.start().pid
    daemon.crash(signal.SIGBUS)
    assert daemon.stop() == 143
    check_daemon_sessions(pid, "crash: signal SIGBUS", "end: signal: Terminated")


def test_the_packages_of_an_image_after_a_crash_do_not_inherit_its_count(daemon):
    folder = preload(daemon, "teller", TELLER)
    daemon.start(environment={COUNT: "1", WINDOW: "9999999999", "MARK": "here I am"})
    told = folder / "told"
    wait_until(told.exists, "the package has told its environment")
    assert "CRASH_RESTART" not in told.read_text() and "MARK=here I am\n" in told.read_text()
    for attempt in ("2", "3"):
        told.unlink()
        daemon.crash(signal.SIGSEGV)
        assert environment_of(daemon.pid)[COUNT] == attempt
        wait_until(told.exists, "the package has told its environment again")
        assert "CRASH_RESTART" not in told.read_text() and "MARK=here I am\n" in told.read_text()


def test_what_is_installed_is_managed_on_after_a_crash(daemon):
    preload(daemon, "sleeper", "#!/bin/sh\nexec sleep 1000\n")
    daemon.start()
    daemon.wait_status("sleeper", "running")
    daemon.crash(signal.SIGSEGV)
    daemon.wait_status("sleeper", "running")
    assert daemon.post("/api/packages/sleeper/stop").status == 200
    assert daemon.status("sleeper") == "stopped"


def test_an_image_after_a_crash_holds_the_instance_lock(daemon):
    daemon.start()
    daemon.crash(signal.SIGSEGV)
    assert LOCK.read_text().startswith(f"pid={daemon.pid}\n")
    second = run_to_its_end()
    assert second.returncode == 255
    assert '"mirelclient" is already running' in second.stderr
    assert len(session_lines(SESSIONS)) == 3


def test_an_image_after_a_crash_has_the_descriptors_of_the_first_one(daemon):
    daemon.start()

    def descriptors():
        # Connections come and go, everything else has to be the same.
        return sorted(link for link in map(readlink, os.listdir(f"/proc/{daemon.pid}/fd"))
                      if link and not re.match("socket:|anon_inode:|pipe:", link))

    def readlink(name):
        try:
            return os.readlink(f"/proc/{daemon.pid}/fd/{name}")
        except OSError:
            return None
    before = descriptors()
    daemon.crash(signal.SIGSEGV)
    assert descriptors() == before


def test_a_killed_daemon_leaves_a_start_without_a_stop_and_the_next_start_works(daemon):
    dead = daemon.start().pid
    daemon.kill()
    check_daemon_sessions(dead)
    assert LOCK.read_text().startswith(f"pid={dead}\n")
    pid = daemon.start().pid
    assert pid != dead
    assert daemon.stop() == 143
    lines = session_lines(SESSIONS)
    assert [(line["event"], line["pid"]) for line in lines] == \
        [("start", str(dead)), ("start", str(pid)), ("stop", str(pid))]
    assert lines[-1]["reason"] == "signal: Terminated"


# -- a standard error stream that takes nothing --

def spawn_without_errors(daemon, how):
    """Starts the daemon with a standard error stream that is closed, or that nobody reads."""
    if how != "broken":
        redirections = "2>&-" if how == "closed" else "<&- >&- 2>&-"
        daemon.process = subprocess.Popen(
            ["/bin/sh", "-c", f'exec "$0" {redirections}', MIRELCLIENT],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
    else:
        reader, writer = os.pipe()
        daemon.process = subprocess.Popen([MIRELCLIENT], stdin=subprocess.DEVNULL,
                                          stdout=subprocess.DEVNULL, stderr=writer)
        os.close(writer)
        os.close(reader)
    daemon.wait_ready()


@pytest.mark.parametrize("how", ["closed", "closed like all others", "broken"])
def test_a_standard_error_stream_that_takes_nothing_does_not_keep_it_from_starting_anew(daemon, how):
    spawn_without_errors(daemon, how)
    pid = daemon.pid
    daemon.crash(signal.SIGSEGV)
    daemon.crash(signal.SIGABRT)
    if how != "broken":
        assert os.readlink(f"/proc/{pid}/fd/2") == "/dev/null"
    assert daemon.stop() == 143
    check_daemon_sessions(pid, "crash: signal SIGSEGV", "crash: signal SIGABRT", "end: signal: Terminated")
    assert len(crash_records(CRASHES)) == 2
    # What is meant for the stream has gone into no other file.
    for path in APP_DIR.rglob("*"):
        if path.is_file():
            assert b"[app] crash" not in path.read_bytes(), path
    assert "[app] crash" not in daemon.log()
