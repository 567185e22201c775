"""mirelpack as a person uses it: artifacts for the real tar and sha256sum, and a registry folder
that stays whole whoever publishes at once and whenever one of them is killed."""
import contextlib
import fcntl
import gzip
import io
import json
import os
import pathlib
import pty
import random
import signal
import stat
import subprocess
import tarfile
import threading

import pytest

from registry_support import (BUILD, DEADLINE, MIRELPACK, id_arguments, make_artifact,
                              make_program_folder, mirelpack, publish, remove, wait_until)


def build(folder, output, *extra, executable="bin/hello", check=True, **options):
    return mirelpack("build", folder, "--executable", executable, "-o", output, *extra,
                     check=check, **options)


def unpack(artifact, target):
    """As the installer does it: the outer tar, then the inner one beside it."""
    target.mkdir()
    subprocess.run(["tar", "-xzf", artifact, "-C", target], check=True)
    assert sorted(p.name for p in target.iterdir()) == ["manifest.json", "payload.tar"]
    tree = target / "tree"
    tree.mkdir()
    done = subprocess.run(["tar", "-xf", target / "payload.tar", "-C", tree], check=True,
                          capture_output=True, text=True)
    assert done.stderr == ""
    return tree


def snapshot(folder):
    """What a tree is, apart from the times: type, mode, contents or target, and link groups."""
    tree, groups = {}, {}
    root = os.fsencode(folder)
    for path, folders, files in os.walk(root):
        for name in folders + files:
            full = os.path.join(path, name)
            info = os.lstat(full)
            key = os.path.relpath(full, root)
            if stat.S_ISLNK(info.st_mode):
                content = os.readlink(full)
            elif stat.S_ISREG(info.st_mode):
                content = open(full, "rb").read()
                if info.st_nlink > 1:
                    groups.setdefault(info.st_ino, set()).add(key)
            else:
                content = None
            mode = 0 if stat.S_ISLNK(info.st_mode) else stat.S_IMODE(info.st_mode)
            tree[key] = (stat.S_IFMT(info.st_mode), mode, int(info.st_mtime), info.st_uid, content)
    return tree, sorted(map(sorted, groups.values()))


# --- build -----------------------------------------------------------------------------------


def test_an_artifact_unpacks_with_tar_and_its_digest_is_what_sha256sum_says(tmp_path):
    artifact = make_artifact(tmp_path, "words")
    tree = unpack(artifact, tmp_path / "unpacked")
    manifest = json.loads((tmp_path / "unpacked/manifest.json").read_text())
    digest = subprocess.run(["sha256sum", tmp_path / "unpacked/payload.tar"], check=True,
                            capture_output=True, text=True).stdout.split()[0]
    assert manifest == {"executable": "bin/hello", "sha256": digest, "description": "says words"}
    ran = subprocess.run([tree / "bin/hello"], check=True, capture_output=True, text=True)
    assert ran.stdout == "words\n"


def make_odd_tree(folder):
    make_program_folder(folder)
    (folder / "empty").mkdir()
    (folder / "install.sh").write_text("exit 0\n")
    (folder / ("d" * 120) / ("e" * 120)).mkdir(parents=True)
    (folder / ("d" * 120) / ("e" * 120) / ("f" * 200)).write_text("long")
    (folder / "spaces and 'quotes' \"\n\ttoo").write_text("odd")
    (folder / "ünïcode-名前").write_text("utf-8")
    with open(os.path.join(os.fsencode(folder), b"bytes-\xff\xfe"), "w") as file:
        file.write("bytes")
    (folder / "-dash").write_text("dash")
    (folder / "hard").write_text("shared")
    os.link(folder / "hard", folder / "bin/hard2")
    os.symlink("bin/hello", folder / "link")
    os.symlink("/nowhere/" + "x" * 150, folder / "dangling")
    os.symlink("bin", folder / "folder-link")
    for mode in (0o600, 0o4755, 0o1777, 0o000):
        (folder / f"mode-{mode:o}").write_text("mode")
        (folder / f"mode-{mode:o}").chmod(mode)
    (folder / "bin").chmod(0o750)
    os.mkfifo(folder / "pipe")
    with open(folder / "sparse", "wb") as file:
        file.seek(5_000_000)
        file.write(b"end")
    os.utime(folder / "empty", (1, 1))
    return folder


