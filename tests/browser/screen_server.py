"""A small screen server of RFB 3.8: one picture, red on its left half and blue on its right one."""
import socket
import struct
import threading

WIDTH, HEIGHT = 64, 32
NO_AUTHENTICATION, PASSWORD = 1, 2
CHALLENGE = bytes(range(16))
# The challenge under DES with the password's bytes, each with its bits turned round, as the key.
ANSWER_TO_SECRET = bytes.fromhex("ee22539f33a5983ec12f9c2edbc995dd")
# What follows the type byte of the client's messages of fixed size.
SIZES = {0: 19, 3: 9, 4: 7, 5: 5}
SET_ENCODINGS, UPDATE_REQUEST, KEY_EVENT = 2, 3, 4


class ScreenServer:
    def __init__(self, port=5900, security=NO_AUTHENTICATION):
        self.security = security
        self.keys = []
        self.answers = []
        self.ended = threading.Event()
        self.listener = socket.create_server(("127.0.0.1", port))
        self.connection = None
        self.thread = threading.Thread(target=self.serve)
        self.thread.start()

    def stop(self):
        self.listener.shutdown(socket.SHUT_RDWR)
        if self.connection is not None:
            try:
                self.connection.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass  # it has ended already
        self.thread.join()
        self.listener.close()

    def read(self, size):
        data = b""
        while len(data) < size:
            chunk = self.connection.recv(size - len(data))
            if not chunk:
                raise EOFError
            data += chunk
        return data

    def serve(self):
        try:
            self.connection, _ = self.listener.accept()
            with self.connection:
                if self.greet():
                    while True:
                        self.take_message()
        except (OSError, EOFError):
            self.ended.set()

    def greet(self):
        self.connection.sendall(b"RFB 003.008\n")
        self.read(12)
        self.connection.sendall(bytes([1, self.security]))
        self.read(1)
        accepted = True
        if self.security == PASSWORD:
            self.connection.sendall(CHALLENGE)
            self.answers.append(self.read(16))
            accepted = self.answers[-1] == ANSWER_TO_SECRET
        if not accepted:
            reason = b"wrong password"
            self.connection.sendall(struct.pack(">II", 1, len(reason)) + reason)
            self.read(1)
            return False
        self.connection.sendall(struct.pack(">I", 0))
        self.read(1)
        pixels = struct.pack(">BBBBHHHBBBxxx", 32, 24, 0, 1, 255, 255, 255, 0, 8, 16)
        self.connection.sendall(struct.pack(">HH", WIDTH, HEIGHT) + pixels + struct.pack(">I", 4) + b"test")
        return True

    def take_message(self):
        kind, = self.read(1)
        if kind == SET_ENCODINGS:
            _, count = struct.unpack(">BH", self.read(3))
            self.read(4 * count)
            return
        body = self.read(SIZES[kind])
        if kind == KEY_EVENT:
            self.keys.append(struct.unpack(">BxxI", body))
        elif kind == UPDATE_REQUEST and body[0] == 0:
            row = b"\xff\0\0\xff" * (WIDTH // 2) + b"\0\0\xff\xff" * (WIDTH // 2)
            self.connection.sendall(struct.pack(">BxHHHHHI", 0, 1, 0, 0, WIDTH, HEIGHT, 0) + row * HEIGHT)
