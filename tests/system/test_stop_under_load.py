"""A stop signal in the middle of everything: always the same end, and everything whole after it."""
import json
import os
import pathlib
import re
import shutil
import signal

import pytest
from daemon import CRASHES, DAEMON_ROOT, SESSIONS, STORE
from frame_app import FRAME_CRASHES, frame_log, FRAME_SESSIONS
from load import Clients, HangingRegistry, send_without_waiting
from preloaded import entry_text, put_into_store, write_registry
from processes import instances
from programs import wait_until
from registry import ARCH, entry, SLEEPER
from sessions import check_stop_line, session_lines

ROUNDS = 200
SLOW_SCRIPT = "#!/bin/sh\n: >$STARTED\nexec sleep 1000\n"
NAMES = ["kept-1", "kept-2", "restarted", "changed", "leaving"]


def folder_of(name):
    return STORE / "store" / name / "1"


def fill_store():
    """Five packages; one of them takes its time to be uninstalled."""
    shutil.rmtree(STORE, ignore_errors=True)
    for name in NAMES:
        folder = put_into_store(name, "1", SLEEPER)
        (folder / "blob").write_bytes(bytes(1 << 20))
    script = folder_of("leaving") / "uninstall.sh"
    script.write_text(SLOW_SCRIPT)
    script.chmod(0o755)
    write_registry(*(entry_text(name, "1", str(folder_of(name))) for name in NAMES))


def check_store():
    """What is listed is there, and is all there."""
    listed = json.loads((STORE / "registry.json").read_text())
    names = [item["name"] for item in listed]
    assert sorted(names) == sorted(NAMES) or sorted(names) == sorted(set(NAMES) - {"leaving"})
    for item in listed:
        folder = folder_of(item["name"])
        assert item["install_path"] == str(folder) and item["version"] == "1"
        assert (folder / "run").read_text() == SLEEPER and (folder / "blob").stat().st_size == 1 << 20


def end_packages(pids):
    for pid in pids:
        os.kill(pid, signal.SIGKILL)


def end_requests(clients, connections):
    clients.rest()
    for connection in connections:
        connection.close()


@pytest.fixture
def registry_without_end():
    registry = HangingRegistry()
    yield registry
    registry.end()


@pytest.fixture
def clients():
    clients = Clients([("GET", "/api/packages"), ("GET", "/api/self/config"), ("GET", "/"),
                       ("POST", "/api/packages/changed/launch-args", '{"args":["a","b"]}'),
                       ("GET", "/api/packages/changed/manifest"),
                       ("POST", "/api/packages/restarted/start")], count=6)
    yield clients
    clients.end()


def test_two_hundred_stops_amid_requests_downloads_and_scripts(daemon, clients, registry_without_end):
    script_runs = DAEMON_ROOT / "script-runs"
    daemon.configure(registry_url=registry_without_end.url, log_min_level=0)
    for number in range(ROUNDS):
        fill_store()
        script_runs.unlink(missing_ok=True)
        daemon.start(environment={"STARTED": str(script_runs)})
        pid = daemon.pid
        assert daemon.post("/api/packages/kept-1/start").status == 200
        assert daemon.post("/api/packages/kept-2/start").status == 200
        kept = daemon.children()
        assert len(kept) == 2
        # The script holds the package service, so in every other round there is none.
        slow = [("GET", "/api/registry/packages"), ("GET", "/api/registry/packages/some/main")] * 3
        slow += [("POST", "/api/packages/leaving/uninstall")] * (number % 2)
        downloads = registry_without_end.count
        if number % 2 == 0:
            clients.work_until(number % 40)
        connections = send_without_waiting(slow)
        if number % 3 == 0:
            wait_until(lambda: registry_without_end.count > downloads, "a download is under way")
        if number % 4 == 1:
            wait_until(script_runs.exists, "the script is at work")
        assert daemon.stop() == 143, f"round {number}"
        end_requests(clients, connections)
        check_stop_line(SESSIONS, pid)
        check_store()
        assert all(pathlib.Path(f"/proc/{child}").exists() for child in kept)
        end_packages(instances(shutil.which("sleep")))
        assert not CRASHES.read_text()
    wait_until(lambda: not instances(shutil.which("curl")), "no download is left")
    sessions = session_lines(SESSIONS)
    assert [line["event"] for line in sessions] == ["start", "stop"] * ROUNDS
    assert daemon.log().count("session stop: ") == ROUNDS


