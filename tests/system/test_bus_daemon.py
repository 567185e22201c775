"""The daemon on the bus, among nodes that have nothing of it in them."""
import re
import struct
import threading

import pytest

import bus_wire
from bus_payloads import (DiscoveryRecord, DiscoveryResponse, HostedModule, Identity, encode_identity_and_topic,
                          topic_id)
from bus_peer import PEER, BusPeer
from bus_warnings import in_use, renamed, version_mismatch
from bus_wire import BROADCAST, PREFIX, UNADDRESSED, Frame
from daemon import STOPPED_BY_SIGTERM

ADDRESS, NAME = 200, "mirelclient"


@pytest.fixture(autouse=True)
def ends_well(daemon):
    yield
    assert daemon.process is None or daemon.stop() == STOPPED_BY_SIGTERM


def warnings(daemon):
    """What the log says at level WARNING of the daemon's own node."""
    texts = re.findall(r"^\[mirelclient\] \[WARNING\] \[[^]]*\] (\[bus\] .*)$", daemon.log(), re.MULTILINE)
    return [text for text in texts if "local" not in text]


def announcement(name):
    return DiscoveryResponse(Identity(name, "a test", 1))


def ask_who_is_there(peer, address=UNADDRESSED):
    """What is answered to somebody without an address, or with one."""
    dest = BROADCAST if address == UNADDRESSED else address
    peer.send(Frame(bus_wire.DISCOVERY_REQUEST, source=address))
    return peer.receive(lambda message: message.type == bus_wire.DISCOVERY_RESPONSE and message.dest == dest)


# Its start


def test_it_claims_its_address_and_announces_itself(daemon, peer):
    daemon.start()
    assert peer.receive() == Frame(bus_wire.DISCOVERY_REQUEST, UNADDRESSED)
    announced = peer.receive()
    assert (announced.type, announced.source, announced.dest) == (bus_wire.DISCOVERY_RESPONSE, ADDRESS, BROADCAST)
    assert DiscoveryResponse.decode(announced.data).identity.name == NAME
    assert not warnings(daemon)


def test_it_tells_who_it_is(daemon, peer):
    daemon.start()
    answer = ask_who_is_there(peer, PEER)
    assert answer.source == ADDRESS
    told = DiscoveryResponse.decode(answer.data)
    version = re.match(r"(\d+)\.(\d+)\.(\d+)", daemon.get("/api/self").json()["version"])
    major, minor, patch = map(int, version.groups())
    assert told.identity == Identity(NAME, NAME, major << 16 | minor << 8 | patch)
    assert [(record.address, record.hops, record.note) for record in told.records] == [(0, 1, "own domain")]


def test_whoever_asks_again_within_seconds_is_not_answered_unless_it_has_no_address(daemon, peer):
    daemon.start()
    assert ask_who_is_there(peer, PEER).dest == PEER
    peer.send(Frame(bus_wire.DISCOVERY_REQUEST))
    for _ in range(2):
        assert ask_who_is_there(peer).dest == BROADCAST
    assert ask_who_is_there(peer, PEER + 1).dest == PEER + 1
    answered = [message.dest for message in peer.heard if message.type == bus_wire.DISCOVERY_RESPONSE]
    assert answered.count(PEER) == 1


def test_another_group_and_port_make_another_bus(daemon, peer):
    daemon.configure(bus_multicast_group="239.255.19.36", bus_multicast_port=47799, shared_bus_address=201)
    daemon.start()
    with BusPeer(PEER, group="239.255.19.36", port=47799) as there:
        assert ask_who_is_there(there, PEER).source == 201
    assert not peer.heard


# Conflicts


class Insisting:
    """Announces itself all the time, until it is told to stop."""

    def __init__(self, peer, response):
        self.peer = peer
        self.response = response
        self.is_over = threading.Event()
        self.thread = threading.Thread(target=self.insist)

    def insist(self):
        while not self.is_over.wait(0.02):
            self.peer.announce(self.response)

    def __enter__(self):
        self.peer.answer_claims(self.response)
        self.thread.start()

    def __exit__(self, *_):
        self.is_over.set()
        self.thread.join()


