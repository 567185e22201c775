"""A real registry: artifacts built and published by mirelpack, served by mirelserver."""
import hashlib
import pathlib
import socket
import stat
import subprocess

from programs import BIN, wait_until

ARCH = "x86_64-linux" if subprocess.run(["uname", "-m"], capture_output=True, text=True
                                        ).stdout.strip() == "x86_64" else "arm64-linux"

SLEEPER = """#!/bin/sh
exec sleep 100000
"""


def run(*command, check=True, **options):
    result = subprocess.run([str(part) for part in command], capture_output=True, text=True, **options)
    assert not check or result.returncode == 0, f"{command} failed: {result.stdout}{result.stderr}"
    return result


def write_package(folder, files):
    """Files by name: text, or bytes; scripts get their execute bit."""
    for name, content in files.items():
        path = folder / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content if isinstance(content, bytes) else content.encode())
        if path.read_bytes()[:2] == b"#!":
            path.chmod(path.stat().st_mode | stat.S_IXUSR | stat.S_IXGRP | stat.S_IXOTH)


class Registry:
    def __init__(self, work, port=7081):
        self.work = pathlib.Path(work)
        self.folder = self.work / "registry"
        self.folder.mkdir()
        self.port = port
        self.process = None
        self.count = 0

    @property
    def url(self):
        return f"http://127.0.0.1:{self.port}"

    def build(self, files, executable="run", description="A package for a test"):
        """An artifact of the given files; returns its path."""
        self.count += 1
        folder = self.work / f"package-{self.count}"
        folder.mkdir()
        write_package(folder, files)
        program = folder / executable
        if program.is_file():
            program.chmod(0o755)
        artifact = self.work / f"artifact-{self.count}.tar.gz"
        run(BIN / "mirelpack", "build", folder, "--executable", executable,
            "--description", description, "-o", artifact)
        return artifact

    def publish(self, name, version="1.0.0", files=None, channel="main", arch=ARCH, **build):
        artifact = self.build({"run": SLEEPER} if files is None else files, **build)
        run(BIN / "mirelpack", "publish", artifact, "--registry", self.folder, "--name", name,
            "--channel", channel, "--version", version, "--arch", arch)
        return artifact

    def serve(self):
        self.process = subprocess.Popen(
            [BIN / "mirelserver", "--port", str(self.port), "--registry", self.folder],
            stdout=subprocess.DEVNULL)
        wait_until(self.answers, "the registry server answers")
        return self

    def answers(self):
        try:
            socket.create_connection(("127.0.0.1", self.port), timeout=5).close()
            return True
        except OSError:
            return False

    def stop(self):
        if self.process is not None:
            self.process.kill()
            self.process.wait()
            self.process = None


def entry(name, version="1.0.0", arch=ARCH, channel="main"):
    return {"name": name, "version": version, "arch": arch, "channel": channel}


def replace_artifact(registry, name, data, version="1.0.0"):
    (registry.folder / "packages" / name / "main" / version / ARCH / "artifact").write_bytes(data)


def tar(folder, *members, gzip=False):
    return subprocess.run(["tar", "-cz" if gzip else "-c", "-C", folder, *members],
                          check=True, capture_output=True).stdout


def artifact_of(tmp_path, manifest, payload_files=None, members=("manifest.json", "payload.tar")):
    """An artifact made by hand, so that it may be wrong."""
    folder = tmp_path / f"by-hand-{len(list(tmp_path.iterdir()))}"
    payload = folder / "payload"
    payload.mkdir(parents=True)
    for name, text in (payload_files or {"run": SLEEPER}).items():
        (payload / name).write_text(text)
        (payload / name).chmod(0o755)
    (folder / "payload.tar").write_bytes(tar(payload, "."))
    digest = hashlib.sha256((folder / "payload.tar").read_bytes()).hexdigest()
    (folder / "manifest.json").write_text(manifest.replace("SHA256", digest))
    return tar(folder, *members, gzip=True)
