"""A store of five packages, put there by hand, that a daemon is to leave whole."""
import json
import shutil

from daemon import STORE
from preloaded import entry_text, put_into_store, write_registry
from registry import SLEEPER

SLOW_SCRIPT = "#!/bin/sh\n: >$STARTED\nexec sleep 1000\n"
NAMES = ["kept-1", "kept-2", "restarted", "changed", "leaving"]


def folder_of(name):
    return STORE / "store" / name / "1"


def fill_store():
    """Five packages that nobody starts unasked; one of them takes its time to be uninstalled."""
    shutil.rmtree(STORE, ignore_errors=True)
    for name in NAMES:
        folder = put_into_store(name, "1", SLEEPER)
        (folder / "blob").write_bytes(bytes(1 << 20))
    script = folder_of("leaving") / "uninstall.sh"
    script.write_text(SLOW_SCRIPT)
    script.chmod(0o755)
    write_registry(*(entry_text(name, "1", str(folder_of(name)), stopped=True) for name in NAMES))


def check_store():
    """What is listed is there, and is all there."""
    listed = json.loads((STORE / "registry.json").read_text())
    names = [item["name"] for item in listed]
    assert sorted(names) == sorted(NAMES) or sorted(names) == sorted(set(NAMES) - {"leaving"})
    for item in listed:
        folder = folder_of(item["name"])
        assert item["install_path"] == str(folder) and item["version"] == "1"
        assert (folder / "run").read_text() == SLEEPER and (folder / "blob").stat().st_size == 1 << 20
