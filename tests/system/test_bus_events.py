"""Events between the program's node and one that has nothing of it, both ways: of every size, in pieces,
compressed, and with all options."""
import dataclasses
import random

import pytest

import bus_wire
from bus_pair import NODE, SIZES, event, heard_event, mark, node, send_until
from bus_payloads import Envelope
from bus_peer import PEER
from bus_program import in_hex, summary
from bus_wire import frames_of

MALFORMED = ("[bus] EVENT handler for 'value' threw on this payload (malformed/unexpected?): "
             "Envelope: truncated or malformed")


@pytest.mark.parametrize("size", SIZES)
def test_events_of_every_size_reach_both_sides(node, peer, size):
    data = random.Random(size).randbytes(size)
    node.do("subscribe large")
    send_until(peer, event("large", data, 1), lambda: heard_event("large", data) in node.heard)
    node.do("publish large " + in_hex(data))
    assert peer.receive_type(bus_wire.EVENT).data == data


def test_what_is_larger_than_a_message_may_be_is_not_sent(node, peer):
    node.do("publish large " + in_hex(bytes(0x100001)))
    node.do("publish large " + in_hex(b"small"))
    assert peer.receive_type(bus_wire.EVENT).data == b"small"


ORDERS = {
    "in order": list,
    "last first": lambda frames: frames[::-1],
    "shuffled": lambda frames: random.Random(3).sample(frames, len(frames)),
    "each twice": lambda frames: [frame for frame in frames for _ in range(2)][:-1],
    "the last one first, then all": lambda frames: [frames[-1], *frames[:-1]],
}


@pytest.mark.parametrize("order", ORDERS.values(), ids=ORDERS)
def test_fragments_in_any_order_make_the_message(node, peer, order):
    data = random.Random(8).randbytes(50_000)
    node.do("subscribe large")
    for compress, packed in [(False, data), (True, bytes(random.Random(9).choices(b"abcdefgh", k=50_000)))]:
        message = event("large", packed, 5 + compress, source=PEER)
        frames = frames_of(message, compress)
        assert len(frames) > 3
        peer.send_frames(order(frames))
        node.wait_heard(heard_event("large", packed))
    mark(node, peer)
    assert len(node.all_heard("event")) == 2


def test_a_fragment_that_comes_twice_counts_as_it_came_last(node, peer):
    node.do("subscribe large")
    first, second = frames_of(event("large", bytes(5000), 5, source=PEER))
    replaced = dataclasses.replace(first, data=b"x" * 4014)
    peer.send_frames([first, replaced, second])
    node.wait_heard(heard_event("large", b"x" * 4014 + bytes(986)))


def test_fragments_of_two_messages_and_two_senders_do_not_mix(node, peer):
    node.do("subscribe large")
    messages = [event("large", random.Random(seed).randbytes(20_000), msg_id, source=source)
                for seed, (msg_id, source) in enumerate([(1, PEER), (2, PEER), (1, PEER + 1), (2, PEER + 1)])]
    for frames in zip(*map(frames_of, messages)):
        peer.send_frames(frames)
    for message in messages:
        node.wait_heard(heard_event("large", message.data, message.source))


def test_a_message_that_lacks_a_fragment_is_none(node, peer):
    node.do("subscribe large")
    frames = frames_of(event("large", bytes(20_000), 1, source=PEER))
    peer.send_frames(frames[:2] + frames[3:])
    peer.send(event("large", b"next", 2))
    node.wait_heard(heard_event("large", b"next"))
    assert len(node.all_heard("event")) == 1


