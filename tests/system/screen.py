"""A screen server on the stock port, as far as a bridge can tell: a port on which a test accepts by hand."""
import contextlib
import socket
import struct

from programs import DEADLINE

VNC_PORT = 5900


@contextlib.contextmanager
def screen_server(port=VNC_PORT, backlog=128):
    with socket.create_server(("127.0.0.1", port), backlog=backlog) as listener:
        listener.settimeout(DEADLINE)
        yield listener


def accepted(listener):
    """The next viewer's connection."""
    connection, _ = listener.accept()
    connection.settimeout(DEADLINE)
    return connection


def read_all(connection, size):
    """So many bytes, or fewer at the end of the connection, reset or not."""
    data = bytearray()
    while len(data) < size:
        try:
            chunk = connection.recv(size - len(data))
        except ConnectionResetError:
            break
        if not chunk:
            break
        data += chunk
    return bytes(data)


def abort(connection):
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


def fill(connection, data, patience=0):
    """Sends it over and over, until nothing goes in any more for that many seconds. The connection is of
    no use after that but to be closed."""
    connection.settimeout(patience)
    with contextlib.suppress(BlockingIOError, TimeoutError):
        while True:
            connection.send(data)
    connection.settimeout(DEADLINE)
