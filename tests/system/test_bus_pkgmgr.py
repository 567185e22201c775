"""The daemon's packages over the bus, asked by a node that has nothing of the program."""
import json
import shutil
import threading

import pytest

import bus_wire
from bus_payloads import DiscoveryResponse, Envelope, HostedModule, Identity, TopicDescription
from bus_peer import BusPeer
from bus_pkgmgr import OK, PackageAsker
from bus_wire import BROADCAST
from daemon import CRASHES, DOWNLOADS, STOPPED_BY_SIGTERM
from held_registry import HeldRegistry
from preloaded import install_path, preload
from processes import instances, is_alive
from programs import wait_until
from registry import ARCH, SLEEPER, entry

FETCH = "pkgmgr.fetch_install"
DESCRIPTIONS = {
    "pkgmgr.list_installed": "Lists every installed package - name/version/arch/status",
    "pkgmgr.manifest": "Returns the installed manifest for one package by name",
    "pkgmgr.start": "Starts an installed package's process if it isn't already running",
    "pkgmgr.stop": "Stops an installed package's process and marks it administratively stopped - it will NOT be "
                   "auto-respawned until start()/restart() is called again",
    "pkgmgr.restart": "Stops then starts an installed package",
    "pkgmgr.uninstall": "Stops (if running) and removes an installed package's files + registry entry",
    "pkgmgr.install": "Installs a package from an already-downloaded, self-describing local artifact tarball (embeds "
                      "its own manifest.json - see manifest-schema) - fetching from a registry server is the caller's "
                      "own concern, not this topic's",
    "pkgmgr.set_launch_args": "Replaces a package's extra argv entries (after its own executable path) - takes effect "
                              "on the next start/restart",
    FETCH: "Downloads a package's manifest+artifact from the configured mirelserver registry, then installs it - the "
           "one thing PackageManagerService's own topics deliberately don't do (they only ever touch already-local "
           "files)",
}
# Tells its arguments, one to a line, and its process.
TELLING = '#!/bin/sh\nprintf "%s\\n" $$ "$@" > told.new && mv told.new told\nexec sleep 100000\n'


@pytest.fixture(autouse=True)
def ends_well(daemon):
    yield
    assert daemon.process is None or daemon.stop() == STOPPED_BY_SIGTERM
    assert not CRASHES.exists() or not CRASHES.read_text()


@pytest.fixture
def asker(peer):
    return PackageAsker(peer)


@pytest.fixture
def held(registry, stack):
    """A registry server that stops in the middle of version 1.0.0."""
    registry.publish("held")
    registry.publish("held", "2.0.0")
    server = HeldRegistry(registry.folder, {"1.0.0"})
    stack.callback(server.stop)
    return server


def told(folder):
    """What the program of TELLING tells next: its process and its arguments."""
    path = folder / "told"
    wait_until(path.exists, "the program tells its arguments")
    pid, *arguments = path.read_text().splitlines()
    path.unlink()
    return int(pid), arguments


def download_of(name, version="1.0.0"):
    return DOWNLOADS / f"{name}-{version}-{ARCH}.tar.gz"


def wait_download(name):
    wait_until(download_of(name).with_suffix(".gz.tmp").exists, "its first bytes have come")


# Where they are, and what they say


def test_its_nodes_and_topics_are_seen_in_discovery(daemon, asker):
    daemon.start()
    node = asker.look()
    published = {topic.name: topic for topic in node.publications}
    for name, description in DESCRIPTIONS.items():
        assert published[name] == TopicDescription(name, description, kind=1)
    modules = {module.name: module for module in node.modules}
    assert sorted(modules["pkgmgr"].topics) == sorted(set(DESCRIPTIONS) - {FETCH})
    assert modules["registry"].topics == [FETCH]
    for name, preferred in (("pkgmgr", 1200), ("registry", 2200)):
        others = {module.address for module in node.modules if module.name != name}
        assert (modules[name].address == preferred) != (preferred in others)


def test_they_give_way_to_others_and_are_found_where_they_were_before(daemon, peer, asker):
    taken = DiscoveryResponse(Identity("host", "a test", 1))
    taken.modules = [HostedModule(1200, "guest", []), HostedModule(2200, "guest", [])]
    found = []
    with BusPeer(3000) as host:
        host.answer_claims(taken)
        for _ in range(2):
            daemon.start()
            modules = asker.modules()
            found.append([modules[name].address for name in ("pkgmgr", "registry")])
            assert not {1200, 2200} & set(found[-1])
            asker.reply(asker.send("pkgmgr.list_installed", dest=modules["pkgmgr"].address))
            daemon.wait_log("[bus] WARNING: local-client address 1200 already in use on this bus (probe 1/8)")
            daemon.wait_log("[bus] WARNING: local-client address 2200 already in use on this bus (probe 1/8)")
            assert daemon.stop() == STOPPED_BY_SIGTERM
    assert found[0] == found[1]