def test_a_hundred_stops_amid_updates(daemon, clients, registry):
    """Each of two packages goes to and fro between two versions; one has a script that takes time."""
    blobs = {version: os.urandom(4 << 20) for version in ["1.0.0", "2.0.0"]}
    names, phases = ["changed", "restarted"], ["downloading", "installing", "starting", "done"]
    for name in names:
        for version, blob in blobs.items():
            files = {"run": SLEEPER, "blob": blob}
            registry.publish(name, version, files={**files, "install.sh": "sleep 0.05\n"}
                             if name == "changed" else files)
    registry.serve()
    daemon.bootstrap([entry(name) for name in names], registry_url=registry.url)
    for number in range(100):
        daemon.start()
        pid = daemon.pid
        before = {name: item["version"] for name, item in daemon.packages().items()}
        assert sorted(before) == names
        for name in names:
            target = "2.0.0" if before[name] == "1.0.0" else "1.0.0"
            assert daemon.post(f"/api/packages/{name}/update", {"version": target, "arch": ARCH}).status == 200
        clients.work_until(number % 8)
        awaited = phases[number % 4:]
        wait_until(lambda: daemon.get(f"/api/packages/{names[number % 2]}/update-status"
                                      ).json()["phase"] in awaited, "the update is so far")
        assert daemon.stop() == 143, f"round {number}"
        clients.rest()
        check_stop_line(SESSIONS, pid)
        listed = {item["name"]: item for item in json.loads((STORE / "registry.json").read_text())}
        assert sorted(listed) == names
        for name, item in listed.items():
            assert item["install_path"] == str(STORE / "store" / name / item["version"])
            assert pathlib.Path(item["install_path"], "blob").read_bytes() == blobs[item["version"]]
            assert pathlib.Path(item["install_path"], "run").read_text() == SLEEPER
        end_packages(instances(shutil.which("sleep")))
    assert not CRASHES.read_text()


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


@pytest.mark.parametrize("number, name", [(signal.SIGTERM, "Terminated"), (signal.SIGINT, "Interrupt"),
                                          (signal.SIGHUP, "Hangup")])
def test_the_session_tells_which_signal_ended_it(daemon, number, name):
    daemon.start()
    pid = daemon.pid
    assert daemon.stop(number) == 128 + number
    check_stop_line(SESSIONS, pid, f"signal: {name}")
    assert re.search(rf"session stop: pid={pid} duration_s=\d+ reason=signal: {name}\n", daemon.log())


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGHUP])
def test_a_parent_that_blocks_the_signals_does_not_make_it_deaf(daemon, number):
    daemon.start(preexec_fn=lambda: signal.pthread_sigmask(signal.SIG_BLOCK, [number]))
    assert daemon.stop(number) == 128 + number


def test_after_a_crash_a_stop_signal_ends_it(daemon):
    daemon.start()
    pid = daemon.pid
    daemon.crash()
    assert daemon.stop() == 143
    check_stop_line(SESSIONS, pid)


@pytest.mark.parametrize("count", [2, 100])
def test_more_of_the_signal_during_the_stop_changes_nothing(daemon, clients, registry_without_end, count):
    daemon.configure(registry_url=registry_without_end.url)
    fill_store()
    for _ in range(20):
        daemon.start()
        pid = daemon.pid
        clients.work_until(5)
        connections = send_without_waiting([("GET", "/api/registry/packages")] * 3)
        for _ in range(count):
            os.kill(pid, signal.SIGTERM)  # it is there until it has been waited for
        assert daemon.process.wait(60) == 143
        daemon.process = None
        end_requests(clients, connections)
        check_stop_line(SESSIONS, pid)
        assert len(session_lines(SESSIONS, pid)) == 2
        end_packages(instances(shutil.which("sleep")))
    assert not CRASHES.read_text()


def test_a_signal_during_the_first_installs_does_not_cut_them_short(daemon, registry):
    """The start goes on; the first signal after it ends the daemon."""
    marker, gate = DAEMON_ROOT / "script-runs", DAEMON_ROOT / "gate"
    os.mkfifo(gate)
    blob = os.urandom(1 << 20) * 8
    registry.publish("new", files={"run": SLEEPER, "blob": blob,
                                   "install.sh": f"#!/bin/sh\n: >{marker}\ncat {gate}\n"})
    registry.serve()
    daemon.bootstrap([entry("new")], registry_url=registry.url)
    daemon.spawn()
    pid = daemon.pid
    wait_until(marker.exists, "install.sh is at work")
    os.kill(pid, signal.SIGTERM)
    gate.write_text("")
    daemon.wait_ready()
    assert daemon.status("new") == "running"
    child, = daemon.children()
    assert (STORE / "store/new/1.0.0/blob").read_bytes() == blob
    assert not (STORE / "store/new/1.0.0.staging").exists()
    assert daemon.stop() == 143
    os.kill(child, 0)
    check_stop_line(SESSIONS, pid)
