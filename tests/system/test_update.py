"""Updates of packages over the REST API: phases, failures, updates at the same time."""
import os
import pathlib

import pytest
from daemon import APP_DIR, DOWNLOADS
from held_registry import HeldRegistry
from preloaded import install_path, preload
from programs import wait_until
from registry import ARCH, SLEEPER, artifact_of, replace_artifact
from updates import expect_whole, start_with_one, status_of, update, wait_phase

REQUIRED = '{"error":"\\"version\\" and \\"arch\\" are required"}'


@pytest.fixture
def machine(daemon, registry):
    """A machine where version 1.0.0 of "one" runs; the registry has version 2.0.0."""
    preload(daemon, "one", SLEEPER, args=["old"])
    registry.publish("one", "2.0.0")
    return start_with_one(daemon, registry)


@pytest.fixture
def hold(registry, daemon):
    """Puts a registry server in the daemon's configuration that holds the given versions."""
    servers = []

    def make(*versions):
        servers.append(HeldRegistry(registry.folder, versions))
        daemon.post("/api/self/config", {"name": "registry_url", "value": servers[-1].url})
        return servers[-1]
    yield make
    for server in servers:
        server.stop()


@pytest.mark.parametrize("body", [{"version": "1.0.0"}, {"arch": ARCH}, {"version": "", "arch": ARCH}, "", "not json",
                                  {"version": 1, "arch": ARCH}, {"version": "1.0.0", "arch": None}, []])
def test_an_update_needs_a_version_and_an_arch(daemon, body):
    daemon.start()
    answer = daemon.post("/api/packages/x/update", body)
    assert (answer.status, answer.text) == (400, REQUIRED)
    answer = daemon.get("/api/packages/x/update-status")
    assert (answer.status, answer.text) == (200, '{"phase":""}')


def test_the_status_follows_the_update_step_by_step(machine, registry, hold):
    gate, waits = APP_DIR / "pass", APP_DIR / "script-waits"
    registry.publish("one", "3.0.0", files={"run": SLEEPER, "install.sh":
                                            f": >{waits}\nuntil [ -e {gate} ]; do sleep 0.01; done\n"})
    server = hold("3.0.0")
    before, = machine.children()
    update(machine, "one", "3.0.0")
    assert machine.get("/api/packages/one/update-status").text == (
        '{"error":"","phase":"downloading","target_version":"3.0.0"}')
    partial = DOWNLOADS / f"one-3.0.0-{ARCH}.tar.gz.tmp"
    wait_until(partial.exists, "the download is under way")
    assert status_of(machine, "one")["phase"] == "downloading"
    server.release()
    wait_until(waits.exists, "install.sh is at work")
    assert status_of(machine, "one") == {"phase": "installing", "error": "", "target_version": "3.0.0"}
    os.kill(before, 0)  # the previous version runs on until the files are in place
    gate.touch()
    assert wait_phase(machine, "one", "done") == {"phase": "done", "error": "", "target_version": "3.0.0"}
    assert machine.packages()["one"]["version"] == "3.0.0"
    assert machine.get("/api/packages/other/update-status").text == '{"phase":""}'


def test_the_phases_come_in_their_order(machine, registry):
    order = ["downloading", "installing", "starting", "done"]
    seen = set()
    registry.publish("one", "3.0.0", files={"run": SLEEPER, "blob": os.urandom(20 << 20)})
    for _ in range(20):
        update(machine, "one", "3.0.0")
        phases = []
        while not phases or phases[-1] not in ("done", "error"):
            status = status_of(machine, "one")
            assert status["error"] == "" and status["target_version"] == "3.0.0"
            phases.append(status["phase"])
        assert phases == sorted(phases, key=order.index) and phases[0] == "downloading"
        seen |= set(phases)
        if seen == set(order):
            break
    assert seen == set(order)


def test_an_update_replaces_and_restarts_what_runs(machine):
    before, = machine.children()
    update(machine, "one", "2.0.0")
    wait_phase(machine, "one", "done")
    assert expect_whole(machine, "one", ["2.0.0"]) == "2.0.0"
    after, = machine.children()
    assert after != before and os.readlink(f"/proc/{after}/cwd") == str(install_path("one", "2.0.0"))
    with pytest.raises(ProcessLookupError):
        os.kill(before, 0)
    assert machine.packages()["one"]["launch_args"] == []
    assert install_path("one").is_dir()


def test_an_update_brings_a_package_that_was_not_there_and_one_that_was_stopped(machine, registry):
    registry.publish("two", "1.0.0", channel="beta")
    update(machine, "two", "1.0.0", channel="beta")
    wait_phase(machine, "two", "done")
    assert machine.post("/api/packages/one/stop").status == 200
    update(machine, "one", "2.0.0", channel="")
    wait_phase(machine, "one", "done")
    expect_whole(machine, "one", ["2.0.0"])
    expect_whole(machine, "two", ["1.0.0"])


def expect_error(daemon, name, version, error):
    update(daemon, name, version)
    assert wait_phase(daemon, name, "error") == {"phase": "error", "error": error, "target_version": version}


def test_an_unknown_version_ends_in_error(machine, registry):
    before = machine.children()
    url = f"{registry.url}/api/packages/one/main/9.9.9/{ARCH}/artifact"
    expect_error(machine, "one", "9.9.9", f"download failed: {url}")
    assert machine.children() == before and machine.packages()["one"]["version"] == "1.0.0"