def test_modes_links_odd_names_and_empty_folders_are_kept(tmp_path):
    source = make_odd_tree(tmp_path / "source")
    build(source, tmp_path / "artifact", executable="link")
    tree = unpack(tmp_path / "artifact", tmp_path / "unpacked")
    subprocess.run(["tar", "-xpf", tmp_path / "unpacked/payload.tar", "-C", tree], check=True)
    assert snapshot(tree) == snapshot(source)
    names = subprocess.run(["tar", "-tf", tmp_path / "unpacked/payload.tar"], check=True,
                           capture_output=True).stdout
    assert not names.startswith(b"./")


def test_owners_are_kept(tmp_path):
    source = make_program_folder(tmp_path / "source")
    if os.geteuid() == 0:
        os.chown(source / "bin/hello", 12345, 54321)
    build(source, tmp_path / "artifact")
    info = os.stat(source / "bin/hello")
    unpack(tmp_path / "artifact", tmp_path / "unpacked")
    with tarfile.open(tmp_path / "unpacked/payload.tar") as payload:
        member = payload.getmember("bin/hello")
    assert (member.uid, member.gid) == (info.st_uid, info.st_gid)


def test_the_same_tree_gives_the_same_bytes(tmp_path):
    source = make_odd_tree(tmp_path / "source")
    for name in ("one", "two"):
        build(source, tmp_path / name)
        subprocess.run(["cat", source / "sparse"], check=True, stdout=subprocess.DEVNULL)
    assert (tmp_path / "one").read_bytes() == (tmp_path / "two").read_bytes()


def test_ten_thousand_files(tmp_path):
    source = make_program_folder(tmp_path / "source")
    for index in range(10_000):
        folder = source / f"{index % 100:02}"
        folder.mkdir(exist_ok=True)
        (folder / f"file-{index}").write_text(str(index))
    build(source, tmp_path / "artifact")
    tree = unpack(tmp_path / "artifact", tmp_path / "unpacked")
    assert snapshot(tree) == snapshot(source)
    facts = json.loads(mirelpack("inspect", "--json", tmp_path / "artifact").stdout)
    assert facts["files"] == 10_001


def test_a_large_payload_needs_little_memory(tmp_path):
    source = make_program_folder(tmp_path / "source")
    with open(source / "large", "wb") as file:
        file.truncate(400 << 20)
    limit = 96 << 10  # KiB of address space
    for command in (f"build {source} --executable bin/hello -o {tmp_path}/artifact",
                    f"inspect {tmp_path}/artifact"):
        subprocess.run(["sh", "-c", f"ulimit -v {limit}; exec {MIRELPACK} {command}"], check=True,
                       capture_output=True)


def written_out_of_sight(pid):
    """Bytes in files that the process has open and that have no name."""
    total = 0
    for descriptor in pathlib.Path(f"/proc/{pid}/fd").iterdir():
        with contextlib.suppress(FileNotFoundError):  # closed since it was listed
            if os.readlink(descriptor).endswith("(deleted)"):
                total += descriptor.stat().st_size
    return total


def test_a_killed_build_leaves_the_old_artifact_and_nothing_else(tmp_path):
    source = make_program_folder(tmp_path / "source")
    with open(source / "large", "wb") as file:
        file.truncate(1 << 30)
    output = tmp_path / "artifact"
    output.write_text("old")
    process = subprocess.Popen([MIRELPACK, "build", source, "--executable", "bin/hello", "-o",
                                output])
    wait_until(lambda: written_out_of_sight(process.pid) > 0, "the build writes")
    process.kill()
    assert process.wait() == -signal.SIGKILL
    assert output.read_text() == "old"
    assert sorted(p.name for p in tmp_path.iterdir()) == ["artifact", "source"]


@pytest.mark.parametrize("executable, reason", [
    ("bin/none", "is not a file"), ("bin", "is not a file"), ("/bin/sh", "must be a path inside"),
    ("../source/bin/hello", "must be a path inside"), ("outside", "is not a file"),
    ("plain", "chmod +x"),
])
def test_a_wrong_executable_is_refused(tmp_path, executable, reason):
    source = make_program_folder(tmp_path / "source")
    os.symlink("/bin/sh", source / "outside")
    (source / "plain").write_text("")
    done = build(source, tmp_path / "artifact", executable=executable, check=False)
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr.startswith("mirelpack: ") and reason in done.stderr
    assert not (tmp_path / "artifact").exists()


