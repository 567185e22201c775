"""Fetching, checking and installing real packages on a fresh machine."""
import os
import subprocess

import pytest
from daemon import DAEMON_ROOT, DOWNLOADS, STORE
from preloaded import install_path, preload
from programs import wait_until
from registry import ARCH, SLEEPER, artifact_of, entry, replace_artifact


def test_a_fresh_machine_receives_what_its_list_names(daemon, registry):
    registry.publish("one")
    registry.publish("two", "2.5.0", channel="beta")
    registry.serve()
    daemon.bootstrap([entry("one", channel=""), entry("two", "2.5.0", channel="beta")],
                     registry_url=registry.url)
    daemon.start()
    packages = daemon.packages()
    assert {name: item["version"] for name, item in packages.items()} == {"one": "1.0.0", "two": "2.5.0"}
    assert all(item["arch"] == ARCH and item["status"] == "running" for item in packages.values())
    assert f"bootstrap: installing one 1.0.0 ({ARCH})" in daemon.log()
    assert (DOWNLOADS / f"one-1.0.0-{ARCH}.tar.gz").is_file()
    assert (install_path("one") / "manifest.json").is_file()
    assert (install_path("one") / "payload.tar").is_file()
    assert not install_path("one").with_name("1.0.0.staging").exists()
    assert [item["name"] for item in daemon.registry_file()] == ["one", "two"]
    assert set(daemon.registry_file()[0]) == {"administratively_stopped", "arch", "install_path",
                                              "launch_args", "manifest", "name", "version"}


def test_the_list_never_upgrades(daemon, registry):
    preload(daemon, "one", SLEEPER, version="0.1")
    registry.publish("one")
    registry.serve()
    daemon.bootstrap([entry("one")], registry_url=registry.url)
    daemon.start()
    assert daemon.packages()["one"]["version"] == "0.1"
    assert "bootstrap" not in daemon.log()


def test_one_failure_does_not_stop_the_list(daemon, registry):
    registry.publish("good")
    registry.serve()
    daemon.bootstrap([{"name": "x"}, {"name": "", "version": "1", "arch": "a"}, 5, entry("absent"),
                      entry("with blank"), entry("sub/folder"), entry("good")], registry_url=registry.url)
    daemon.start()
    log = daemon.log()
    others = sum(map(log.count, ("missing from file", "healed:", "[bus] ")))
    assert log.count("[WARNING]") - others == 3
    assert log.count("bootstrap package list: skipping entry missing name/version/arch") == 3
    for name in ["absent", "with blank", "sub/folder"]:
        url = f"{registry.url}/api/packages/{name}/main/1.0.0/{ARCH}/artifact"
        assert f"bootstrap: failed to install {name}: fetch_install: download failed: {url}" in log
    assert list(daemon.packages()) == ["good"]
    assert sorted(path.name for path in DOWNLOADS.iterdir()) == [f"good-1.0.0-{ARCH}.tar.gz"]


def test_a_missing_list_is_a_warning(daemon):
    daemon.configure(bootstrap_package_list_path="/nowhere/list.json")
    daemon.start()
    assert ("[WARNING]" in daemon.log() and
            "bootstrap_package_list_path is set but couldn't open /nowhere/list.json - skipping" in daemon.log())


@pytest.mark.parametrize("text, why", [("", "unexpected end of input"), ("[1,]", "stod"), ("[} ", "stod"),
                                       ("[] x", "trailing garbage")], ids=["empty", "comma", "brace", "garbage"])
def test_a_broken_list_is_an_error(daemon, text, why):
    daemon.bootstrap(text)
    daemon.start()
    assert "[ERROR]" in daemon.log()
    assert " is not valid JSON: " in daemon.log() and why in daemon.log()


def test_a_list_that_is_no_array_installs_nothing(daemon):
    daemon.bootstrap('{"name":"a","version":"1","arch":"x"}')
    daemon.start()
    assert daemon.packages() == {} and "bootstrap" not in daemon.log()


