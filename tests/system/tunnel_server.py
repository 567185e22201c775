"""The server's side of the reverse tunnel, written from its wire table and not from our code.

    offset size          type 1 REGISTER client to server, first, stream 0, the client's name
    0      1  type            2 OPEN     server to client, "http", "vnc" or "console"
    1      4  stream          3 DATA     both
    5      4  length          4 CLOSE    both, empty
    9         payload

    in the data of a console: 1 kind, 4 length, data; kind 1 terminal bytes, kind 2 columns and rows.
"""
import socket
import struct

from programs import DEADLINE

REGISTER, OPEN, DATA, CLOSE = 1, 2, 3, 4
BYTES, RESIZE = 1, 2


def frame(kind, stream, payload=b""):
    return struct.pack(">BII", kind, stream, len(payload)) + payload


def sub_frame(kind, data):
    return struct.pack(">BI", kind, len(data)) + data


class Tunnel:
    """One connection of a client."""

    def __init__(self, connection):
        self.connection = connection
        self.connection.settimeout(DEADLINE)
        self.connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.reader = connection.makefile("rb")

    def send(self, kind, stream, payload=b""):
        self.connection.sendall(frame(kind, stream, payload))

    def open(self, stream, target):
        self.send(OPEN, stream, target.encode())

    def read(self):
        """Type, stream and payload of the next frame; None at the end of the connection."""
        try:
            header = self.reader.read(9)
        except ConnectionResetError:
            return None
        if len(header) < 9:
            assert header == b"", "the connection ends within a header"
            return None
        kind, stream, length = struct.unpack(">BII", header)
        payload = self.reader.read(length)
        assert len(payload) == length, "the connection ends within a payload"
        return kind, stream, payload

    def read_stream(self, stream):
        """All data of the only stream that talks, up to its close."""
        data = b""
        while (got := self.read()) != (CLOSE, stream, b""):
            assert got is not None and got[:2] == (DATA, stream), got
            data += got[2]
        return data

    def type(self, stream, text):
        self.send(DATA, stream, sub_frame(BYTES, text.encode()))

    def resize(self, stream, columns, rows):
        self.send(DATA, stream, sub_frame(RESIZE, struct.pack(">HH", columns, rows)))

    def read_console_until(self, stream, text):
        """Output of a console, each frame of which is one sub-frame."""
        output = b""
        while text.encode() not in output:
            kind, number, payload = self.read()
            assert (kind, number) == (DATA, stream), (kind, number, payload, output)
            sub_kind, length = struct.unpack(">BI", payload[:5])
            assert sub_kind == BYTES and length == len(payload) - 5, payload[:5]
            output += payload[5:]
        return output.decode()

    def expect_all_handled(self):
        """Sends something that has an answer, and expects that and nothing before."""
        self.open(0xfffffffe, "no such target")
        assert self.read() == (CLOSE, 0xfffffffe, b"")

    def abort(self):
        """Leaves with a reset."""
        self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.close()

    def close(self):
        self.reader.close()
        self.connection.close()


class TunnelServer:
    def __init__(self, host="127.0.0.1", port=0):
        self.listener = socket.create_server((host, port))
        self.listener.settimeout(DEADLINE)
        self.port = self.listener.getsockname()[1]
        self.address = f"{host}:{self.port}"
        self.tunnels = []

    def accept(self, name="mirelclient"):
        connection, _ = self.listener.accept()
        tunnel = Tunnel(connection)
        self.tunnels.append(tunnel)
        assert tunnel.read() == (REGISTER, 0, name.encode())
        return tunnel

    def end(self):
        self.listener.close()
        for tunnel in self.tunnels:
            tunnel.close()
