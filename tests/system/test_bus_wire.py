"""The wire format that the tests speak is the one that the program speaks: byte for byte, both ways."""
import dataclasses
import random
import zlib

import pytest

import bus_payloads
import bus_wire
from bus_node import BusNode
from bus_payloads import (DiscoverNetworkRequest, DiscoveryRecord, DiscoveryResponse, Envelope, HostedModule,
                          HubSummary, Identity, ModuleSummary, NetworkDomain, TopicDescription, TopicParam)
from bus_wire import Frame, Reassembler, WireError, frames_of
from bus_wire_tool import BusWireTool

EXAMPLE = bytes.fromhex("B055B055 02 20 0000 0201 0000 FFFFFFFF 0C00 23B1")
ROUNDS = 200


# Frames


def test_the_worked_example_is_written_and_read():
    frame = Frame(bus_wire.DISCOVERY_REQUEST, source=0x0102)
    assert len(EXAMPLE) == 20
    assert frame.encode() == EXAMPLE
    assert Frame.decode(EXAMPLE) == frame


def test_the_crc_of_the_check_digits():
    assert zlib.crc32(b"123456789") == 0xCBF43926
    assert bus_wire.crc(b"123456789") == 0x3926


def test_the_id_of_the_network_maps_topic():
    assert bus_payloads.topic_id("bus.discover_network") == 0x0FCE


def test_a_frame_with_all_options():
    frame = Frame(bus_wire.EVENT, source=0x1234, dest=0x01020304, data=b"payload", msg_id=0x0A0B0C0D, topic_id=0x0FCE,
                  frag_index=0x0203, frag_flags=7, origin=(0x11121314, 0x2122), ttl=3, uncompressed_size=0x31323334,
                  channel=0x4142)
    assert frame.options() == bytes.fromhex("7F00 CE0F 0D0C0B0A 0302 07 14131211 2221 03 34333231")
    encoded = frame.encode()
    assert encoded[4:10] == bytes.fromhex("02 30 4241 3412")
    assert len(encoded) == 40 + len(b"payload")
    assert Frame.decode(encoded) == frame


def test_each_option_is_there_only_when_it_must_be():
    plain = Frame(bus_wire.DISCOVERY_RESPONSE)
    assert plain.options() == b"\0\0"
    assert dataclasses.replace(plain, topic_id=1).options() == b"\1\0\1\0"
    assert dataclasses.replace(plain, msg_id=1).options() == b"\0\0"
    for kind in (bus_wire.EVENT, bus_wire.REQUEST, bus_wire.RESPONSE):
        assert Frame(kind).options() == b"\2\0" + bytes(4)
    assert dataclasses.replace(plain, frag_flags=1).options() == b"\x0c\0\0\0\1"
    assert dataclasses.replace(plain, origin=(1, 2)).options() == b"\x10\0\1\0\0\0\2\0"
    assert dataclasses.replace(plain, ttl=0).options() == b"\x20\0\0"
    assert dataclasses.replace(plain, uncompressed_size=9).options() == b"\0\0"
    assert dataclasses.replace(plain, frag_flags=4, uncompressed_size=9).options() == b"\x4c\0\0\0\4\x09\0\0\0"


def test_mask_bits_of_no_slot_add_no_bytes():
    head = bytes.fromhex("02 30 0000 0201 80FF FFFFFFFF 0D00") + b"x"
    frame = Frame.decode(bus_wire.PREFIX + head + bus_wire.crc(head).to_bytes(2, "big"))
    assert frame == Frame(bus_wire.EVENT, source=0x0102, data=b"x")


