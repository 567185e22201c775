"""SIGKILL at the worst moments: what is found afterwards is the old state or the new one."""
import os
import random
import signal
import socket
import threading
import time

import pytest
from daemon import APP_DIR, DOWNLOADS, STORE
from preloaded import preload
from processes import end_orphans
from programs import wait_until
from registry import ARCH, SLEEPER, entry

NEW = STORE / "store/new/1.0.0"
STAGING = STORE / "store/new/1.0.0.staging"


def kill_and_check(daemon, registry):
    """After a kill: everything that was there is there; the list then completes the machine."""
    daemon.kill()
    end_orphans(APP_DIR)
    daemon.bootstrap([], registry_url=registry.url)
    daemon.start()
    packages = daemon.packages()
    assert "kept" in packages and set(packages) <= {"kept", "new"}
    if "new" in packages:
        assert (NEW / "run").is_file() and (NEW / "blob").is_file()
    daemon.wait_status("kept", "running")
    daemon.kill()
    daemon.bootstrap([entry("new")], registry_url=registry.url)
    daemon.start()
    assert sorted(daemon.packages()) == ["kept", "new"]
    daemon.wait_status("new", "running")
    assert (NEW / "blob").read_bytes() == registry.blob
    assert not STAGING.exists()


@pytest.fixture
def machine(daemon, registry):
    """A machine with one package, about to receive a second one of 30 MB."""
    preload(daemon, "kept", SLEEPER)
    registry.blob = os.urandom(1 << 20) * 30
    registry.files = {"run": SLEEPER, "blob": registry.blob}
    daemon.bootstrap([entry("new")], registry_url=registry.url)
    return daemon


class StallingServer:
    """Sends the beginning of an artifact, and then nothing more."""

    def __init__(self, port, data):
        self.listener = socket.create_server(("127.0.0.1", port))
        self.data = data
        self.held = []
        self.thread = threading.Thread(target=self.serve, daemon=True)
        self.thread.start()

    def serve(self):
        connection, _ = self.listener.accept()
        connection.recv(65536)
        connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n" % len(self.data))
        connection.sendall(self.data[:len(self.data) // 2])
        self.held.append(connection)

    def close(self):
        self.listener.close()
        for connection in self.held:
            connection.close()


def test_in_the_middle_of_a_download(machine, registry):
    artifact = registry.publish("new", files=registry.files)
    server = StallingServer(registry.port, artifact.read_bytes())
    machine.spawn()
    partial = DOWNLOADS / f"new-1.0.0-{ARCH}.tar.gz.tmp"
    wait_until(lambda: partial.exists() and partial.stat().st_size > 1 << 20, "the download is under way")
    assert not partial.with_suffix("").exists()
    machine.kill()
    end_orphans(DOWNLOADS)
    server.close()
    registry.serve()
    machine.spawn()
    machine.wait_ready()
    kill_and_check(machine, registry)


def test_in_the_middle_of_an_unpack(machine, registry):
    registry.publish("new", files=registry.files)
    registry.serve()
    machine.spawn()
    wait_until(lambda: STAGING.is_dir() and any(STAGING.iterdir()), "the unpacking is under way")
    kill_and_check(machine, registry)


@pytest.mark.parametrize("seed", range(6))
def test_at_some_moment_of_an_install(machine, registry, seed):
    registry.publish("new", files=registry.files)
    registry.serve()
    machine.spawn()
    time.sleep(random.Random(seed).uniform(0.02, 0.7))
    kill_and_check(machine, registry)


def test_in_the_middle_of_an_install_script(machine, registry):
    marker = APP_DIR / "script-runs"
    gate = APP_DIR / "pass"
    registry.publish("new", files={**registry.files, "install.sh":
                                   f"[ -e {gate} ] && exit 0\n: >{marker}\nexec sleep 1000\n"})
    registry.serve()
    machine.spawn()
    wait_until(marker.exists, "install.sh is at work")
    assert not NEW.exists()
    gate.touch()
    kill_and_check(machine, registry)


def test_in_the_middle_of_saving_the_registry(machine):
    """The daemon is killed while it saves at full speed; each time the file is whole and holds an
    acknowledged state, or the one being written."""
    machine.bootstrap([])
    generator = random.Random(7)
    sent = acknowledged = 0
    for _ in range(25):
        machine.start()
        stop_at = time.monotonic() + generator.uniform(0.01, 0.15)
        killer = threading.Timer(stop_at - time.monotonic(), lambda: os.kill(machine.pid, signal.SIGKILL))
        killer.start()
        try:
            while True:
                sent += 1
                padding = "x" * generator.randrange(20000)
                answer = machine.post("/api/packages/kept/launch-args", {"args": [str(sent), padding]})
                assert answer.status == 200
                acknowledged = sent
        except OSError:
            pass
        except Exception as error:  # http.client's own, for an answer cut short
            assert type(error).__module__ == "http.client", error
        killer.join()
        machine.kill()
        kept, = machine.registry_file()
        assert kept["name"] == "kept" and kept["version"] == "1.0.0"
        assert int(kept["launch_args"][0]) in (acknowledged, sent)
        sent = acknowledged = int(kept["launch_args"][0])
    assert acknowledged > 25
