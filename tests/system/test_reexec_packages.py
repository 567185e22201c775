"""The daemon crashes and replaces itself: what becomes of the packages that it had started."""
import os
import pathlib
import signal

from daemon import MIRELCLIENT, SESSIONS
from frame_app import FRAME_LOG_ROOT, FRAME_PROGRAM, FRAME_SESSIONS
from instance_lock import holder_text
from preloaded import entry_text, preload, put_into_store, write_registry
from processes import instances
from programs import wait_until
from registry import SLEEPER
from sessions import newest_session_event, session_lines

NAMES = [f"p{number:02}" for number in range(20)]


def preload_frames():
    """Packages whose newcomer ends the instance that is already there."""
    folders = {name: put_into_store(name, "1", f"#!/bin/sh\nCONSOLE_APP_LOCK_SUFFIX={name} "
                                               f"exec {FRAME_PROGRAM} --instance-policy kill\n")
               for name in NAMES}
    FRAME_LOG_ROOT.mkdir(parents=True)
    write_registry(*(entry_text(name, "1", str(folder)) for name, folder in folders.items()))


def lock_of(name):
    return pathlib.Path(f"/tmp/frame_app_{name}.lock")


def holder(name):
    """The process that says that it holds the package's lock; 0 while none does."""
    text = lock_of(name).read_text() if lock_of(name).exists() else ""
    return int(text.split("\n")[0].removeprefix("pid=") or 0)


def running_frames(besides=frozenset()):
    """By package, once there is one of each that runs and is none of the given ones."""
    found = {name: holder(name) for name in NAMES}
    complete = all(pid and pid not in besides and newest_session_event(FRAME_SESSIONS, pid) == "start"
                   for pid in found.values())
    return found if complete else None


def test_each_package_has_one_instance_after_a_crash_and_it_is_the_new_one(daemon):
    preload_frames()
    daemon.start()
    before = wait_until(running_frames, "all packages run")
    earlier = set()
    for _ in range(3):
        assert daemon.children() == set(before.values()) == instances(FRAME_PROGRAM)
        earlier |= set(before.values())
        daemon.crash()
        after = wait_until(lambda: running_frames(besides=earlier), "all packages run anew")
        assert len(set(after.values())) == len(NAMES)
        wait_until(lambda: instances(FRAME_PROGRAM) == set(after.values()), "the earlier ones have ended")
        for name in NAMES:
            assert lock_of(name).read_text() == holder_text(after[name], FRAME_PROGRAM)
            start, stop = session_lines(FRAME_SESSIONS, before[name])
            assert (start["event"], stop["event"]) == ("start", "stop")
            assert stop["reason"] == "signal: Terminated"
        # Among the children are those that have ended and that nobody has waited for.
        wait_until(lambda: daemon.children() == set(after.values()), "no zombie is left")
        assert all(item["status"] == "running" for item in daemon.packages().values())
        before = after
    assert instances(MIRELCLIENT) == {daemon.pid}
    assert [(line["event"], line.get("reason")) for line in session_lines(SESSIONS)] == [
        ("start", None), ("stop", "crash: signal SIGSEGV")] * 3 + [("start", None)]
    assert daemon.stop() == 143
    assert instances(FRAME_PROGRAM) == set(before.values())


def test_a_plain_program_runs_twice_after_a_crash(daemon):
    preload(daemon, "sleeper", SLEEPER)
    daemon.start()
    daemon.wait_status("sleeper", "running")
    old, = daemon.children()
    daemon.crash()
    daemon.wait_status("sleeper", "running")
    new, = wait_until(lambda: daemon.children() - {old}, "another one runs")
    os.kill(old, 0)

    # The daemon knows the new one alone, and yet leaves no zombie of the old one.
    assert daemon.post("/api/packages/sleeper/stop").status == 200
    assert daemon.children() == {old}
    assert daemon.status("sleeper") == "stopped"
    os.kill(old, signal.SIGKILL)
    wait_until(lambda: not daemon.children(), "the old one has been waited for")
    assert not pathlib.Path(f"/proc/{new}").exists()


def test_what_an_operator_stopped_stays_stopped_after_a_crash(daemon):
    preload(daemon, "sleeper", SLEEPER)
    daemon.start()
    daemon.wait_status("sleeper", "running")
    assert daemon.post("/api/packages/sleeper/stop").status == 200
    daemon.crash()
    assert daemon.status("sleeper") == "stopped"
    assert daemon.post("/api/packages/sleeper/start").status == 200
    assert daemon.status("sleeper") == "running" and len(daemon.children()) == 1
