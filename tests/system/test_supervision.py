"""Packages are kept running, and only as an operator wants them."""
import os
import pathlib
import signal
import time

from daemon import DAEMON_ROOT, STORE
from preloaded import entry_text, preload, write_registry
from programs import wait_until

SLEEP = "#!/bin/sh\nexec sleep 1000\n"


def counting(path):
    """A program that notes each of its starts, with the time, and ends."""
    return f"#!/bin/sh\ndate +%s.%N >>{path}\nexit 1\n"


def test_a_package_that_dies_is_started_again(daemon):
    preload(daemon, "sleeper", SLEEP)
    daemon.start()
    daemon.wait_status("sleeper", "running")
    first, = daemon.children()
    os.kill(first, signal.SIGKILL)
    wait_until(lambda: daemon.children() and first not in daemon.children(), "another process runs")
    daemon.wait_status("sleeper", "running")


def test_a_program_that_ends_at_once_is_tried_again_and_again_with_a_pause(daemon):
    starts = DAEMON_ROOT / "starts"
    preload(daemon, "brief", counting(starts))
    daemon.start()
    seen = set()
    wait_until(lambda: seen.add(daemon.status("brief")) or
               (starts.exists() and len(starts.read_text().split()) >= 4), "it was tried four times")
    times = [float(line) for line in starts.read_text().split()]
    # Not at every look of the supervisor, which comes each second; the exact pause is a unit test.
    assert all(later - earlier >= 2 for earlier, later in zip(times, times[1:]))
    assert seen == {"running", "down"}


def test_a_start_of_a_running_package_does_not_restart_it(daemon):
    preload(daemon, "sleeper", SLEEP)
    daemon.start()
    daemon.wait_status("sleeper", "running")
    before = daemon.children()
    assert daemon.post("/api/packages/sleeper/start").status == 200
    assert daemon.children() == before


def test_what_an_operator_stopped_stays_stopped_across_daemons(daemon):
    write_registry()
    for name in ["kept", "stopped"]:
        folder = STORE / "store" / name / "1"
        folder.mkdir(parents=True)
        (folder / "run").write_text(SLEEP)
        (folder / "run").chmod(0o755)
    write_registry(*(entry_text(name, "1", str(STORE / "store" / name / "1")) for name in ["kept", "stopped"]))
    daemon.start()
    daemon.wait_status("kept", "running")
    daemon.wait_status("stopped", "running")
    daemon.post("/api/packages/stopped/stop")
    daemon.kill()
    daemon.start()
    assert daemon.status("stopped") == "stopped"
    daemon.wait_status("kept", "running")
    assert daemon.status("stopped") == "stopped"
    assert len(daemon.children()) == 1


def test_a_stop_of_a_package_that_is_down_marks_it_stopped(daemon):
    preload(daemon, "broken", "not a program", executable="missing")
    daemon.start()
    assert daemon.post("/api/packages/broken/stop").status == 200
    assert daemon.status("broken") == "stopped"
    assert daemon.registry_file()[0]["administratively_stopped"] is True


def test_a_program_that_ends_on_the_signal_is_not_killed(daemon):
    note = DAEMON_ROOT / "note"
    preload(daemon, "polite", f"#!/bin/sh\ntrap 'sleep 1; echo bye >{note}; exit 0' TERM\n: >{note}.ready\nwhile :; do sleep 0.05; done\n")
    daemon.start()
    wait_until(pathlib.Path(f"{note}.ready").exists, "it has set its trap")
    daemon.post("/api/packages/polite/stop")
    assert note.read_text() == "bye\n"


def test_a_program_that_ignores_the_signal_is_killed_after_three_seconds(daemon):
    ready = DAEMON_ROOT / "ready"
    preload(daemon, "stubborn", f"#!/bin/sh\ntrap '' TERM\n: >{ready}\nwhile :; do sleep 0.05; done\n")
    daemon.start()
    wait_until(ready.exists, "it has set its trap")
    child, = daemon.children()
    begin = time.monotonic()
    assert daemon.post("/api/packages/stubborn/stop").status == 200
    assert time.monotonic() - begin >= 3
    assert not pathlib.Path(f"/proc/{child}").exists()


def test_a_program_that_cannot_be_executed_looks_like_one_that_ended(daemon):
    preload(daemon, "none", SLEEP, executable="missing")
    daemon.start()
    assert daemon.post("/api/packages/none/start").status == 200
    daemon.wait_status("none", "down")


def test_a_manifest_without_an_executable_cannot_start(daemon):
    preload(daemon, "empty", SLEEP, executable="", stopped=True)
    daemon.start()
    answer = daemon.post("/api/packages/empty/start")
    assert (answer.status, answer.text) == (400, '{"error":"start: manifest has no \\"executable\\" field"}')
    answer = daemon.post("/api/packages/empty/restart")
    assert answer.status == 400 and daemon.status("empty") == "stopped"


def test_the_child_has_its_folder_its_path_and_the_daemons_environment(daemon):
    folder = preload(daemon, "teller", "#!/bin/sh\n(pwd; echo \"$0\"; env) >told.tmp\nmv told.tmp told\nexec sleep 1000\n",
                     args=["x"])
    daemon.start(environment={"CONSOLE_APP_GATEWAY_TCP_PORT": "12345", "MARK": "here I am"})
    wait_until((folder / "told").exists, "it has told")
    lines = (folder / "told").read_text().splitlines()
    assert lines[0] == str(folder)
    assert lines[1] == f"{folder}/run"
    assert "MARK=here I am" in lines
    assert not any(line.startswith("CONSOLE_APP_GATEWAY_TCP_PORT") for line in lines)


def test_the_supervisor_sees_two_hundred_packages(daemon):
    for number in range(200):
        folder = STORE / "store" / f"p{number}" / "1"
        folder.mkdir(parents=True)
        (folder / "run").write_text(SLEEP)
        (folder / "run").chmod(0o755)
    write_registry(*(entry_text(f"p{number}", "1", str(STORE / "store" / f"p{number}" / "1"))
                     for number in range(200)))
    daemon.start()
    wait_until(lambda: all(item["status"] == "running" for item in daemon.packages().values()),
               "all are running")
    assert len(daemon.children()) == 200
