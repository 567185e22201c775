"""A stop signal in the middle of everything: always the same end, and everything whole after it."""
import os
import pathlib
import shutil
import signal

import pytest
from daemon import CRASHES, DAEMON_ROOT, SESSIONS
from five_packages import check_store, fill_store
from load import end_requests, send_without_waiting
from processes import end_instances, instances
from programs import wait_until
from sessions import check_stop_line, session_lines

ROUNDS = 200


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
        end_instances("sleep")
        assert not CRASHES.read_text()
    wait_until(lambda: not instances(shutil.which("curl")), "no download is left")
    sessions = session_lines(SESSIONS)
    assert [line["event"] for line in sessions] == ["start", "stop"] * ROUNDS
    assert daemon.log().count("session stop: ") == ROUNDS


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
        end_instances("sleep")
    assert not CRASHES.read_text()
