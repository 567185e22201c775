"""A registry folder that stays whole whoever publishes at once and whenever one of them is killed."""
import fcntl
import io
import json
import pathlib
import random
import signal
import subprocess
import tarfile
import threading

import pytest
from registry_support import (BUILD, DEADLINE, MIRELPACK, digest_of, id_arguments,
                              make_artifact, mirelpack, publish, remove, wait_until)


def read_json(path):
    return json.loads(path.read_text())


def listed_builds(registry):
    """All builds that a client finds, level by level. What one level lists the next one has."""
    index = registry / "packages.json"
    for name in read_json(index)["packages"] if index.exists() else []:
        package = registry / "packages" / name
        for channel in read_json(package / "channels.json")["channels"]:
            for build_entry in read_json(package / channel / "versions.json")["versions"]:
                yield (name, channel, build_entry["version"], build_entry["arch"]), \
                    build_entry["manifest"]


def payload_digest(artifact):
    with tarfile.open(fileobj=io.BytesIO(artifact), mode="r:gz") as outer:
        return digest_of(outer.extractfile("payload.tar").read())


def assert_whole(registry):
    for build_id, manifest in listed_builds(registry):
        artifact = (registry / "packages").joinpath(*build_id, "artifact").read_bytes()
        assert payload_digest(artifact) == manifest["sha256"], build_id


def test_what_is_published_can_be_listed_and_removed(tmp_path):
    registry = tmp_path / "new" / "registry"
    artifact = make_artifact(tmp_path)
    assert publish(registry, artifact).stdout == "published: hello main 1.0.0 x86_64-linux\n"
    assert publish(registry, artifact).stdout.startswith("already published")
    publish(registry, artifact, ("other", "beta", "2", "any"))
    assert mirelpack("list", "--registry", registry).stdout.split() == [
        "NAME", "CHANNEL", "VERSION", "ARCH", *BUILD, "other", "beta", "2", "any"]
    assert mirelpack("list", "--registry", registry, "--name", "other").stdout.split()[4:] == [
        "other", "beta", "2", "any"]
    assert remove(registry).stdout == "removed: hello main 1.0.0 x86_64-linux\n"
    assert [b for b, _ in listed_builds(registry)] == [("other", "beta", "2", "any")]
    again = remove(registry, check=False)
    assert again.returncode == 1 and "is not in the registry" in again.stderr


def test_other_bytes_are_published_over_a_build_only_with_replace(tmp_path):
    registry = tmp_path / "registry"
    publish(registry, make_artifact(tmp_path, "one"))
    other = make_artifact(tmp_path, "two")
    refused = publish(registry, other, check=False)
    assert refused.returncode == 1 and "--replace" in refused.stderr
    publish(registry, other, BUILD, "--replace")
    ((_, manifest),) = listed_builds(registry)
    assert manifest["description"] == "says two"
    assert_whole(registry)


@pytest.mark.parametrize("position", range(4))
@pytest.mark.parametrize("name", ["", ".", "..", ".hidden", "-x", "a/b", "a b", "ü", "a%2fb", "a?b",
                                  "x" * 200])
def test_names_that_cannot_stand_in_a_url_are_refused(tmp_path, position, name):
    odd = [*BUILD]
    odd[position] = name
    options = [f"{flag}={value}" for flag, value in
               zip(("--name", "--channel", "--version", "--arch"), odd)]
    done = mirelpack("publish", tmp_path / "x", "--registry", tmp_path / "registry", *options,
                     check=False)
    assert done.returncode != 0 and done.stderr
    assert not (tmp_path / "registry").exists()


def test_twenty_publishers_at_once_lose_nothing(tmp_path):
    registry = tmp_path / "registry"
    artifact = make_artifact(tmp_path)
    builds = [("app" + str(i % 3), "c" + str(i % 2), f"1.{i}", "any") for i in range(20)]
    processes = [subprocess.Popen([MIRELPACK, "publish", artifact, "--registry", registry,
                                   *id_arguments(b)], stdout=subprocess.DEVNULL) for b in builds]
    assert [process.wait(DEADLINE * 3) for process in processes] == [0] * 20
    assert sorted(b for b, _ in listed_builds(registry)) == sorted(builds)
    assert_whole(registry)
    assert not (registry / ".incoming").exists()