def run_on_terminal(command):
    """What a person sees on the terminal that is the command's standard error."""
    master, slave = pty.openpty()
    with subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=slave) as process:
        os.close(slave)
        seen = b""
        try:
            while block := os.read(master, 65536):
                seen += block
        except OSError:  # the terminal ends with its last user
            pass
        os.close(master)
    assert process.returncode == 0
    return seen


def test_progress_is_shown_on_a_terminal_and_not_in_a_pipe(tmp_path):
    source = make_program_folder(tmp_path / "source")
    with open(source / "large", "wb") as file:
        file.truncate(300 << 20)
    command = [MIRELPACK, "build", source, "--executable", "bin/hello", "-o", tmp_path / "artifact"]
    assert b"% " not in run_on_terminal([MIRELPACK, "inspect", make_artifact(tmp_path)])
    assert b"mirelpack: compressing" in run_on_terminal(command)
    assert subprocess.run(command, check=True, capture_output=True).stderr == b""


# --- inspect ---------------------------------------------------------------------------------


def tar_of(members):
    """A tar of (name, bytes) pairs or ready `TarInfo` objects."""
    packed = io.BytesIO()
    with tarfile.open(fileobj=packed, mode="w") as tar:
        for member in members:
            if isinstance(member, tarfile.TarInfo):
                tar.addfile(member)
            else:
                info = tarfile.TarInfo(member[0])
                info.size, info.mode = len(member[1]), 0o755
                tar.addfile(info, io.BytesIO(member[1]))
    return packed.getvalue()


def link(name, target, kind=tarfile.SYMTYPE):
    info = tarfile.TarInfo(name)
    info.type, info.linkname = kind, target
    return info


def digest_of(data):
    return subprocess.run(["sha256sum"], input=data, capture_output=True,
                          check=True).stdout.decode().split()[0]


def hand_made(payload_members, manifest=None, extra=(), executable="app", **changes):
    """An artifact made by hand, sound unless something is changed."""
    payload = payload_members if isinstance(payload_members, bytes) else tar_of(payload_members)
    text = json.dumps({"executable": executable, "sha256": digest_of(payload), **changes})
    members = [("manifest.json", text.encode() if manifest is None else manifest),
               ("payload.tar", payload), *extra]
    return gzip.compress(tar_of([m for m in members if m[1] is not None]))


APP = [("app", b"#!/bin/sh\n")]

SOUND = {
    "plain": hand_made(APP),
    "dotted names": hand_made([("./app", b"x")]),
    "executable through links": hand_made(
        [("v1/app", b"x"), link("now", "v1"), link("run", "./now/app")], executable="run"),
    "hard link": hand_made([("app", b"x"), link("same", "app", tarfile.LNKTYPE)],
                           executable="same"),
    "utf-8 names": hand_made([("app", b"x"), ("ünï" * 60, b"y")]),
    "payload first": gzip.compress(tar_of(
        [("payload.tar", tar_of(APP)),
         ("manifest.json", json.dumps({"executable": "app", "sha256": digest_of(tar_of(APP))})
          .encode())])),
}


@pytest.mark.parametrize("kind", SOUND)
def test_a_sound_artifact_of_any_origin_passes(tmp_path, kind):
    (tmp_path / "artifact").write_bytes(SOUND[kind])
    assert mirelpack("inspect", tmp_path / "artifact").returncode == 0


