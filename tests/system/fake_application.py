"""A node of the tests' own that is called like a package, and answers what it is told to."""
import bus_wire
from bus_payloads import (DiscoverNetworkRequest, DiscoveryResponse, Envelope, HubSummary, Identity, NetworkDomain,
                          to_bytes, topic_id)
from bus_peer import BusPeer
from bus_wire import Frame

MAP = "bus.discover_network"


class FakeApplication(BusPeer):
    """Is there for who asks who is there. `map` is what it says of the network, None for nothing; `answers` are
    replies by topic: bytes, fields and text, or a function that gives them when it is asked. What it was asked, but
    for maps, stands in `asked`, and the topics that it has answered in `answered`."""

    def __init__(self, address, name):
        super().__init__(address)
        self.name = name
        self.map = None
        self.maps_asked = []
        self.answers = {"session_history": ({"status": "ok"}, "")}
        self.asked = []
        self.answered = []
        self.response = DiscoveryResponse(Identity(name, name, 1))
        self.answer_claims(self.response)
        self.answer_who = self.on_message
        self.on_message = self.answer
        self.announce(self.response)

    def tell_of_itself(self, *modules):
        self.map = NetworkDomain(0, [HubSummary(self.address, self.name, 0, list(modules))])

    def answer(self, message):
        self.answer_who(message)
        if message.type != bus_wire.REQUEST:
            return
        if message.topic_id == topic_id(MAP):
            self.maps_asked.append(message)
            if self.map:
                self.reply(message, self.map.encode())
            return
        self.asked.append(message)
        for topic, answer in list(self.answers.items()):
            if message.topic_id == topic_id(topic):
                given = answer() if callable(answer) else answer
                self.reply(message, given if isinstance(given, bytes) else envelope(*given))
                self.answered.append(topic)

    def reply(self, message, payload):
        self.send(Frame(bus_wire.RESPONSE, dest=message.origin[1], data=payload, msg_id=message.msg_id))

    def take_asked(self):
        """What it was asked since the last time: whom, on which topic, and the fields."""
        asked, self.asked = self.asked, []
        return [(message.dest, message.topic_id, Envelope.decode(message.data).fields) for message in asked]

    def question_of_maps(self):
        return DiscoverNetworkRequest.decode(self.maps_asked[0].data)


def envelope(fields, text=""):
    return Envelope({key: str(value) for key, value in fields.items()}, to_bytes(text)).encode()
