"""A node of the tests' own on the bus: it speaks datagrams, and nothing of the program is in it."""
import dataclasses
import pathlib
import select
import socket
import struct
import time

from bus_wire import Frame, Reassembler, WireError, frames_of
from programs import DEADLINE, wait_until

GROUP = "239.255.19.35"
PORT = 47765
FRAMES_AT_ONCE, MANY_BYTES = 32, 200_000


SO_RCVBUFFORCE = 33


def set_receive_buffer(of, size):
    """Larger than anybody may ask for, where this user is allowed to."""
    try:
        of.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, size)
    except PermissionError:
        of.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, size)


def unread_bytes(port):
    """What waits in the fullest of the sockets of a port."""
    lines = pathlib.Path("/proc/net/udp").read_text().splitlines()[1:]
    columns = [line.split() for line in lines]
    return max([int(column[4].partition(":")[2], 16) for column in columns
                if int(column[1].partition(":")[2], 16) == port], default=0)


class BusNode:
    """Hears all that others say on the bus, and says what it is told to."""

    def __init__(self, address, group=GROUP, port=PORT):
        self.address = address
        self.target = group, port
        self.reassembler = Reassembler()
        self.refused = []  # datagrams that are no frames
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEPORT, 1)
        set_receive_buffer(self.socket, 8 << 20)
        self.socket.bind(self.target)
        self.socket.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                               struct.pack("4s4s", socket.inet_aton(group), socket.inet_aton("0.0.0.0")))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def send_datagram(self, datagram):
        """Any bytes, whole or broken."""
        self.socket.sendto(datagram, self.target)

    def send(self, message, compress=False):
        """A message in as many frames as it takes; its source is this node unless it has one."""
        sent = dataclasses.replace(message, source=message.source or self.address)
        self.send_frames(frames_of(sent, compress))

    def send_frames(self, frames):
        """No faster than everybody hears them: what overflows a receiver's buffer would be lost."""
        for number, frame in enumerate(frames):
            if number % FRAMES_AT_ONCE == FRAMES_AT_ONCE - 1:
                wait_until(lambda: unread_bytes(self.target[1]) < MANY_BYTES, "all have read what was sent")
            self.send_datagram(frame.encode())

    def receive(self, wanted=lambda message: True, deadline=DEADLINE):
        """The next message by others that is wanted; those before it are forgotten. None in the end."""
        end = time.monotonic() + deadline
        while select.select([self.socket], [], [], max(0, end - time.monotonic()))[0]:
            message = self.read_datagram()
            if message and message.source != self.address and wanted(message):
                return message
        return None

    def read_datagram(self):
        datagram = self.socket.recv(65536)
        try:
            return self.reassembler.add(Frame.decode(datagram))
        except WireError as error:
            self.refused.append((datagram, error))
            return None
