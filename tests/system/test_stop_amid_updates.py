"""A stop signal while packages change their versions: each is whole, in one version or the other."""
import json
import os
import pathlib

from daemon import CRASHES, SESSIONS, STORE
from processes import end_instances
from programs import wait_until
from registry import ARCH, entry, SLEEPER
from sessions import check_stop_line


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
        end_instances("sleep")
    assert not CRASHES.read_text()
