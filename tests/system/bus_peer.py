"""Nodes of the tests' own that hear all the time, and look at every byte of what the programs say: one on
the bus, one behind a gateway."""
import collections
import dataclasses
import select
import socket
import threading

import bus_wire
from bus_node import BusNode
from bus_payloads import DiscoveryResponse, Identity, decode_topic_after_identity, encode_identity_and_topic
from bus_wire import Frame, Reassembler, WireError, frames_of
from programs import DEADLINE

# The peers that are there. They look at the programs' frames alone, and pass over each other's.
peers = []
PEER = 600
UNLIKE_US = "not what these tests would have sent in its place"


def written_anew(message):
    """A message's payload, made of what was read of it. A node that was renamed may use all of its name's
    field."""
    if message.type == bus_wire.DISCOVERY_RESPONSE:
        written = DiscoveryResponse.decode(message.data).encode()
    elif message.type in (bus_wire.SUBSCRIBE_REQUEST, bus_wire.SUBSCRIBE_RESPONSE, bus_wire.UNSUBSCRIBE_REQUEST):
        written = encode_identity_and_topic(Identity(), decode_topic_after_identity(message.data))
    else:
        return message.data
    return Identity.decode(message.data).encode(Identity.TEXT_SIZE) + written[Identity.SIZE:]


class Ear:
    """`heard` are the programs' messages, `frames` the frames that they came in."""

    def __init__(self):
        self.changed = threading.Condition()
        self.reassembler = Reassembler()
        self.frames = []
        self.heard = []
        self.cursor = 0
        self.refused = []
        self.unlike = []
        self.parts = {}
        self.on_message = None  # runs on the thread that hears

    def check(self):
        """All that was heard is what it should be."""
        assert not self.unlike, UNLIKE_US
        assert not self.refused

    def hear(self, wanted, deadline):
        """The next message that is wanted, or None; those before it are forgotten."""
        def find():
            while self.cursor < len(self.heard):
                self.cursor += 1
                if wanted(self.heard[self.cursor - 1]):
                    return self.heard[self.cursor - 1]
            return None
        with self.changed:
            return self.changed.wait_for(find, deadline)

    def receive(self, wanted=lambda message: True, deadline=DEADLINE):
        """The same where one must come."""
        message = self.hear(wanted, deadline)
        assert message, f"waited in vain for a message; the last: {self.heard[-3:]}"
        return message

    def receive_type(self, kind, deadline=DEADLINE):
        return self.receive(lambda message: message.type == kind, deadline)

    def announce(self, response, dest=bus_wire.BROADCAST, source=0):
        self.send(Frame(bus_wire.DISCOVERY_RESPONSE, source, dest, response.encode()))

    def answer_claims(self, response):
        """Is there for whoever asks, like any node."""
        def answer(message):
            if message.type == bus_wire.DISCOVERY_REQUEST:
                is_nobody = message.source == bus_wire.UNADDRESSED
                self.announce(response, bus_wire.BROADCAST if is_nobody else message.source)
        self.on_message = answer

    def take(self, datagram):
        try:
            frame = Frame.decode(datagram)
            parts = self.parts.setdefault((frame.source, frame.msg_id), [])
            parts.append(frame)
            message = self.reassembler.add(frame)
        except WireError as error:
            self.refused.append((datagram, error))
            return
        if frame.encode() != datagram:
            self.unlike.append(datagram)
        if message:
            del self.parts[frame.source, frame.msg_id]
            is_compressed = parts[0].frag_flags & bus_wire.COMPRESSED
            if frames_of(message, is_compressed) != parts or written_anew(message) != message.data:
                self.unlike.append(parts)
        with self.changed:
            self.frames.append(frame)
            if message:
                self.heard.append(message)
            self.changed.notify_all()
        if message and self.on_message:
            self.on_message(message)


class BusPeer(Ear, BusNode):
    """On the bus itself."""

    def __init__(self, address, **options):
        Ear.__init__(self)
        BusNode.__init__(self, address, **options)
        self.own = collections.Counter()  # datagrams of the peers that are still to be heard
        self.is_open = True
        peers.append(self)
        self.thread = threading.Thread(target=self._listen, daemon=True)
        self.thread.start()

    def __exit__(self, kind, *_):
        peers.remove(self)
        self.is_open = False
        self.thread.join()
        self.socket.close()
        if not kind:
            self.check()

    def send_datagram(self, datagram):
        for peer in (peer for peer in peers if peer.target == self.target):
            with peer.changed:
                peer.own[bytes(datagram)] += 1
        super().send_datagram(datagram)

    def _listen(self):
        while self.is_open:
            if select.select([self.socket], [], [], 0.05)[0]:
                datagram = self.socket.recv(65536)
                if not self._is_own(datagram):
                    self.take(datagram)

    def _is_own(self, datagram):
        with self.changed:
            self.own[datagram] -= 1
            if self.own[datagram] >= 0:
                return True
            del self.own[datagram]
            return False


class BusTool(Ear):
    """Behind a gateway, over TCP."""

    def __init__(self, address, port):
        super().__init__()
        self.address = address
        self.socket = socket.create_connection(("127.0.0.1", port), timeout=DEADLINE)
        self.thread = threading.Thread(target=self._listen, daemon=True)
        self.thread.start()

    def __enter__(self):
        return self

    def __exit__(self, kind, *_):
        self.socket.shutdown(socket.SHUT_RDWR)
        self.thread.join()
        self.socket.close()
        if not kind:
            self.check()

    def send(self, message, compress=False):
        sent = dataclasses.replace(message, source=message.source or self.address)
        self.socket.sendall(b"".join(frame.encode() for frame in frames_of(sent, compress)))

    def _listen(self):
        buffer = b""
        while chunk := self._chunk():
            buffer += chunk
            while (size := bus_wire.frame_size(buffer)) and size <= len(buffer):
                self.take(buffer[:size])
                buffer = buffer[size:]

    def _chunk(self):
        try:
            return self.socket.recv(65536)
        except OSError:
            return b""
