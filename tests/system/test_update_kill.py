"""The daemon ends in the middle of an update: the package is the previous version or the new one."""
import os
import pathlib
import random
import time

import pytest
from daemon import APP_DIR, DOWNLOADS, STOPPED_BY_SIGTERM, STORE
from held_registry import HeldRegistry
from preloaded import install_path, preload
from processes import busy_below, end_orphans
from programs import wait_until
from registry import ARCH, SLEEPER
from updates import expect_whole, start_with_one, update, wait_phase

PARTIAL = DOWNLOADS / f"one-2.0.0-{ARCH}.tar.gz.tmp"


@pytest.fixture
def machine(daemon, registry):
    """A machine where "one" runs, 8 MB of it; version 2.0.0 is as large."""
    folder = preload(daemon, "one", SLEEPER)
    daemon.blobs = {version: os.urandom(8 << 20) for version in ("1.0.0", "2.0.0")}
    (folder / "blob").write_bytes(daemon.blobs["1.0.0"])
    registry.publish("one", "2.0.0", files={"run": SLEEPER, "blob": daemon.blobs["2.0.0"]})
    return start_with_one(daemon, registry)


def check_and_complete(daemon, registry, to):
    """What is on the disk is one version, whole; it runs again, and the update can be completed."""
    saved, = daemon.registry_file()
    version = saved["version"]
    assert (pathlib.Path(saved["install_path"]) / "blob").read_bytes() == daemon.blobs[version]
    daemon.configure(registry_url=registry.url)
    daemon.start()
    daemon.wait_status("one", "running")
    assert daemon.packages()["one"]["version"] == version
    assert daemon.get("/api/packages/one/update-status").text == '{"phase":""}'
    update(daemon, "one", to)
    wait_phase(daemon, "one", "done")
    expect_whole(daemon, "one", [to], daemon.blobs)
    return version


def stop_and_check(daemon, registry, to="2.0.0"):
    assert daemon.stop() == STOPPED_BY_SIGTERM
    wait_until(lambda: not busy_below(APP_DIR), "nothing is at work any more")
    assert not PARTIAL.exists() and not list(STORE.rglob("*.staging"))
    return check_and_complete(daemon, registry, to)


def kill_and_check(daemon, registry, to="2.0.0"):
    daemon.kill()
    end_orphans(APP_DIR)
    return check_and_complete(daemon, registry, to)


@pytest.mark.parametrize("end", [stop_and_check, kill_and_check])
def test_in_the_middle_of_the_download(machine, registry, end):
    server = HeldRegistry(registry.folder, ["2.0.0"])
    try:
        machine.post("/api/self/config", {"name": "registry_url", "value": server.url})
        update(machine, "one", "2.0.0")
        wait_until(PARTIAL.exists, "the download is under way")
        # One that waits for the first to free the destination must not hold the end up, either.
        update(machine, "one", "2.0.0")
        assert end(machine, registry) == "1.0.0"
    finally:
        server.stop()


@pytest.mark.parametrize("end", [stop_and_check, kill_and_check])
def test_in_the_middle_of_the_install_script(machine, registry, end):
    gate, waits = APP_DIR / "pass", APP_DIR / "script-waits"
    machine.blobs["2.0.1"] = b"small"
    registry.publish("one", "2.0.1", files={"run": SLEEPER, "blob": b"small", "install.sh":
                                            f": >{waits}\n[ -e {gate} ] || exec sleep 1000\n"})
    update(machine, "one", "2.0.1")
    wait_until(waits.exists, "install.sh is at work")
    assert not install_path("one", "2.0.1").exists()
    gate.touch()
    assert end(machine, registry, "2.0.1") == "1.0.0"


@pytest.mark.parametrize("end", [stop_and_check, kill_and_check])
@pytest.mark.parametrize("seed", range(8))
def test_at_some_moment(machine, registry, end, seed):
    update(machine, "one", "2.0.0")
    time.sleep(random.Random(seed).uniform(0, 0.25))
    assert end(machine, registry) in ("1.0.0", "2.0.0")
