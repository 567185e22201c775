"""Starts the programs that a benchmark compares, and ends them with it."""
import contextlib
import os
import pathlib
import socket
import subprocess
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
BIN = pathlib.Path(os.environ.get("MIREL_BIN", ROOT / "build/release/bin"))
TICKS = os.sysconf("SC_CLK_TCK")


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def wait_listening(port, seconds=10):
    """Asks the system's table: a connection made to find out would be served."""
    deadline = time.monotonic() + seconds
    wanted = f":{port:04X}"
    while time.monotonic() < deadline:
        for line in pathlib.Path("/proc/net/tcp").read_text().splitlines()[1:]:
            _, local, _, state = line.split()[:4]
            if local.endswith(wanted) and state == "0A":
                return
        time.sleep(0.01)
    raise TimeoutError(f"nobody listens on {port}")


@contextlib.contextmanager
def started(*command, **options):
    process = subprocess.Popen([str(part) for part in command], **options)
    try:
        yield process
    finally:
        process.terminate()
        process.wait(10)


def processor_seconds(pid):
    """Of the process and its children, ended or not."""
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    own = sum(int(ticks) for ticks in fields[11:15]) / TICKS
    children = pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split()
    return own + sum(processor_seconds(int(child)) for child in children)