BAD = {
    "not-gzip": (lambda path: b"this is no archive", "tar extraction failed"),
    "truncated": (lambda path: artifact_of(path, '{"executable":"run"}')[:200], "tar extraction failed"),
    "no-manifest": (lambda path: artifact_of(path, "{}", members=["payload.tar"]), "archive has no manifest.json"),
    "no-payload": (lambda path: artifact_of(path, "{}", members=["manifest.json"]), "archive has no payload.tar"),
    "bad-manifest": (lambda path: artifact_of(path, '{"executable":'),
                     "malformed manifest: tiny_json: unexpected end of input"),
    "deep-manifest": (lambda path: artifact_of(path, "[" * (1 << 20)),
                      "malformed manifest: tiny_json: unexpected end of input"),
    "wrong-sum": (lambda path: artifact_of(path, '{"executable":"run","sha256":"%s"}' % ("0" * 64)),
                  "checksum mismatch - refusing to install a corrupt/tampered artifact"),
    "failing-script": (lambda path: artifact_of(path, '{"executable":"run"}', {"run": SLEEPER, "install.sh": "exit 3"}),
                       "install.sh exited non-zero - rolled back, nothing installed"),
}


@pytest.mark.parametrize("kind", BAD)
def test_a_bad_artifact_is_refused_and_nothing_is_left(daemon, registry, tmp_path, kind):
    make, error = BAD[kind]
    preload(daemon, "kept", SLEEPER)
    registry.publish("bad")
    replace_artifact(registry, "bad", make(tmp_path))
    registry.serve()
    daemon.bootstrap([entry("bad")], registry_url=registry.url)
    daemon.start()
    assert f"bootstrap: failed to install bad: install: {error}" in daemon.log()
    assert list(daemon.packages()) == ["kept"]
    assert list((STORE / "store" / "bad").iterdir()) == []


def test_the_scripts_run_where_and_with_what_they_are_promised(daemon, registry):
    told = DAEMON_ROOT / "told"
    tell = f'echo "$PWD $MIREL_PACKAGE_NAME $MIREL_PACKAGE_VERSION $MIREL_PACKAGE_ARCH $MIREL_INSTALL_PATH $MIREL_PACKAGE_ACTION" >>{told}\n'
    registry.publish("one", files={"run": SLEEPER, "install.sh": tell + f"[ ! -e \"$MIREL_INSTALL_PATH\" ]\n",
                                   "uninstall.sh": tell + "exit 1\n"})
    registry.serve()
    daemon.bootstrap([entry("one")], registry_url=registry.url)
    daemon.start()
    assert daemon.post("/api/packages/one/uninstall").status == 200
    path = install_path("one")
    assert told.read_text().splitlines() == [f"{path}.staging one 1.0.0 {ARCH} {path} install",
                                             f"{path} one 1.0.0 {ARCH} {path} uninstall"]
    assert not path.exists() and path.parent.is_dir() and not daemon.children()


def test_a_package_of_two_hundred_megabytes(daemon, registry):
    blob = os.urandom(1 << 20) * 200
    registry.publish("big", files={"run": SLEEPER, "blob": blob})
    registry.serve()
    daemon.bootstrap([entry("big")], registry_url=registry.url)
    daemon.start()
    daemon.wait_status("big", "running")
    assert (install_path("big") / "blob").stat().st_size == len(blob)
    assert subprocess.run(["cmp", install_path("big") / "blob", "-"], input=blob).returncode == 0
    with open(f"/proc/{daemon.pid}/status") as status:
        peak = next(int(line.split()[1]) for line in status if line.startswith("VmHWM"))
    assert peak < 100 * 1024  # kilobytes: the artifact never stood in memory


def test_a_package_of_ten_thousand_small_files(daemon, registry):
    files = {f"dir-{number % 100}/file {number}": f"content {number}\n" for number in range(10000)}
    registry.publish("many", files={"run": SLEEPER, **files})
    registry.serve()
    daemon.bootstrap([entry("many")], registry_url=registry.url)
    daemon.start()
    daemon.wait_status("many", "running")
    for name, text in files.items():
        assert (install_path("many") / name).read_text() == text


