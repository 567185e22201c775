"""A machine that dials in through a tunnel, written from the table of the wire alone."""
import contextlib
import socket
import struct
import threading

from programs import DEADLINE

REGISTER, OPEN, DATA, CLOSE = 1, 2, 3, 4


def frame(kind, stream=0, payload=b""):
    return struct.pack(">BII", kind, stream, len(payload)) + payload


class TunnelMachine:
    """Answers each stream by `serve(stream)` on a thread of its own."""

    def __init__(self, port, name, serve=None):
        self.socket = socket.create_connection(("127.0.0.1", port), timeout=DEADLINE)
        self.serve = serve or (lambda stream: None)
        self.write_lock = threading.Lock()
        self.streams = {}
        self.opened = []
        self.targets = []
        self.other_frames = []
        self.ended = threading.Event()
        self.send(REGISTER, 0, name if isinstance(name, bytes) else name.encode())
        threading.Thread(target=self._read, daemon=True).start()

    def send(self, kind, stream=0, payload=b""):
        with self.write_lock:
            self.socket.sendall(frame(kind, stream, payload))

    def close(self):
        with contextlib.suppress(OSError):
            self.socket.shutdown(socket.SHUT_RDWR)
        self.ended.wait(DEADLINE)
        self.socket.close()

    def _read(self):
        try:
            with self.socket.makefile("rb") as incoming:
                while len(header := incoming.read(9)) == 9:
                    kind, number, length = struct.unpack(">BII", header)
                    self._on_frame(kind, number, incoming.read(length))
        except OSError:
            pass
        finally:
            self.ended.set()

    def _on_frame(self, kind, number, payload):
        if kind == OPEN:
            stream = self.streams[number] = Stream(self, number)
            self.targets.append(payload)
            self.opened.append(stream)
            threading.Thread(target=self._run, args=(stream,), daemon=True).start()
        elif kind == DATA and number in self.streams:
            self.streams[number].put(payload)
        elif kind == CLOSE and number in self.streams:
            self.streams[number].put(None)
        elif kind not in (OPEN, DATA, CLOSE):
            self.other_frames.append((kind, number, payload))

    def _run(self, stream):
        with contextlib.suppress(OSError):
            self.serve(stream)


class Stream:
    def __init__(self, machine, number):
        self.machine = machine
        self.number = number
        self.buffer = b""
        self.closed = False
        self.changed = threading.Condition()

    def put(self, payload):
        with self.changed:
            if payload is None:
                self.closed = True
            else:
                self.buffer += payload
            self.changed.notify_all()

    def wait(self, condition, what):
        with self.changed:
            assert self.changed.wait_for(condition, DEADLINE), f"waited in vain until {what}"

    def request(self):
        """Head and body of the request that the stream begins with."""
        self.wait(lambda: b"\r\n\r\n" in self.buffer, "the head of a request is there")
        head, _, body = self.buffer.partition(b"\r\n\r\n")
        lines = head.decode().split("\r\n")
        headers = {name.lower(): value for name, _, value in (line.partition(": ") for line in lines[1:])}
        size = int(headers.get("content-length", 0))
        start = len(head) + 4
        self.wait(lambda: len(self.buffer) >= start + size, "the body of a request is there")
        return lines[0], headers, self.buffer[start:start + size]

    def send(self, data, piece=32768):
        for start in range(0, len(data), piece):
            self.machine.send(DATA, self.number, data[start:start + piece])

    def close(self):
        self.machine.send(CLOSE, self.number)

    def answer(self, body, status="200 OK", kind="text/plain"):
        self.send(f"HTTP/1.1 {status}\r\nContent-Type: {kind}\r\n"
                  f"Content-Length: {len(body)}\r\n\r\n".encode() + body)
        self.close()
