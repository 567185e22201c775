"""Asks the daemon's package nodes on the bus."""
import itertools
import json

import bus_wire
from bus_payloads import DiscoveryResponse, Envelope, topic_id
from bus_wire import BROADCAST, UNADDRESSED, Frame
from programs import DEADLINE, wait_until

OK = {"status": "ok"}


class PackageAsker:
    """A peer that asks."""

    numbers = itertools.count(1)

    def __init__(self, peer):
        self.peer = peer

    def look(self, deadline=DEADLINE):
        """What the daemon says of itself now, None if it doesn't."""
        with self.peer.changed:
            self.peer.cursor = len(self.peer.heard)
        self.peer.send(Frame(bus_wire.DISCOVERY_REQUEST, source=UNADDRESSED))
        message = self.peer.hear(lambda message: message.type == bus_wire.DISCOVERY_RESPONSE, deadline)
        return message and DiscoveryResponse.decode(message.data)

    def modules(self):
        """The nodes that the daemon hosts, by name."""
        return {module.name: module for module in self.look().modules}

    def wait_module(self, name):
        """Waits for a node that a daemon hosts which is about to start."""
        def found():
            node = self.look(deadline=1)
            return {module.name: module for module in node.modules}.get(name) if node else None
        return wait_until(found, f"{name} is on the bus")

    def send(self, topic, data=b"", dest=BROADCAST, **fields):
        """The number of the request."""
        number = next(self.numbers)
        self.send_raw(number, topic, Envelope(fields, data).encode(), dest)
        return number

    def send_raw(self, number, topic, payload, dest=BROADCAST):
        self.peer.send(Frame(bus_wire.REQUEST, dest=dest, msg_id=number, topic_id=topic_id(topic), data=payload))

    def replies(self, number):
        return [message for message in self.peer.heard
                if message.type == bus_wire.RESPONSE and message.msg_id == number]

    def reply(self, number):
        """Its fields, and the document in its data."""
        with self.peer.changed:
            assert self.peer.changed.wait_for(lambda: self.replies(number), DEADLINE), "nobody answers"
        [message] = self.replies(number)
        assert message.dest == self.peer.address
        envelope = Envelope.decode(message.data)
        return envelope.fields, json.loads(envelope.data) if envelope.data else None

    def ask(self, topic, data=b"", **fields):
        return self.reply(self.send(topic, data, **fields))

    def do(self, topic, data=b"", **fields):
        """What must succeed, and has nothing to tell."""
        assert self.ask(topic, data, **fields) == (OK, None)

    def fails(self, topic, error, **fields):
        assert self.ask(topic, **fields) == ({"status": "error", "error": error}, None)

    def packages(self):
        fields, packages = self.ask("pkgmgr.list_installed")
        assert fields == OK
        return {package["name"]: package for package in packages}

    def wait_status(self, name, status):
        wait_until(lambda: self.packages()[name]["status"] == status, f"{name} is {status}")
