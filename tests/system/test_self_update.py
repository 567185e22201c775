"""The daemon replaces its own file by a build from a real registry, and starts anew from it."""
import hashlib
import os
import pathlib
import shutil
import threading

import pytest
from crash_log import exec_failure_told
from daemon import CRASHES, DAEMON_ROOT, DOWNLOADS, MIRELCLIENT, SESSIONS
from held_registry import HeldRegistry
from preloaded import preload
from programs import wait_until
from registry import ARCH, SLEEPER, replace_artifact
from sessions import session_lines

PROGRAM = DAEMON_ROOT / "bin/mirelclient"
OLD_BUILD = MIRELCLIENT.read_bytes()


def new_build(number):
    """The same program with other bytes behind it, which the loader passes over."""
    return OLD_BUILD + b"build %d" % number


@pytest.fixture
def own_daemon(daemon, registry):
    """Runs from a file of its own, which may be replaced."""
    PROGRAM.parent.mkdir(parents=True)
    shutil.copy2(MIRELCLIENT, PROGRAM)
    daemon.program = PROGRAM
    daemon.configure(registry_url=registry.url)
    return daemon


def publish_build(registry, version, content, **build):
    registry.publish("mirelclient", version, files={"mirelclient": content, "install.sh": "#!/bin/sh\nexit 1\n"},
                     executable="mirelclient", **build)


def wait_restarted(daemon, starts):
    wait_until(lambda: daemon.starts() == starts, "the next image has started")
    daemon.wait_ready()


def running_image(daemon):
    return pathlib.Path(f"/proc/{daemon.pid}/exe").read_bytes()


def work_directories():
    return list(pathlib.Path("/tmp").glob("mirelclient-self-update-*"))


def test_the_running_daemon_becomes_the_new_build(own_daemon, registry):
    publish_build(registry, "1.2.3", new_build(1))
    registry.serve()
    own_daemon.start(arguments=["--verbose"], environment={"KEPT": "yes"})
    pid = own_daemon.pid
    answer = own_daemon.post("/api/self/update")
    assert (answer.status, answer.text) == (200, '{"ok":true}')
    wait_restarted(own_daemon, 2)

    assert own_daemon.process.poll() is None and own_daemon.pid == pid
    assert PROGRAM.read_bytes() == running_image(own_daemon) == new_build(1)
    assert PROGRAM.stat().st_mode & 0o7777 == 0o755
    assert os.readlink(f"/proc/{pid}/exe") == str(PROGRAM)
    assert pathlib.Path(f"/proc/{pid}/cmdline").read_bytes() == bytes(PROGRAM) + b"\0--verbose\0"
    assert b"KEPT=yes\0" in pathlib.Path(f"/proc/{pid}/environ").read_bytes()
    assert [line["event"] for line in own_daemon.sessions()] == ["start", "stop", "start"]
    start, stop, again = own_daemon.sessions()
    assert stop["reason"] == "reboot: self-update 0.0.0 -> 1.2.3"
    assert start["exe"] == again["exe"] == str(PROGRAM)
    assert start["args"] == again["args"] == "--verbose"
    assert "AppControl: reboot requested (self-update 0.0.0 -> 1.2.3)" in own_daemon.log()
    assert not work_directories() and not PROGRAM.with_suffix(".new").exists()
    assert CRASHES.read_text() == ""
    assert own_daemon.stop() == 143


def test_a_second_update_finds_the_program_again(own_daemon, registry):
    registry.serve()
    own_daemon.start()
    for number in (1, 2, 3):
        publish_build(registry, f"1.0.{number}", new_build(number))
        assert own_daemon.post("/api/self/update", {"version": f"1.0.{number}"}).status == 200
        wait_restarted(own_daemon, number + 1)
        assert PROGRAM.read_bytes() == running_image(own_daemon) == new_build(number)
    assert [line["reason"] for line in own_daemon.sessions() if line["event"] == "stop"] == [
        f"reboot: self-update 0.0.0 -> 1.0.{number}" for number in (1, 2, 3)]


def test_the_answer_and_those_of_others_reach_their_callers(own_daemon, registry):
    publish_build(registry, "1.0.0", new_build(1))
    registry.serve()
    own_daemon.start()
    answers = []

    def ask():
        answers.append(own_daemon.get("/api/self").status)

    for updates in range(1, 6):
        callers = [threading.Thread(target=ask) for _ in range(10)]
        for caller in callers[:5]:
            caller.start()
        assert own_daemon.post("/api/self/update", {"version": "1.0.0"}).text == '{"ok":true}'
        for caller in callers[:5]:
            caller.join()
        wait_restarted(own_daemon, updates + 1)
    assert answers == [200] * 25