WHOLE = hand_made(APP)
DAMAGED = {
    "empty": (b"", "not a gzip file"),
    "text": (b"hello " * 1000, "not a gzip file"),
    "plain tar": (gzip.decompress(WHOLE), "not a gzip file"),
    "gzip of text": (gzip.compress(b"hello " * 1000), ""),
    "gzip of nothing": (gzip.compress(b""), ""),
    "truncated": (WHOLE[:-20], "ends too early"),
    "no trailer": (WHOLE[:-8], "ends too early"),
    "wrong checksum": (WHOLE[:-8] + b"\0\0\0\0" + WHOLE[-4:], "damaged gzip data"),
    "garbage behind": (WHOLE + b"garbage", "garbage follows"),
    "no manifest": (gzip.compress(tar_of([("payload.tar", tar_of(APP))])), "no manifest.json"),
    "no payload": (gzip.compress(tar_of([("manifest.json", b"{}")])), "no payload.tar"),
    "a third member": (hand_made(APP, extra=[("more", b"")]), "unexpected member \"more\""),
    "a member twice": (hand_made(APP, extra=[("payload.tar", b"")]), "unexpected member"),
    "a link as manifest": (gzip.compress(tar_of([link("manifest.json", "/etc/passwd")])),
                           "unexpected member"),
    "manifest no json": (hand_made(APP, manifest=b"{"), "malformed manifest.json"),
    "manifest no object": (hand_made(APP, manifest=b"[1]"), "not a JSON object"),
    "manifest not utf-8": (hand_made(APP, manifest=b'{"a":"\xff"}'), "not UTF-8"),
    "manifest huge": (hand_made(APP, manifest=b" " * 2_000_000), "larger than 1 MiB"),
    "no executable named": (hand_made(APP, executable=""), "names no \"executable\""),
    "executable missing": (hand_made(APP, executable="other"), "is not a file in the payload"),
    "executable a folder": (hand_made([("a/b", b"")], executable="a"), "is not a file"),
    "executable dangling": (hand_made([link("app", "gone")]), "is not a file"),
    "executable outside": (hand_made([link("app", "../../bin/sh")]), "is not a file"),
    "no digest": (hand_made(APP, sha256=""), "has no \"sha256\""),
    "other digest": (hand_made(APP, sha256="0" * 64), "the payload's SHA-256 is"),
    "upper-case digest": (hand_made(APP, sha256=digest_of(tar_of(APP)).upper()), "SHA-256"),
    "payload no tar": (hand_made(b"hello " * 1000), "payload.tar is damaged"),
    "payload empty": (hand_made(b""), "payload.tar is damaged"),
    "payload compressed": (hand_made(gzip.compress(tar_of(APP))), "payload.tar is damaged"),
    "payload truncated": (hand_made(tar_of([("app", b"x" * 5000)])[:2000]),
                          "payload.tar is damaged"),
    "payload climbs": (hand_made([*APP, ("../evil", b"")]), "lies outside"),
    "payload absolute": (hand_made([*APP, ("/evil", b"")]), "lies outside"),
    "payload replaces manifest": (hand_made([*APP, ("manifest.json", b"")]), "would replace"),
    "payload replaces itself": (hand_made([*APP, ("./payload.tar", b"")]), "would replace"),
}


@pytest.mark.parametrize("kind", DAMAGED)
def test_a_damaged_artifact_gets_a_clear_error_and_is_not_published(tmp_path, kind):
    data, reason = DAMAGED[kind]
    artifact = tmp_path / "artifact"
    artifact.write_bytes(data)
    done = mirelpack("inspect", artifact, check=False)
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr.startswith(f"mirelpack: {artifact}: ") and reason in done.stderr
    assert done.stderr.count("\n") == 1
    refused = publish(tmp_path / "registry", artifact, check=False)
    assert (refused.returncode, refused.stderr) == (1, done.stderr)
    assert [p.name for p in (tmp_path / "registry").iterdir() if p.name != ".lock"] in (
        [], [".incoming"])


def test_inspection_tells_what_an_artifact_holds(tmp_path):
    source = make_program_folder(tmp_path / "source")
    (source / "uninstall.sh").write_text("")
    build(source, tmp_path / "artifact", "--description", "Grüße, \"you\"")
    text = mirelpack("inspect", tmp_path / "artifact").stdout
    assert "Grüße, \"you\"" in text and "bin/hello" in text and "uninstall.sh" in text
    facts = json.loads(mirelpack("inspect", tmp_path / "artifact", "--json").stdout)
    assert facts["description"] == "Grüße, \"you\""
    assert (facts["files"], facts["has_install_script"], facts["has_uninstall_script"]) == (
        2, False, True)


def test_an_executable_without_its_bit_is_a_warning(tmp_path):
    info = tarfile.TarInfo("app")
    info.mode = 0o644
    (tmp_path / "artifact").write_bytes(hand_made([info]))
    done = mirelpack("inspect", tmp_path / "artifact")
    assert done.stderr == 'mirelpack: warning: the executable "app" has no execute bit\n'


# --- the registry folder ---------------------------------------------------------------------


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
    assert publish(registry, artifact).stdout == "published: hello main 1.0.0 linux-x86_64\n"
    assert publish(registry, artifact).stdout.startswith("already published")
    publish(registry, artifact, ("other", "beta", "2", "any"))
    assert mirelpack("list", "--registry", registry).stdout.split() == [
        "NAME", "CHANNEL", "VERSION", "ARCH", *BUILD, "other", "beta", "2", "any"]
    assert mirelpack("list", "--registry", registry, "--name", "other").stdout.split()[4:] == [
        "other", "beta", "2", "any"]
    assert remove(registry).stdout == "removed: hello main 1.0.0 linux-x86_64\n"
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