def test_it_gives_way_to_whoever_has_its_address_and_its_name(daemon):
    alternates = set()
    for _ in range(2):
        with BusPeer(ADDRESS) as twin, BusPeer(PEER) as peer:
            with Insisting(twin, announcement(NAME)):
                daemon.start()
            assert warnings(daemon)[-2:] == [in_use(ADDRESS, 1), renamed(NAME, 2)]
            twin.on_message = None
            answer = ask_who_is_there(peer, PEER)
        assert DiscoveryResponse.decode(answer.data).identity.name == NAME + "2"
        assert answer.source != ADDRESS and 1 <= answer.source <= 65533
        alternates.add(answer.source)
        daemon.stop()
    assert len(alternates) == 1


def test_it_gives_way_to_a_client_that_another_node_hosts(daemon, peer):
    response = announcement("host")
    response.modules = [HostedModule(ADDRESS, "guest", ["topic"])]
    with Insisting(peer, response):
        daemon.start()
    assert warnings(daemon) == [in_use(ADDRESS, 1)]


# What it does not understand


def test_a_frame_of_another_version_is_told_of_once(daemon, peer):
    daemon.start()
    for version in (3, 1):
        peer.send_datagram(Frame(bus_wire.DISCOVERY_REQUEST, PEER, version=version).encode())
    ask_who_is_there(peer)
    daemon.wait_log(version_mismatch(3))
    assert warnings(daemon) == [version_mismatch(3)]
    assert not [message for message in peer.heard if message.dest == PEER]


def with_crc(checked):
    return PREFIX + checked + struct.pack(">H", bus_wire.crc(checked))


def question(**changes):
    return Frame(bus_wire.DISCOVERY_REQUEST, PEER, **changes).encode()


def broken_crc():
    datagram = bytearray(question())
    datagram[-1] ^= 1
    return datagram


def of_length(length):
    """A frame whose length field says something else than what follows."""
    head = struct.pack("<BBHHHI", 2, bus_wire.EVENT, 0, PEER, 0, BROADCAST)
    return with_crc(head + struct.pack("<H", length) + b"data")


BROKEN = {
    "crc": broken_crc(),
    "cut short": question()[:-1],
    "unknown type": with_crc(struct.pack("<BBHHHIH", 2, 0x22, 0, PEER, 0, BROADCAST, 12)),
    "other channel": question(channel=1),
    "no prefix": b"x" + question()[1:],
    "data where none may be": with_crc(struct.pack("<BBHHHIH", 2, 0x20, 0, PEER, 0, BROADCAST, 16) + b"data"),
    "longer than the buffer": of_length(0xFFFF),
    "as long as the buffer": of_length(8192),
    "shorter than its fields": of_length(3),
    "prefix alone": PREFIX,
    "empty": b"",
}


@pytest.mark.parametrize("datagram", BROKEN.values(), ids=BROKEN)
def test_what_is_no_frame_is_passed_over(daemon, peer, datagram):
    daemon.start()
    peer.send_datagram(datagram)
    # What was cut short waits for its end; the next frame is it, and the one behind that is whole.
    peer.send(Frame(bus_wire.RESPONSE, source=PEER, dest=9, data=b"nobody's"))
    peer.send(Frame(bus_wire.RESPONSE, source=PEER, dest=9, data=b"nobody's"))
    assert ask_who_is_there(peer).source == ADDRESS
    assert not [message for message in peer.heard if message.dest == PEER]
    assert not warnings(daemon)


def test_frames_of_every_type_that_nobody_asked_for_do_no_harm(daemon, peer):
    daemon.start()
    identity = Identity("somebody", "a test", 1)
    for data in (b"", b"short", encode_identity_and_topic(identity, ""),
                 encode_identity_and_topic(identity, "no.topic"), bytes(range(256)) * 8):
        for kind in bus_wire.TYPES:
            for dest in (BROADCAST, ADDRESS, 0, PEER + 1):
                if kind != bus_wire.DISCOVERY_REQUEST:
                    peer.send(Frame(kind, dest=dest, data=data, msg_id=7, topic_id=topic_id("no.topic")))
    told = announcement("somebody")
    told.records = [DiscoveryRecord("far", 4000, 1, "own domain")]
    peer.announce(told)
    answer = ask_who_is_there(peer)
    # Nobody else is behind it: what it has learned of is on this very bus.
    assert answer.source == ADDRESS
    of_the_log = {topic_id("log.entry"), topic_id("log.line")}
    assert not [message for message in peer.heard if message.type in (bus_wire.EVENT, bus_wire.RESPONSE)
                and message.topic_id not in of_the_log]
    assert not warnings(daemon)
