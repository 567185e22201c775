"""The daemon itself crashes, and goes on with its work in the same process."""
import os
import pathlib
import re
import signal
import subprocess

import pytest
from daemon import APP_DIR, CONFIG_DIR
from frame_app import COUNT, WINDOW, environment_of
from preloaded import preload
from programs import BIN, DEADLINE, wait_until

SESSIONS = CONFIG_DIR / "sessions.log"
CRASHES = CONFIG_DIR / "crash.log"
LOCK = pathlib.Path("/tmp/mirelclient.lock")
NAMES = ["SIGSEGV", "SIGABRT", "SIGFPE", "SIGILL", "SIGBUS"]

TELLER = "#!/bin/sh\nenv >told.tmp\nmv told.tmp told\nexec sleep 1000\n"


def sessions():
    return SESSIONS.read_text().splitlines() if SESSIONS.exists() else []


def headers():
    return [line for line in CRASHES.read_text().splitlines() if line.startswith("=== crash ===")]


def crash(daemon, number):
    """Sends a crash signal and waits for the next image's answers."""
    before = len(sessions())
    os.kill(daemon.pid, number)
    wait_until(lambda: len(sessions()) == before + 2, "the next session is noted")
    daemon.wait_ready()


def check_sessions(pid, *reasons):
    """A start, and for each reason a stop and a start, but for the last reason if it is of an end."""
    start = rf"event=start ts=\d+ pid={pid} exe={re.escape(str(BIN / 'mirelclient'))} user=root cwd=\S+ " \
            r"log_line=[1-9]\d* generation=0 runtime= args="
    patterns = [start]
    for reason in reasons:
        line = "0" if reason.startswith("crash") else r"[1-9]\d*"
        patterns += [rf"event=stop ts=\d+ pid={pid} duration_s=\d+ log_line={line} generation=0 "
                     rf"runtime= reason={reason}", start]
    lines = sessions()
    if len(lines) == len(patterns) - 1:
        patterns.pop()
    assert len(lines) == len(patterns), lines
    for line, pattern in zip(lines, patterns):
        assert re.fullmatch(pattern, line), (line, pattern)
    return len(lines)


@pytest.mark.parametrize("name", NAMES)
def test_it_survives_five_crashes_within_a_minute_and_not_the_sixth(daemon, name):
    number = signal.Signals[name]
    pid = daemon.start().pid
    for _ in range(5):
        crash(daemon, number)
        assert daemon.pid == pid and daemon.process.poll() is None
        assert os.readlink(f"/proc/{pid}/exe") == str(BIN / "mirelclient")
    os.kill(pid, number)
    assert daemon.process.wait(DEADLINE) == 128 + number
    assert check_sessions(pid, *[f"crash: signal {name}"] * 6) == 12
    assert len(headers()) == 6
    assert all(f" signum={number.value} pid={pid} " in line for line in headers())
    assert daemon.output().count(f"[app] crash: signal {name}\n") == 6
    assert [line for line in daemon.output().splitlines() if "attempt" in line or "loop" in line] == \
        [f"[app] crash - auto-restarting (attempt {attempt} of 5)" for attempt in range(1, 6)] + \
        ["[app] crash-loop detected - giving up (crash #6)"]


def test_a_stop_after_a_crash_is_a_complete_one(daemon):
    pid = daemon.start().pid
    crash(daemon, signal.SIGBUS)
    assert daemon.stop() == 143
    assert check_sessions(pid, "crash: signal SIGBUS", "signal: Terminated") == 4


def test_the_packages_of_an_image_after_a_crash_do_not_inherit_its_count(daemon):
    folder = preload(daemon, "teller", TELLER)
    daemon.start(environment={COUNT: "1", WINDOW: "9999999999", "MARK": "here I am"})
    told = folder / "told"
    wait_until(told.exists, "the package has told its environment")
    assert "CRASH_RESTART" not in told.read_text() and "MARK=here I am\n" in told.read_text()
    for attempt in ("2", "3"):
        told.unlink()
        crash(daemon, signal.SIGSEGV)
        assert environment_of(daemon.pid)[COUNT] == attempt
        wait_until(told.exists, "the package has told its environment again")
        assert "CRASH_RESTART" not in told.read_text() and "MARK=here I am\n" in told.read_text()


def test_what_is_installed_is_managed_on_after_a_crash(daemon):
    preload(daemon, "sleeper", "#!/bin/sh\nexec sleep 1000\n")
    daemon.start()
    daemon.wait_status("sleeper", "running")
    crash(daemon, signal.SIGSEGV)
    daemon.wait_status("sleeper", "running")
    assert daemon.post("/api/packages/sleeper/stop").status == 200
    assert daemon.status("sleeper") == "stopped"


def test_an_image_after_a_crash_holds_the_instance_lock(daemon):
    daemon.start()
    crash(daemon, signal.SIGSEGV)
    assert LOCK.read_text().startswith(f"pid={daemon.pid}\n")
    second = subprocess.run([BIN / "mirelclient"], capture_output=True, text=True, timeout=DEADLINE)
    assert second.returncode == 255
    assert '"mirelclient" is already running' in second.stderr
    assert len(sessions()) == 3


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
    crash(daemon, signal.SIGSEGV)
    assert descriptors() == before


def test_a_killed_daemon_leaves_a_start_without_a_stop_and_the_next_start_works(daemon):
    dead = daemon.start().pid
    daemon.kill()
    assert check_sessions(dead) == 1
    assert LOCK.read_text().startswith(f"pid={dead}\n")
    pid = daemon.start().pid
    assert pid != dead
    assert daemon.stop() == 143
    lines = sessions()
    assert [(line.split()[0], line.split()[2]) for line in lines] == \
        [("event=start", f"pid={dead}"), ("event=start", f"pid={pid}"), ("event=stop", f"pid={pid}")]
    assert lines[-1].endswith(" reason=signal: Terminated")


# -- a standard error stream that takes nothing --

def spawn_without_errors(daemon, how):
    """Starts the daemon with a standard error stream that is closed, or that nobody reads."""
    if how != "broken":
        redirections = "2>&-" if how == "closed" else "<&- >&- 2>&-"
        daemon.process = subprocess.Popen(
            ["/bin/sh", "-c", f'exec "$0" {redirections}', BIN / "mirelclient"],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
    else:
        reader, writer = os.pipe()
        daemon.process = subprocess.Popen([BIN / "mirelclient"], stdin=subprocess.DEVNULL,
                                          stdout=subprocess.DEVNULL, stderr=writer)
        os.close(writer)
        os.close(reader)
    daemon.wait_ready()


@pytest.mark.parametrize("how", ["closed", "closed like all others", "broken"])
def test_a_standard_error_stream_that_takes_nothing_does_not_keep_it_from_starting_anew(daemon, how):
    spawn_without_errors(daemon, how)
    pid = daemon.pid
    crash(daemon, signal.SIGSEGV)
    crash(daemon, signal.SIGABRT)
    if how != "broken":
        assert os.readlink(f"/proc/{pid}/fd/2") == "/dev/null"
    assert daemon.stop() == 143
    assert check_sessions(pid, "crash: signal SIGSEGV", "crash: signal SIGABRT", "signal: Terminated") == 6
    assert len(headers()) == 2
    # What is meant for the stream has gone into no other file.
    for path in APP_DIR.rglob("*"):
        if path.is_file():
            assert b"[app] crash" not in path.read_bytes(), path
    assert "[app] crash" not in daemon.log()
