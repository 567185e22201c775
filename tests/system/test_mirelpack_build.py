"""mirelpack build as a person uses it: what it makes, unpacked by the real tar and sha256sum."""
import contextlib
import json
import os
import pathlib
import pty
import signal
import stat
import subprocess
import tarfile

import pytest
from registry_support import (MIRELPACK, build, make_artifact, make_program_folder, mirelpack,
                              wait_until)


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


def peak_memory(*arguments):
    """Largest resident size in kilobytes of one run of mirelpack."""
    process = subprocess.Popen([MIRELPACK, *arguments], stdout=subprocess.DEVNULL)
    _, status, usage = os.wait4(process.pid, 0)
    assert status == 0
    return usage.ru_maxrss


def test_the_size_of_a_payload_does_not_show_in_the_memory(tmp_path):
    source = make_program_folder(tmp_path / "source")
    artifact = tmp_path / "artifact"
    commands = (("build", source, "--executable", "bin/hello", "-o", artifact), ("inspect", artifact))
    small = [peak_memory(*command) for command in commands]
    with open(source / "large", "wb") as file:
        file.truncate(400 << 20)
    large = [peak_memory(*command) for command in commands]
    assert all(after < before + (40 << 10) for before, after in zip(small, large)), (small, large)


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
