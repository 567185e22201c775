"""Asks the services that every application has on the bus, as records of texts."""
import itertools

import bus_wire
from bus_node import BusNode
from bus_payloads import DiscoveryResponse, Envelope, to_text, topic_id
from bus_wire import Frame
from programs import DEADLINE, wait_until


class Asker(BusNode):
    """A node that asks, and hears what is published."""

    ids = itertools.count(1)

    def discover(self):
        """What all nodes say of themselves, by name; a node that has no address yet is always answered."""
        self.send(Frame(bus_wire.DISCOVERY_REQUEST, source=bus_wire.UNADDRESSED))
        found = {}
        while message := self.receive(lambda message: message.type == bus_wire.DISCOVERY_RESPONSE, 0.5):
            response = DiscoveryResponse.decode(message.data)
            found[response.identity.name] = response
        return found

    def application(self, name):
        """The node of that name once it has all of its services, which it gets one after the other."""
        def complete():
            response = self.discover().get(name)
            names = {module.name for module in response.modules} if response else set()
            return response if names >= {"control", "config", "logger"} else None
        return wait_until(complete, f"{name} has its services on the bus")

    def ask_raw(self, address, topic, payload, deadline=DEADLINE):
        """The bytes of a reply, None after the deadline."""
        number = next(Asker.ids)
        self.send(Frame(bus_wire.REQUEST, dest=address, msg_id=number, topic_id=topic_id(topic), data=payload))
        reply = self.receive(lambda message: message.type == bus_wire.RESPONSE and message.msg_id == number
                             and message.dest in (self.address, bus_wire.BROADCAST), deadline)
        return reply and reply.data

    def ask(self, address, topic, **fields):
        """The fields of a reply, and its data as text."""
        payload = Envelope({key: str(value) for key, value in fields.items()}).encode()
        reply = self.ask_raw(address, topic, payload)
        assert reply is not None, f"nobody answers {topic}"
        envelope = Envelope.decode(reply)
        return envelope.fields, to_text(envelope.data)

    def next_event(self, topic, wanted):
        """The next event on that topic whose fields are wanted."""
        def is_wanted(message):
            return (message.type == bus_wire.EVENT and message.topic_id == topic_id(topic)
                    and wanted(Envelope.decode(message.data).fields))
        message = self.receive(is_wanted)
        assert message, f"no such event on {topic}"
        return Envelope.decode(message.data).fields

    def publish(self, topic, payload):
        self.send(Frame(bus_wire.EVENT, msg_id=next(Asker.ids), topic_id=topic_id(topic), data=payload))


class Services:
    """One application's services and their addresses."""

    def __init__(self, asker, name):
        self.asker = asker
        self.node = asker.application(name)
        self.addresses = {module.name: module.address for module in self.node.modules}

    def control(self, topic, **fields):
        return self.asker.ask(self.addresses["control"], topic, **fields)

    def config(self, topic, **fields):
        return self.asker.ask(self.addresses["config"], topic, **fields)

    def logger(self, topic, **fields):
        return self.asker.ask(self.addresses["logger"], topic, **fields)
