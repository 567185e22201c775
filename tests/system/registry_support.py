"""A registry folder and the servers in front of it, for tests: real programs on loopback ports."""
import contextlib
import http.client
import os
import socket
import subprocess

from programs import BIN, CHECKOUT, DEADLINE, wait_until

MIRELPACK = BIN / "mirelpack"
MIRELSERVER = BIN / "mirelserver"
NGINX_CONF = CHECKOUT / "packaging/nginx-registry.conf"

BUILD = ("hello", "main", "1.0.0", "x86_64-linux")


def mirelpack(*arguments, check=True, **options):
    """Runs mirelpack; its output is in the result, and in the failure if `check` is set."""
    done = subprocess.run([MIRELPACK, *map(os.fspath, arguments)], capture_output=True, text=True,
                          errors="surrogateescape", **options)
    assert not check or done.returncode == 0, done.stderr
    return done


def digest_of(data):
    """By the tool that an installer uses."""
    return subprocess.run(["sha256sum"], input=data, capture_output=True,
                          check=True).stdout.decode().split()[0]


def id_arguments(build):
    names = ("--name", "--channel", "--version", "--arch")
    return [argument for pair in zip(names, build) for argument in pair]


def publish(registry, artifact, build=BUILD, *extra, check=True):
    return mirelpack("publish", artifact, "--registry", registry, *id_arguments(build), *extra,
                     check=check)


def remove(registry, build=BUILD, check=True):
    return mirelpack("remove", "--registry", registry, *id_arguments(build), check=check)


def build(folder, output, *extra, executable="bin/hello", check=True, **options):
    return mirelpack("build", folder, "--executable", executable, "-o", output, *extra,
                     check=check, **options)


def make_program_folder(folder, text="hello", executable="bin/hello"):
    """A folder that holds one small program."""
    program = folder / executable
    program.parent.mkdir(parents=True, exist_ok=True)
    program.write_text(f"#!/bin/sh\necho {text}\n")
    program.chmod(0o755)
    return folder


def make_artifact(folder, text="hello"):
    """An artifact in `folder` whose program prints `text`."""
    source = make_program_folder(folder / f"source-{text}", text)
    artifact = folder / f"{text}.tar.gz"
    mirelpack("build", source, "--executable", "bin/hello", "--description", f"says {text}",
              "-o", artifact)
    return artifact


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def request(port, target, method="GET", headers=None, body=None):
    """Status, content type and body of one request whose target goes out byte by byte as given."""
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=DEADLINE)
    # The client's own check would keep the odd targets from the server.
    connection._validate_path = lambda _: None
    with contextlib.closing(connection):
        connection.request(method, target, body=body, headers=headers or {})
        answer = connection.getresponse()
        return answer.status, answer.getheader("Content-Type"), answer.read()


class Server:
    """A running server; `port` is where it answers, `pid` what it is."""

    def __init__(self, process, port):
        self.process = process
        self.port = port
        self.pid = process.pid

    def get(self, target, **options):
        return request(self.port, target, **options)


@contextlib.contextmanager
def _running(command, **options):
    process = subprocess.Popen(command, stdout=subprocess.PIPE, text=True, **options)
    try:
        yield process
    finally:
        process.kill()
        process.wait()
        process.stdout.close()


@contextlib.contextmanager
def running_mirelserver(registry, *extra):
    command = [MIRELSERVER, "--registry", registry, "--port", "0", *extra]
    with _running(command) as process:
        line = process.stdout.readline()
        assert line.startswith(f"mirelserver: serving {registry} on http://"), line
        yield Server(process, int(line.rstrip().rstrip("/").rpartition(":")[2]))


def answers(port):
    try:
        return request(port, "/api/packages")[0] > 0
    except OSError:
        return False


@contextlib.contextmanager
def running_nginx(registry, work):
    """The installed nginx with the packaged configuration, and nothing of the system's own."""
    port = free_port()
    temporary = "".join(
        f"    {kind}_temp_path {work}/{kind};\n"
        for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
    conf = work / "nginx.conf"
    conf.write_text(
        f"daemon off;\nmaster_process off;\npid {work}/nginx.pid;\n"
        f"error_log {work}/error.log;\nevents {{}}\nhttp {{\n    access_log off;\n{temporary}"
        f"    server {{\n        listen 127.0.0.1:{port};\n        root {registry};\n"
        f"        include {NGINX_CONF};\n    }}\n}}\n")
    with _running(["/usr/sbin/nginx", "-p", work, "-c", conf, "-e", work / "error.log"]) as process:
        wait_until(lambda: answers(port), f"nginx answers: {work}/error.log")
        yield Server(process, port)
