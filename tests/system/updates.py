"""Updates of packages, as an operator asks for them and looks at them."""
from daemon import DOWNLOADS, STORE
from preloaded import install_path
from programs import wait_until
from registry import ARCH


def start_with_one(daemon, registry):
    """Starts the daemon beside the registry, and waits until its package "one" runs."""
    registry.serve()
    daemon.configure(registry_url=registry.url)
    daemon.start()
    daemon.wait_status("one", "running")
    return daemon


def update(daemon, name, version, **fields):
    answer = daemon.post(f"/api/packages/{name}/update", {"version": version, "arch": ARCH, **fields})
    assert (answer.status, answer.text) == (200, '{"ok":true}')


def status_of(daemon, name):
    answer = daemon.get(f"/api/packages/{name}/update-status")
    assert answer.status == 200
    return answer.json()


def wait_phase(daemon, name, phase):
    def reached():
        status = status_of(daemon, name)
        assert status["phase"] != "error" or phase == "error", status
        return status if status["phase"] == phase else None
    return wait_until(reached, f"the update of {name} is in phase {phase!r}")


def expect_whole(daemon, name, versions, blobs=None):
    """One of the versions is installed with all its files and runs, and nothing is left over."""
    daemon.wait_status(name, "running")
    version = daemon.packages()[name]["version"]
    assert version in versions
    saved, = [item for item in daemon.registry_file() if item["name"] == name]
    assert (saved["version"], saved["install_path"]) == (version, str(install_path(name, version)))
    assert not saved["administratively_stopped"]
    assert (install_path(name, version) / "run").is_file()
    if blobs:
        assert (install_path(name, version) / "blob").read_bytes() == blobs[version]
    assert not [path for path in STORE.rglob("*.staging")]
    assert not [path for path in DOWNLOADS.iterdir() if path.suffix == ".tmp"]
    return version