def limited_disk(folder, size):
    folder.mkdir(parents=True, exist_ok=True)
    subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={size}", "small", folder], check=True)


@pytest.fixture
def small_store():
    limited_disk(STORE, "4m")
    yield
    subprocess.run(["umount", "-l", STORE], check=True)


def test_a_full_disk_is_an_error_and_the_old_state(daemon, registry, small_store):
    preload(daemon, "kept", SLEEPER)
    registry.publish("large", files={"run": SLEEPER, "blob": os.urandom(3 << 20)})
    registry.publish("small")
    registry.serve()
    daemon.bootstrap([entry("large"), entry("small")], registry_url=registry.url)
    daemon.start()
    log = daemon.log()
    assert "bootstrap: failed to install large: install: payload.tar extraction failed" in log
    assert sorted(daemon.packages()) == ["kept", "small"]
    assert list((STORE / "store" / "large").iterdir()) == []
    daemon.wait_status("kept", "running")


def test_a_save_on_a_full_disk_keeps_the_previous_registry(daemon, small_store):
    preload(daemon, "kept", SLEEPER, stopped=True, args=["old"])
    daemon.start()
    before = (STORE / "registry.json").read_bytes()
    filler = STORE / "filler"
    with open(filler, "wb", buffering=0) as out:
        with pytest.raises(OSError):
            while True:
                out.write(b"x" * 4096)
    answer = daemon.post("/api/packages/kept/launch-args", {"args": ["new" * 3000]})
    assert answer.status == 200
    assert daemon.packages()["kept"]["launch_args"] == ["new" * 3000]
    assert (STORE / "registry.json").read_bytes() == before
    assert not (STORE / "registry.json.tmp").exists()
    daemon.kill()
    daemon.start()
    assert daemon.packages()["kept"]["launch_args"] == ["old"]
    filler.unlink()
    daemon.post("/api/packages/kept/launch-args", {"args": ["newer"]})
    assert daemon.registry_file()[0]["launch_args"] == ["newer"]


def test_a_download_onto_a_full_disk_leaves_no_half_file(daemon, registry):
    limited_disk(DOWNLOADS, "1m")
    try:
        registry.publish("large", files={"run": SLEEPER, "blob": os.urandom(3 << 20)})
        registry.serve()
        daemon.bootstrap([entry("large")], registry_url=registry.url)
        daemon.start()
        assert "bootstrap: failed to install large: fetch_install: download failed: " in daemon.log()
        assert list(DOWNLOADS.iterdir()) == []
    finally:
        subprocess.run(["umount", "-l", DOWNLOADS], check=True)


def test_a_package_whose_name_needs_a_folder_of_the_downloads(daemon, registry, tmp_path):
    """A name with a slash downloads only where that sub-folder of the downloads exists."""
    artifact = registry.build({"run": SLEEPER})
    site = tmp_path / "site"
    target = site / "api/packages/sub/name/main/1.0.0" / ARCH
    target.mkdir(parents=True)
    (target / "artifact").write_bytes(artifact.read_bytes())
    server = subprocess.Popen(["/usr/bin/python3", "-m", "http.server", "7090", "--bind", "127.0.0.1",
                               "--directory", site], stderr=subprocess.DEVNULL)
    try:
        (DOWNLOADS / "sub").mkdir(parents=True)
        daemon.bootstrap([entry("sub/name")], registry_url="http://127.0.0.1:7090")
        wait_until(lambda: subprocess.run(["curl", "-fs", "-o", "/dev/null", "http://127.0.0.1:7090/"]).returncode == 0,
                   "the file server answers")
        daemon.start()
        assert list(daemon.packages()) == ["sub/name"]
        assert (STORE / "store/sub/name/1.0.0/run").is_file()
    finally:
        server.kill()
        server.wait()