def test_requests_reach_them_by_address_and_by_broadcast(daemon, asker):
    daemon.start()
    address = asker.modules()["pkgmgr"].address
    for dest in (address, BROADCAST):
        number = asker.send("pkgmgr.list_installed", dest=dest)
        assert asker.reply(number) == (OK, [])
        assert [message.origin[1] for message in asker.replies(number)] == [address]


def test_they_are_there_while_the_bootstrap_list_is_applied_and_fetch_after_it(daemon, asker, held):
    daemon.bootstrap([entry("held")], registry_url=held.url)
    daemon.spawn()
    asker.wait_module("pkgmgr")
    wait_download("held")
    assert asker.packages() == {}
    assert "registry" not in asker.modules()
    held.release()
    asker.wait_module("registry")
    daemon.wait_ready()
    assert asker.packages()["held"]["version"] == "1.0.0"


# Packages on the machine


def test_a_local_artifact_is_installed_listed_and_removed(daemon, asker, registry):
    daemon.start()
    artifact = registry.build({"run": SLEEPER})
    asker.do("pkgmgr.install", name="one", version="1.0.0", arch="some", artifact_path=str(artifact))
    assert asker.packages() == daemon.packages()
    package = asker.packages()["one"]
    assert package.pop("started_at") > 0
    assert package == {"name": "one", "version": "1.0.0", "arch": "some", "status": "running", "launch_args": []}
    fields, manifest = asker.ask("pkgmgr.manifest", name="one")
    assert (fields, manifest) == (OK, json.loads((install_path("one") / "manifest.json").read_text()))
    asker.do("pkgmgr.uninstall", name="one")
    assert asker.packages() == {} and not install_path("one").exists()


def test_a_package_that_is_not_to_be_started_is_started_by_the_supervisor(daemon, asker, registry):
    daemon.start()
    artifact = str(registry.build({"run": SLEEPER}))
    asker.do("pkgmgr.install", name="one", version="1", artifact_path=artifact, start_after_install="0")
    asker.wait_status("one", "running")


def test_a_long_manifest_comes_whole(daemon, asker, registry):
    daemon.start()
    artifact = registry.build({"run": SLEEPER}, description="long " * 20_000)
    asker.do("pkgmgr.install", name="one", version="1", artifact_path=str(artifact))
    assert asker.ask("pkgmgr.manifest", name="one")[1]["description"] == "long " * 20_000


def test_a_package_is_stopped_started_and_restarted(daemon, asker):
    folder = preload(daemon, "one", TELLING)
    daemon.start()
    first, _ = told(folder)
    asker.do("pkgmgr.stop", name="one")
    assert asker.packages()["one"]["status"] == "stopped" and not is_alive(first)
    asker.do("pkgmgr.start", name="one")
    second, _ = told(folder)
    asker.do("pkgmgr.start", name="one")
    asker.do("pkgmgr.restart", name="one")
    third, _ = told(folder)
    assert not is_alive(second) and is_alive(third)
    assert asker.packages()["one"]["status"] == "running"


def test_launch_arguments_hold_from_the_next_start_and_are_cleared_without_any(daemon, asker):
    folder = preload(daemon, "one", TELLING, args=["old"])
    daemon.start()
    assert told(folder)[1] == ["old"]
    arguments = ["-x", "it's", "two words", ""]
    asker.do("pkgmgr.set_launch_args", json.dumps(arguments).encode(), name="one")
    assert asker.packages()["one"]["launch_args"] == arguments
    asker.do("pkgmgr.restart", name="one")
    assert told(folder)[1] == arguments
    asker.do("pkgmgr.set_launch_args", name="one")
    asker.do("pkgmgr.restart", name="one")
    assert told(folder)[1] == []


@pytest.mark.parametrize("payload", [Envelope({"name": "one"}, b'["cut').encode(), b"no envelope"])
def test_what_is_malformed_is_not_answered_and_warned_of(daemon, asker, payload):
    preload(daemon, "one", SLEEPER, args=["kept"])
    daemon.start()
    number = next(PackageAsker.numbers)
    asker.send_raw(number, "pkgmgr.set_launch_args", payload)
    # Answered behind it, by the same node.
    assert asker.packages()["one"]["launch_args"] == ["kept"]
    assert not asker.replies(number)
    daemon.wait_log("[bus] REQUEST handler for 'pkgmgr.set_launch_args' threw on this payload (malformed/unexpected?): ")
    assert daemon.log().count(" - dropping, requester will see a timeout") == 1


def test_failures_are_replies_with_the_operations_words(daemon, asker):
    daemon.start()
    for operation in ("manifest", "stop", "uninstall", "set_launch_args", "start"):
        asker.fails(f"pkgmgr.{operation}", f'{operation}: "no\'ne" is not installed', name="no'ne")
    asker.fails("pkgmgr.restart", 'stop: "none" is not installed', name="none")
    asker.fails("pkgmgr.manifest", 'manifest: "" is not installed')
    asker.fails("pkgmgr.install", "install: name/version required")
    asker.fails("pkgmgr.install", "install: tar extraction failed", name="a", version="1", artifact_path="/nowhere")
    assert asker.packages() == {}


# Packages from the registry


