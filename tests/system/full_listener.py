"""Ports that neither take nor refuse a connection: whoever connects hears nothing."""
import contextlib
import pathlib
import socket


@contextlib.contextmanager
def filled(port):
    """Makes one of a listener of this machine without a backlog, which accepts nothing."""
    with contextlib.ExitStack() as others:
        for _ in range(2):
            other = others.enter_context(socket.socket())
            other.setblocking(False)
            other.connect_ex(("127.0.0.1", port))
        yield


def attempts_under_way(port):
    """Connections to a port that have no answer yet."""
    remote, asked = f"0100007F:{port:04X}", "02"
    lines = pathlib.Path("/proc/net/tcp").read_text().splitlines()[1:]
    return sum(line.split()[2:4] == [remote, asked] for line in lines)