def test_compressed_events_are_read_and_written(node, peer):
    data = bytes(random.Random(4).choices(b"abc", k=60_000))
    node.do("subscribe large")
    peer.send(event("large", data, 1), compress=True)
    node.wait_heard(heard_event("large", data))
    node.do("publish large " + in_hex(data))
    assert peer.receive_type(bus_wire.EVENT).data == data
    assert {frame.frag_flags for frame in peer.frames if frame.type == bus_wire.EVENT} == {1, 3}
    node.do("compression on")
    node.do("publish large " + in_hex(data))
    assert peer.receive_type(bus_wire.EVENT).data == data
    packed = [frame for frame in peer.frames if frame.frag_flags & bus_wire.COMPRESSED]
    assert {frame.frag_flags for frame in packed} == {5, 7}
    assert {frame.uncompressed_size for frame in packed} == {60_000}
    for small in (bytes(1024), random.Random(5).randbytes(3000)):
        node.do("publish large " + in_hex(small))
        assert peer.receive_type(bus_wire.EVENT).data == small
        assert peer.frames[-1].frag_flags == 0


def test_what_does_not_unpack_to_its_size_is_dropped(node, peer):
    node.do("subscribe large")
    frame = frames_of(event("large", bytes(2000), 1, source=PEER), compress=True)[0]
    for size in (0, 1999, 2001, 0x100001):
        peer.send_datagram(dataclasses.replace(frame, uncompressed_size=size).encode())
    peer.send_datagram(dataclasses.replace(frame, data=frame.data[:-1]).encode())
    peer.send_datagram(frame.encode())
    node.wait_heard(heard_event("large", bytes(2000)))
    assert len(node.all_heard("event")) == 1


def test_the_last_event_of_a_topic_is_heard_once(node, peer):
    node.do("subscribe news")
    for msg_id in (1, 1, 2, 1, 0, 0):
        peer.send(event("news", bytes([msg_id]), msg_id))
    peer.send(event("news", b"end", 9))
    node.wait_heard(heard_event("news", b"end"))
    heard = [line.split(" ", 3)[3] for line in node.all_heard("event")]
    assert heard == [summary(data) for data in (b"\1", b"\2", b"\1", b"\0", b"\0", b"end")]


def test_all_options_are_understood(node, peer):
    node.do("subscribe news")
    data = b"abc" * 1000
    frame = dataclasses.replace(frames_of(event("news", data, 0xFFFFFFFF, source=PEER), compress=True)[0],
                                frag_flags=7, origin=(70_000, 61_000), ttl=0)
    assert frame.options()[0] == 0x7F
    peer.send_datagram(frame.encode())
    node.wait_heard(heard_event("news", data, 61_000, 70_000))
    for ttl in (0, 1, 8, 255):
        peer.send(event("news", bytes([ttl]), 10 + ttl, dest=NODE, ttl=ttl))
        node.wait_heard(heard_event("news", bytes([ttl])))


def test_what_is_for_others_is_not_heard(node, peer):
    node.do("subscribe news")
    peer.send(event("news", b"for another", 1, dest=PEER + 1))
    peer.send(event("news", b"from itself", 2, source=NODE))
    peer.send(event("news", b"on another channel", 3, channel=1))
    peer.send(dataclasses.replace(event("news", b"of no topic", 4), topic_id=0))
    peer.send(event("other", b"of another topic", 5))
    peer.send(event("news", b"for it", 6, dest=NODE))
    node.wait_heard(heard_event("news", b"for it"))
    assert len(node.all_heard("event")) == 1


def test_envelopes_are_the_same_on_both_sides(node, peer):
    node.do("publish-envelope value key word " + in_hex(b"data"))
    said = peer.receive_type(bus_wire.EVENT)
    assert Envelope.decode(said.data) == Envelope({"key": "word"}, b"data")
    assert Envelope.decode(said.data).encode() == said.data
    node.do("subscribe-envelope value")
    ours = Envelope({"b": "2", "a": "1"}, b"more").encode()
    peer.send(event("value", b"none", 1))
    peer.send(event("value", ours, 2))
    node.wait_heard(f"envelope value {summary(ours)}")
    assert len(node.warnings()) == 1 and node.warnings()[0].startswith(MALFORMED)