def test_a_frame_cut_anywhere_or_with_a_flipped_bit_is_refused():
    encoded = Frame(bus_wire.EVENT, source=1, data=b"some data", msg_id=5, origin=(1, 2)).encode()
    for size in range(len(encoded)):
        with pytest.raises(WireError):
            Frame.decode(encoded[:size])
    for bit in range(len(encoded) * 8):
        broken = bytearray(encoded)
        broken[bit // 8] ^= 1 << bit % 8
        with pytest.raises(WireError):
            Frame.decode(broken)
    with pytest.raises(WireError):
        Frame.decode(encoded + b"x")


def test_a_frames_size_is_told_by_its_beginning():
    frame = Frame(bus_wire.EVENT, source=1, data=b"some data", msg_id=5, origin=(1, 2))
    encoded = frame.encode()
    head = len(encoded) - len(frame.data) - 2
    for size in range(len(encoded)):
        assert bus_wire.frame_size(encoded[:size]) == (len(encoded) if size >= head else 0)
    assert bus_wire.frame_size(encoded * 2) == len(encoded)


def test_random_frames_come_back():
    dice = random.Random(1)
    for _ in range(ROUNDS):
        compressed = dice.random() < 0.3
        fragment = dice.random() < 0.5
        kind = dice.choice([kind for kind in bus_wire.TYPES if kind != bus_wire.DISCOVERY_REQUEST])
        frame = Frame(kind, source=dice.randrange(0x10000), dest=dice.randrange(1 << 32),
                      data=dice.randbytes(dice.choice([0, 1, 100, bus_wire.MAX_CHUNK])),
                      msg_id=dice.randrange(1 << 32) if kind >= bus_wire.EVENT else 0,
                      topic_id=dice.choice([0, dice.randrange(0x10000)]),
                      frag_index=dice.randrange(300) if fragment else 0,
                      frag_flags=4 * compressed + (dice.choice([1, 3]) if fragment else 0),
                      origin=dice.choice([None, (dice.randrange(1 << 32), dice.randrange(0x10000))]),
                      ttl=dice.randrange(9), channel=dice.randrange(0x10000),
                      uncompressed_size=dice.randrange(1, 1 << 20) if compressed else 0)
        encoded = frame.encode()
        assert len(encoded) <= bus_wire.MAX_FRAME
        assert Frame.decode(encoded) == frame


# Messages larger than a frame


def carried(message, order=list, **options):
    """What comes of a message whose frames arrive in some order."""
    reassembler = Reassembler()
    done = [reassembler.add(Frame.decode(frame.encode())) for frame in order(frames_of(message, **options))]
    assert done[:-1] == [None] * (len(done) - 1)
    assert not reassembler.assemblies
    return done[-1]


def test_a_payload_is_cut_where_a_frame_is_full():
    assert [len(frame.data) for frame in frames_of(Frame(bus_wire.EVENT, data=bytes(4014)))] == [4014]
    assert frames_of(Frame(bus_wire.EVENT, data=bytes(4014)))[0].frag_flags == 0
    cut = frames_of(Frame(bus_wire.EVENT, data=bytes(4015)))
    assert [(len(frame.data), frame.frag_index, frame.frag_flags) for frame in cut] == [(4014, 0, 1), (1, 1, 3)]
    assert len(frames_of(Frame(bus_wire.EVENT, data=bytes(0x100000)))) == 262
    assert frames_of(Frame(bus_wire.EVENT, data=bytes(0x100001))) == []


@pytest.mark.parametrize("order", [list, lambda frames: frames[::-1],
                                   lambda frames: random.Random(3).sample(frames, len(frames))],
                         ids=["in order", "last first", "shuffled"])
@pytest.mark.parametrize("size", [0, 1, 4014, 4015, 100_000, 0x100000])
def test_messages_of_every_size_come_back(size, order):
    message = Frame(bus_wire.EVENT, source=7, msg_id=9, data=random.Random(size).randbytes(size), origin=(1, 2))
    assert carried(message, order) == message


def test_compressed_messages_come_back():
    dice = random.Random(4)
    for size in (1025, 50_000, 0x100000):
        message = Frame(bus_wire.EVENT, source=7, msg_id=9, data=bytes(dice.choices(b"abc", k=size)))
        first = frames_of(message, compress=True)[0]
        assert first.frag_flags & bus_wire.COMPRESSED and first.uncompressed_size == size
        assert carried(message, compress=True) == message


def test_what_compression_does_not_shrink_goes_as_it_is():
    for data in (bytes(1024), random.Random(5).randbytes(3000)):
        assert frames_of(Frame(bus_wire.EVENT, data=data), compress=True) == [Frame(bus_wire.EVENT, data=data)]


def test_a_compressed_message_of_a_wrong_size_is_refused():
    frame = frames_of(Frame(bus_wire.EVENT, data=bytes(2000)), compress=True)[0]
    for size in (0, 1999, 2001, 0x100001):
        with pytest.raises(WireError):
            Reassembler().add(dataclasses.replace(frame, uncompressed_size=size))
    with pytest.raises(WireError):
        Reassembler().add(dataclasses.replace(frame, data=frame.data[:-1]))


# On the wire


def test_two_nodes_hear_each_other_and_not_themselves():
    with BusNode(1) as one, BusNode(2) as two:
        one.send(Frame(bus_wire.REQUEST, msg_id=5, data=b"question"))
        assert two.receive() == Frame(bus_wire.REQUEST, source=1, msg_id=5, data=b"question")
        large = random.Random(6).randbytes(100_000)
        two.send(Frame(bus_wire.RESPONSE, dest=1, msg_id=5, data=large))
        assert one.receive() == Frame(bus_wire.RESPONSE, source=2, dest=1, msg_id=5, data=large)


def test_a_broken_datagram_is_noted_and_passed_over():
    with BusNode(1) as one, BusNode(2) as two:
        one.send_datagram(EXAMPLE[:-1])
        one.send_datagram(EXAMPLE)
        assert two.receive(lambda message: message.source == 0x0102) == Frame.decode(EXAMPLE)
        assert [datagram for datagram, _ in two.refused] == [EXAMPLE[:-1]]


# Payloads: random records, as the program writes and reads them


@pytest.fixture(scope="module")
def tool():
    with BusWireTool() as tool:
        yield tool


class Dice(random.Random):
    def text(self, most=12):
        return "".join(self.choices("ab.* 0\t\0\r\"\\é€𝄞", k=self.randrange(most)))

    def ascii(self, most):
        return "".join(self.choices("abc.-_ ", k=self.randrange(most)))

    def u32(self):
        return self.choice([0, 1, 0xFFFFFFFF, self.randrange(1 << 32)])

    def several(self, make, most=4):
        return [make() for _ in range(self.randrange(most))]

    def identity(self):
        # Longer than the fields, now and then.
        return Identity(self.ascii(60), self.ascii(60), self.u32(), self.ascii(60), self.ascii(60))

    def topic(self):
        return TopicDescription(self.text(), self.text(30), self.randrange(2), self.several(self.param),
                                self.random() < 0.5)

    def param(self):
        return TopicParam(self.text(), self.text(), self.random() < 0.5)

    def discovery_response(self):
        return DiscoveryResponse(
            self.identity(), self.several(self.topic), self.several(self.topic),
            self.several(lambda: self.text() + "role"),
            self.several(lambda: DiscoveryRecord(self.text(), self.u32(), self.randrange(256), self.text())),
            self.several(lambda: HostedModule(self.u32(), self.text(), self.several(self.text))))

    def hub(self):
        return HubSummary(self.u32(), self.text(), self.u32(), self.several(
            lambda: ModuleSummary(self.u32(), self.text(), self.several(self.topic))))

    def domain(self, depth=4):
        return NetworkDomain(self.u32(), self.several(self.hub),
                             self.several(lambda: self.domain(depth - 1), 3) if depth else [])

    def request(self):
        return DiscoverNetworkRequest(self.randrange(0x10000), self.several(self.u32))

    def envelope(self):
        return Envelope({self.text(): self.text(100) for _ in range(self.randrange(5))},
                        self.randbytes(self.randrange(50)))


def as_json(record):
    value = dataclasses.asdict(record)
    return {key: part.hex() if isinstance(part, bytes) else part for key, part in value.items()}


RECORDS = [
    ("discovery_response", Dice.discovery_response, DiscoveryResponse.encode, DiscoveryResponse.decode),
    ("network_domain", Dice.domain, NetworkDomain.encode, NetworkDomain.decode),
    ("discover_network_request", Dice.request, DiscoverNetworkRequest.encode, DiscoverNetworkRequest.decode),
    ("envelope", Dice.envelope, Envelope.encode, Envelope.decode),
    ("topic_line", Dice.topic, lambda topic: bus_payloads.to_bytes(topic.to_line()),
     lambda data: TopicDescription.from_line(bus_payloads.to_text(data))),
]
ALL_RECORDS = pytest.mark.parametrize("name, make, encode, decode", RECORDS, ids=[record[0] for record in RECORDS])


@ALL_RECORDS
def test_random_records_are_the_same_bytes_and_read_alike(tool, name, make, encode, decode):
    dice = Dice(name)
    for _ in range(ROUNDS):
        record = make(dice)
        data = encode(record)
        assert tool.encode(name, as_json(record)) == data
        assert tool.decode(name, data) == as_json(decode(data))


@ALL_RECORDS
def test_records_cut_anywhere_read_alike(tool, name, make, encode, decode):
    dice = Dice(name + " cut")
    data = max((encode(make(dice)) for _ in range(20)), key=lambda data: 200 < len(data) < 1500 and len(data))
    for size in range(len(data)):
        cut = data[:size].decode("utf-8", "ignore").encode() if name == "topic_line" else data[:size]
        try:
            expected = as_json(decode(cut))
        except WireError:
            expected = None
        assert tool.decode(name, cut) == expected, size


def test_identities_and_topics_are_the_same_bytes(tool):
    dice = Dice("identity")
    for _ in range(ROUNDS):
        identity, topic = dice.identity(), dice.text()
        data = bus_payloads.encode_identity_and_topic(identity, topic)
        assert tool.encode("identity_and_topic", {"identity": as_json(identity), "topic": topic}) == data
        assert tool.decode("identity_and_topic", data) == {
            "identity": as_json(Identity.decode(data)), "topic": bus_payloads.decode_topic_after_identity(data)}


def test_topic_ids_are_the_same(tool):
    dice = Dice("topics")
    for topic in ["", "bus.discover_network", *(dice.text(40) for _ in range(ROUNDS))]:
        assert tool.encode("topic_id", topic) == bus_payloads.topic_id(topic).to_bytes(2, "little")


def test_texts_that_are_too_long_are_left_out_alike(tool):
    response = DiscoveryResponse(
        Identity("node"), [TopicDescription("a", "x" * 60_000), TopicDescription("b", "y" * 60_000),
                           TopicDescription("c")],
        [], ["r" * 65_535, "s"], [DiscoveryRecord("n" * 70_000, 1, 1, "own domain")],
        [HostedModule(1, "m", ["t" * 65_536, "u"])])
    data = response.encode()
    assert tool.encode("discovery_response", as_json(response)) == data
    read = DiscoveryResponse.decode(data)
    assert [topic.name for topic in read.publications] == ["a", "c"]
    assert tool.decode("discovery_response", data) == as_json(read)


def test_a_domain_in_another_is_refused_where_it_is_too_deep(tool):
    domain = NetworkDomain()
    for _ in range(31):
        domain = NetworkDomain(children=[domain])
    assert tool.decode("network_domain", domain.encode()) == as_json(domain)
    assert tool.decode("network_domain", NetworkDomain(children=[domain]).encode()) is None