def test_packages_are_fetched_with_and_without_a_channel(daemon, asker, registry):
    registry.publish("one")
    registry.publish("two", "2.5.0", channel="beta")
    registry.serve()
    daemon.configure(registry_url=registry.url)
    daemon.start()
    asker.do(FETCH, name="one", version="1.0.0", arch=ARCH)
    asker.do(FETCH, name="two", version="2.5.0", arch=ARCH, channel="beta", start_after_install="0")
    packages = asker.packages()
    assert {name: package["version"] for name, package in packages.items()} == {"one": "1.0.0", "two": "2.5.0"}
    assert packages["one"]["status"] == "running"
    asker.wait_status("two", "running")
    assert download_of("one").is_file() and download_of("two", "2.5.0").is_file()


def test_what_cannot_be_fetched_is_an_error_with_its_address(daemon, asker, registry):
    registry.publish("two", channel="beta")
    registry.serve()
    daemon.configure(registry_url=registry.url)
    daemon.start()

    def failure(channel):
        return f"fetch_install: download failed: {registry.url}/api/packages/two/{channel}/1.0.0/{ARCH}/artifact"
    asker.fails(FETCH, failure("main"), name="two", version="1.0.0", arch=ARCH)
    asker.fails(FETCH, failure("none"), name="two", version="1.0.0", arch=ARCH, channel="none")
    registry.stop()
    asker.fails(FETCH, failure("beta"), name="two", version="1.0.0", arch=ARCH, channel="beta")
    assert asker.packages() == {} and not list(DOWNLOADS.iterdir())


def test_what_was_fetched_and_is_no_package_is_refused_by_the_install(daemon, asker, registry):
    registry.publish("one", files={"run": SLEEPER, "install.sh": "exit 1"})
    registry.serve()
    daemon.configure(registry_url=registry.url)
    daemon.start()
    asker.fails(FETCH, "install: install.sh exited non-zero - rolled back, nothing installed",
                name="one", version="1.0.0", arch=ARCH)
    assert asker.packages() == {}


def test_a_slow_download_holds_up_nothing_but_the_next_one(daemon, asker, held):
    preload(daemon, "here", SLEEPER)
    daemon.configure(registry_url=held.url)
    daemon.start()
    slow = asker.send(FETCH, name="held", version="1.0.0", arch=ARCH)
    wait_download("held")
    behind = asker.send(FETCH, name="held", version="2.0.0", arch=ARCH)
    asker.do("pkgmgr.restart", name="here")
    assert list(asker.packages()) == ["here"]
    assert not asker.replies(slow) and not asker.replies(behind)
    held.release()
    assert asker.reply(slow) == asker.reply(behind) == (OK, None)
    assert asker.packages()["held"]["version"] == "2.0.0"


# Its end


def test_a_stop_ends_the_download_under_way(daemon, asker, held):
    daemon.configure(registry_url=held.url)
    daemon.start()
    number = asker.send(FETCH, name="held", version="1.0.0", arch=ARCH)
    asker.send(FETCH, name="held", version="1.0.0", arch=ARCH)
    wait_download("held")
    assert daemon.stop() == STOPPED_BY_SIGTERM
    assert not instances(shutil.which("curl"))
    assert not download_of("held").exists()
    failure = f"fetch_install: download failed: {held.url}/api/packages/held/main/1.0.0/{ARCH}/artifact"
    assert asker.reply(number) == ({"status": "error", "error": failure}, None)


def test_a_stop_ends_the_install_under_way(daemon, asker, registry, tmp_path):
    daemon.start()
    started = tmp_path / "started"
    artifact = registry.build({"run": SLEEPER, "install.sh": f": > '{started}'; exec sleep 100000"})
    number = asker.send("pkgmgr.install", name="one", version="1", artifact_path=str(artifact))
    wait_until(started.exists, "the script is at work")
    assert daemon.stop() == STOPPED_BY_SIGTERM
    assert not install_path("one", "1").with_name("1.staging").exists()
    assert asker.reply(number)[0]["status"] == "error"


def test_stops_amid_requests_leave_all_in_order(daemon, asker, peer):
    preload(daemon, "one", SLEEPER)
    is_over = threading.Event()

    def ask_on():
        while not is_over.wait(0.01):
            asker.send("pkgmgr.list_installed")
            asker.send("pkgmgr.set_launch_args", b'["a","b"]', name="one")
            asker.send("pkgmgr.restart", name="one")
    asking = threading.Thread(target=ask_on)
    asking.start()
    try:
        for _ in range(6):
            daemon.start()
            for _ in range(5):
                peer.receive(lambda message: message.type == bus_wire.RESPONSE)
            assert daemon.stop() == STOPPED_BY_SIGTERM
            [package] = daemon.registry_file()
            assert package["launch_args"] == ["a", "b"]
    finally:
        is_over.set()
        asking.join()


def test_the_image_that_follows_a_crash_answers_too(daemon, asker):
    preload(daemon, "one", SLEEPER)
    daemon.start()
    assert list(asker.packages()) == ["one"]
    daemon.crash()
    assert list(asker.packages()) == ["one"]
    CRASHES.unlink()