def test_an_update_in_error_can_be_followed_by_a_good_one(machine, registry):
    registry.stop()
    url = f"{registry.url}/api/packages/one/main/2.0.0/{ARCH}/artifact"
    expect_error(machine, "one", "2.0.0", f"download failed: {url}")
    registry.serve()
    update(machine, "one", "2.0.0")
    wait_phase(machine, "one", "done")


@pytest.mark.parametrize("field", ["version", "arch", "channel"])
@pytest.mark.parametrize("value", ["$(touch /tmp/mirelclient/canary)", "'; touch /tmp/mirelclient/canary; '", "../../..", "-o",
                                   "a b\\nc", "%s\"\\\\"])
def test_values_are_no_shell_words_and_no_paths(machine, field, value):
    pathlib.Path("/tmp/mirelclient").mkdir(exist_ok=True)
    update(machine, "one", **{"version": "7.7.7", field: value})
    assert wait_phase(machine, "one", "error")["error"].startswith("download failed: ")
    assert not os.listdir("/tmp/mirelclient") and not os.listdir(DOWNLOADS)
    expect_whole(machine, "one", ["1.0.0"])


@pytest.mark.parametrize("make, error", [
    (lambda path: b"this is no archive", "tar extraction failed"),
    (lambda path: artifact_of(path, "{}", members=["payload.tar"]), "archive has no manifest.json"),
    (lambda path: artifact_of(path, '{"executable":"run","sha256":"%s"}' % ("0" * 64)),
     "checksum mismatch - refusing to install a corrupt/tampered artifact"),
    (lambda path: artifact_of(path, '{"executable":"run"}', {"run": SLEEPER, "install.sh": "exit 3"}),
     "install.sh exited non-zero - rolled back, nothing installed")], ids=["text", "no-manifest", "sum", "script"])
def test_a_broken_artifact_ends_in_error_and_the_old_version_runs_on(machine, registry, tmp_path, make, error):
    replace_artifact(registry, "one", make(tmp_path), "2.0.0")
    before = machine.children()
    expect_error(machine, "one", "2.0.0", f"install: {error}")
    assert machine.children() == before
    expect_whole(machine, "one", ["1.0.0"])


def test_a_package_without_an_executable_is_installed_and_in_error(machine, registry, tmp_path):
    replace_artifact(registry, "one", artifact_of(tmp_path, '{"sha256":"SHA256"}'), "2.0.0")
    expect_error(machine, "one", "2.0.0", 'start: manifest has no "executable" field')
    assert machine.packages()["one"]["version"] == "2.0.0"


def test_a_package_removed_during_its_update_comes_with_it(machine, hold):
    server = hold("2.0.0")
    update(machine, "one", "2.0.0")
    wait_until((DOWNLOADS / f"one-2.0.0-{ARCH}.tar.gz.tmp").exists, "the download is under way")
    assert machine.post("/api/packages/one/uninstall").status == 200
    server.release()
    wait_phase(machine, "one", "done")
    expect_whole(machine, "one", ["2.0.0"])


def test_an_update_while_another_one_is_going(machine, registry, hold):
    registry.publish("one", "3.0.0")
    server = hold("2.0.0")
    update(machine, "one", "2.0.0")
    wait_until((DOWNLOADS / f"one-2.0.0-{ARCH}.tar.gz.tmp").exists, "the download is under way")
    update(machine, "one", "3.0.0")
    assert wait_phase(machine, "one", "done")["target_version"] == "3.0.0"
    assert machine.packages()["one"]["version"] == "3.0.0"
    server.release()
    wait_until(lambda: status_of(machine, "one") == {"phase": "done", "error": "", "target_version": "2.0.0"},
               "the first update is done, too")
    assert expect_whole(machine, "one", ["2.0.0"]) == "2.0.0"


@pytest.mark.parametrize("versions", [["2.0.0", "3.0.0"], ["3.0.0", "3.0.0"], ["2.0.0", "3.0.0", "3.0.0", "2.0.0"]])
def test_updates_at_the_same_time_end_whole(machine, registry, versions):
    installs = APP_DIR / "installs"
    blobs = {"2.0.0": os.urandom(3 << 20), "3.0.0": os.urandom(2 << 20)}
    for version, blob in blobs.items():
        registry.publish("two", version, files={"run": SLEEPER, "blob": blob, "install.sh": f"echo >>{installs}\n"})

    def all_have_ended(count):
        # A thread has its name only once it runs: each of them does when its install has begun.
        return (installs.exists() and len(installs.read_text()) == count and updates_under_way(machine) == 0)

    for round_number in range(1, 6):
        for version in versions:
            update(machine, "two", version)
        wait_until(lambda: all_have_ended(round_number * len(versions)), "all updates have ended")
        assert status_of(machine, "two")["phase"] == "done"
        expect_whole(machine, "two", versions, blobs)


def updates_under_way(daemon):
    """The update threads that the daemon has."""
    names = []
    for task in os.listdir(f"/proc/{daemon.pid}/task"):
        try:
            names.append(open(f"/proc/{daemon.pid}/task/{task}/comm").read().strip())
        except OSError:
            pass  # it has just ended
    return names.count("package-update")