def test_two_updates_at_once_end_in_one_whole_build(own_daemon, registry):
    publish_build(registry, "1.0.1", new_build(1))
    publish_build(registry, "1.0.2", new_build(2))
    registry.serve()
    own_daemon.start()
    statuses = {}

    def update(version):
        try:
            statuses[version] = own_daemon.post("/api/self/update", {"version": version}).status
        except OSError:
            statuses[version] = "cut off"  # by the restart that the other one asked for

    callers = [threading.Thread(target=update, args=(version,)) for version in ("1.0.1", "1.0.2")]
    for caller in callers:
        caller.start()
    for caller in callers:
        caller.join()
    wait_until(lambda: own_daemon.starts() >= 2, "the next image has started")
    own_daemon.wait_ready()
    assert 200 in statuses.values()
    assert PROGRAM.read_bytes() in (new_build(1), new_build(2))
    assert running_image(own_daemon) == PROGRAM.read_bytes()


def test_packages_of_the_former_image_run_on_unknown_to_the_next(own_daemon, registry):
    publish_build(registry, "1.0.0", new_build(1))
    registry.serve()
    preload(own_daemon, "sleeper", SLEEPER)
    own_daemon.start()
    own_daemon.wait_status("sleeper", "running")
    before, = own_daemon.children()
    own_daemon.post("/api/self/update")
    wait_restarted(own_daemon, 2)
    own_daemon.wait_status("sleeper", "running")
    assert before in own_daemon.children() and len(own_daemon.children()) == 2
    os.kill(before, 9)
    wait_until(lambda: before not in own_daemon.children(), "the former process is reaped")


def test_a_download_under_way_ends_with_the_restart_and_leaves_nothing(own_daemon, registry):
    publish_build(registry, "1.0.0", new_build(1))
    registry.publish("slow")
    registry.serve()
    own_daemon.start()
    held = HeldRegistry(registry.folder, held=["1.0.0"])
    try:
        own_daemon.post("/api/self/config", {"name": "registry_url", "value": held.url})
        own_daemon.post("/api/packages/slow/update", {"version": "1.0.0", "arch": ARCH})
        wait_until(lambda: any(DOWNLOADS.iterdir()), "the download has begun")
        own_daemon.post("/api/self/config", {"name": "registry_url", "value": registry.url})
        assert own_daemon.post("/api/self/update").status == 200
        wait_restarted(own_daemon, 2)
    finally:
        held.stop()
    assert not any(DOWNLOADS.iterdir())
    assert own_daemon.get("/api/packages/slow/update-status").text == '{"phase":""}'


@pytest.mark.parametrize("broken, error", [
    (b"no archive at all", "tar extraction failed"),
    (b"", "tar extraction failed"),
])
def test_an_update_that_fails_changes_nothing_and_the_daemon_runs_on(own_daemon, registry, broken, error):
    publish_build(registry, "1.0.0", new_build(1))
    replace_artifact(registry, "mirelclient", broken)
    registry.serve()
    own_daemon.start()
    answer = own_daemon.post("/api/self/update", {"version": "1.0.0"})
    assert (answer.status, answer.text) == (500, f'{{"error":"{error}"}}')
    assert PROGRAM.read_bytes() == OLD_BUILD
    assert sorted(entry.name for entry in PROGRAM.parent.iterdir()) == ["mirelclient"]
    assert not work_directories()
    assert [line["event"] for line in own_daemon.sessions()] == ["start"]


def test_a_build_that_cannot_be_executed_leaves_the_daemon_down_with_its_reason(own_daemon, registry):
    publish_build(registry, "1.0.0", "no program of any kind\n")
    registry.serve()
    own_daemon.start()
    pid = own_daemon.pid
    assert own_daemon.post("/api/self/update").status == 200
    assert own_daemon.process.wait(60) == 0
    text = exec_failure_told(PROGRAM, "Exec format error").rstrip("\n")
    assert text in own_daemon.output() and text in own_daemon.log()
    assert session_lines(SESSIONS, pid)[-1]["reason"] == "reboot: self-update 0.0.0 -> 1.0.0"
    assert hashlib.sha256(PROGRAM.read_bytes()).hexdigest() == hashlib.sha256(b"no program of any kind\n").hexdigest()
    own_daemon.process = None