class Reader(threading.Thread):
    """Checks again and again that every listed build is there and whole."""

    def __init__(self, registry):
        super().__init__()
        self.registry = registry
        self.stopped = threading.Event()
        self.rounds = 0
        self.seen = set()
        self.wrong = None

    def run(self):
        while not self.stopped.is_set():
            try:
                assert_whole(self.registry)
                self.seen.update(b for b, _ in listed_builds(self.registry))
            except Exception as error:
                self.wrong = error
                return
            self.rounds += 1


def test_publishers_killed_at_any_moment_never_show_a_build_that_is_not_whole(tmp_path):
    registry = tmp_path / "registry"
    artifacts = [make_artifact(tmp_path, text) for text in ("one", "two")]
    chance = random.Random(7)
    reader = Reader(registry)
    reader.start()
    killed = 0
    for index in range(150):
        # A new package or channel each time, so that every index is new once.
        build_id = (f"app{index // 2}", f"c{index % 2}", f"1.{index}", "any")
        process = subprocess.Popen([MIRELPACK, "publish", artifacts[index % 2], "--registry",
                                    registry, *id_arguments(build_id)], stdout=subprocess.DEVNULL)
        try:
            process.wait(chance.uniform(0, 0.06))
        except subprocess.TimeoutExpired:
            process.send_signal(signal.SIGKILL)
            killed += process.wait() == -signal.SIGKILL
    reader.stopped.set()
    reader.join()
    assert reader.wrong is None
    assert killed > 10 and reader.rounds > 0

    # The next publisher finishes or sweeps whatever the last kill left.
    final = ("final", "main", "1", "any")
    publish(registry, artifacts[0], final)
    assert_whole(registry)
    assert final in [b for b, _ in listed_builds(registry)]
    assert reader.seen <= {b for b, _ in listed_builds(registry)}
    assert not (registry / ".incoming").exists()


def test_removals_and_replacements_killed_at_any_moment_are_finished_by_the_next(tmp_path):
    registry = tmp_path / "registry"
    artifacts = [make_artifact(tmp_path, text) for text in ("one", "two")]
    kept = ("app", "main", "0", "any")
    publish(registry, artifacts[0], kept)
    chance = random.Random(8)
    for index in range(60):
        build_id = ("app", "main", "1", "any")
        publish(registry, artifacts[0], build_id, "--replace")
        arguments = ([["remove"]] + [["publish", artifacts[1], "--replace"]])[index % 2]
        process = subprocess.Popen([MIRELPACK, *arguments, "--registry", registry,
                                    *id_arguments(build_id)], stdout=subprocess.DEVNULL)
        try:
            process.wait(chance.uniform(0, 0.04))
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()
        publish(registry, artifacts[0], kept)  # heals
        assert_whole(registry)
        assert kept in [b for b, _ in listed_builds(registry)]
        for version, arch in ((v, a) for (_, _, v, a), _ in listed_builds(registry)):
            assert not (registry / "packages/app/main" / version / arch / ".removed").exists()


def waits_for_a_lock(pid):
    lines = pathlib.Path("/proc/locks").read_text().splitlines()
    return any("->" in line.split() and str(pid) in line.split() for line in lines)


def test_a_publisher_that_dies_gives_the_lock_back(tmp_path):
    registry = tmp_path / "registry"
    artifact = make_artifact(tmp_path)
    publish(registry, artifact)
    with open(registry / ".lock") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        waiting = subprocess.Popen([MIRELPACK, "publish", artifact, "--registry", registry,
                                    *id_arguments(("a", "b", "1", "c"))],
                                   stdout=subprocess.DEVNULL)
        wait_until(lambda: waits_for_a_lock(waiting.pid), "the publisher waits")
    assert waiting.wait(DEADLINE) == 0


def test_usage_errors_and_help(tmp_path):
    assert mirelpack("--version").stdout.startswith("mirelpack ")
    help_text = mirelpack("--help").stdout
    assert "Examples:" in help_text and "mirelpack publish" in help_text
    for arguments in ([], ["nonsense"], ["build"], ["publish", "x"], ["list"]):
        done = mirelpack(*arguments, check=False)
        assert done.returncode > 1 and done.stderr
    missing = mirelpack("list", "--registry", tmp_path / "no", check=False)
    assert (missing.returncode, missing.stderr) == (
        1, f"mirelpack: there is no registry folder {tmp_path}/no\n")
