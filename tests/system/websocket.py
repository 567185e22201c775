"""The daemon's WebSockets: as a browser has them, and as bytes that no browser would send."""
import asyncio
import contextlib
import json
import socket
import struct

import websockets

from daemon import WEB_PORT
from processes import process_table
from programs import DEADLINE

HOST = f"127.0.0.1:{WEB_PORT}"
PATH = "/api/console/ws"
VNC_PATH = "/api/vnc/ws"
MEBIBYTE = 1 << 20


def in_browser(scenario, *arguments):
    """Runs a coroutine that gets an open terminal."""
    async def run():
        async with websockets.connect(f"ws://{HOST}{PATH}", max_size=None, compression=None) as socket_:
            return await scenario(Terminal(socket_), *arguments)
    return asyncio.run(run())


def in_viewer(scenario, *arguments):
    """Runs a coroutine that gets an open connection to the screen server."""
    async def run():
        async with websockets.connect(f"ws://{HOST}{VNC_PATH}", max_size=None, compression=None) as viewer:
            return await scenario(viewer, *arguments)
    return asyncio.run(run())


class Terminal:
    def __init__(self, connection):
        self.connection = connection
        self.output = b""

    async def type(self, keys):
        await self.connection.send(keys.encode() if isinstance(keys, str) else keys)

    async def resize(self, **size):
        await self.connection.send(json.dumps(size))

    async def read_until(self, text):
        """All output up to the text, which is taken out of it; the rest stays for later."""
        async def read():
            while text not in self.output:
                message = await self.connection.recv()
                assert isinstance(message, bytes)
                self.output += message
        await asyncio.wait_for(read(), DEADLINE)
        before, _, self.output = self.output.partition(text)
        return before

    async def quiet(self):
        """No prompt and no echo from now on: what comes is what commands print."""
        await self.type("PS1=\nstty -echo\necho rea''dy\n")
        await self.read_until(b"ready\r\n")
        return self

    async def answer_to(self, command):
        await self.type(f"{command}; echo en''d\n")
        return (await self.read_until(b"end\r\n")).decode()


def frame(opcode, payload=b"", fin=True, mask=b"\x01\x02\x03\x04", length=None):
    """The bytes of one frame; `length` is what it claims."""
    size = len(payload) if length is None else length
    head = bytes([(0x80 if fin else 0) | opcode])
    masked = 0x80 if mask else 0
    if size < 126:
        head += bytes([masked | size])
    elif size < 65536:
        head += bytes([masked | 126]) + size.to_bytes(2, "big")
    else:
        head += bytes([masked | 127]) + size.to_bytes(8, "big")
    if not mask:
        return head + payload
    return head + mask + bytes(byte ^ mask[i % 4] for i, byte in enumerate(payload))


# What ends a connection from the browser's side, once it is followed by the end of its input.
ENDS = {
    "a length of all ones": frame(2, length=(1 << 64) - 1),
    "half of that": frame(2, length=1 << 63),
    "a byte too many": frame(1, length=MEBIBYTE + 1),
    "a byte too many in two fragments": frame(2, b"x" * MEBIBYTE, fin=False) + frame(0, b"x"),
    "one byte of a frame": b"\x82",
    "half a length": b"\x82\xfe\x00",
    "half a mask": b"\x82\x85\x01\x02",
    "all but a byte": frame(2, b"cut short")[:-1],
    "a close frame": frame(8),
    "a close frame with a status": frame(8, b"\x03\xe8bye"),
    "nothing": b"",
}


def handshake(path, connection="Upgrade", upgrade="websocket"):
    return (f"GET {path} HTTP/1.1\r\nHost: {HOST}\r\nConnection: {connection}\r\nUpgrade: {upgrade}\r\n"
            "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n").encode()


class RawWebSocket:
    """A socket on which the handshake is done, or was tried."""

    def __init__(self, path, **headers):
        self.socket = socket.create_connection(("127.0.0.1", WEB_PORT), timeout=DEADLINE)
        self.socket.sendall(handshake(path, **headers))
        self.input = b""
        self.head = b""
        while not self.head.endswith(b"\r\n\r\n") and (byte := self.read(1)):
            self.head += byte

    @property
    def is_open(self):
        return self.head.startswith(b"HTTP/1.1 101 ")

    def send(self, data):
        self.socket.sendall(data)

    def read(self, size):
        """So many bytes, or fewer at the end of the connection, reset or not."""
        while len(self.input) < size:
            try:
                chunk = self.socket.recv(65536)
            except ConnectionResetError:
                chunk = b""
            if not chunk:
                break
            self.input += chunk
        taken, self.input = self.input[:size], self.input[size:]
        return taken

    def read_frame(self):
        """Opcode and payload, or None at the end of the connection."""
        head = self.read(2)
        if len(head) < 2:
            return None
        size = head[1] & 0x7f
        if size >= 126:
            size = int.from_bytes(self.read(2 if size == 126 else 8), "big")
        return head[0] & 0x0f, self.read(size)

    def read_until(self, text):
        """The payloads of the binary frames up to the one that completes this text."""
        output = b""
        while text not in output:
            try:
                answer = self.read_frame()
            except TimeoutError as error:
                raise AssertionError(f"nothing after {output}\n{process_table()}") from error
            assert answer is not None, output
            if answer[0] == 2:
                output += answer[1]
        return output

    def answer_to_ping(self, payload):
        """The answer that is no output; None at the end of the connection."""
        self.send(frame(9, payload))
        while (answer := self.read_frame()) is not None and answer[0] == 2:
            pass
        return answer

    def send_close(self):
        self.send(frame(8))

    def frames(self):
        """All that come until the end of the connection."""
        return list(iter(self.read_frame, None))

    def abort(self):
        """Leaves with a reset."""
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.socket.close()

    def close(self):
        self.socket.close()


class RawTerminal(RawWebSocket):
    def __init__(self, **headers):
        super().__init__(PATH, **headers)

    def type(self, keys):
        self.send(frame(2, keys.encode()))

    def is_ended_by(self, keys):
        """Whether nobody answers any more once they are typed."""
        try:
            self.type(keys)
            return self.answer_to_ping(b"?") is None
        except OSError:
            return True


class RawViewer(RawWebSocket):
    def __init__(self, **headers):
        super().__init__(VNC_PATH, **headers)


@contextlib.contextmanager
def raw_terminal(**headers):
    yield from closed_in_the_end(RawTerminal(**headers))


@contextlib.contextmanager
def raw_viewer(**headers):
    yield from closed_in_the_end(RawViewer(**headers))


def closed_in_the_end(websocket):
    try:
        yield websocket
    finally:
        websocket.close()
