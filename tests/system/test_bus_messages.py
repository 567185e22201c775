"""Every message of the bus between the program's node and one that has nothing of it: both ways, and each
frame that the program sends is compared byte for byte with what these tests would send."""
import contextlib
import dataclasses
import random

import pytest

import bus_wire
from bus_payloads import (DiscoveryResponse, Envelope, HostedModule, Identity, TopicDescription,
                          encode_identity_and_topic, topic_id)
from bus_peer import BusPeer
from bus_program import BusProgram, in_hex, summary
from bus_wire import BROADCAST, UNADDRESSED, Frame, frames_of
from programs import wait_until

NODE, PEER, CLIENT = 500, 600, 510
OURS = Identity("peer", "a test", 7, "group", "extra")
THEIRS = Identity("node", "node", 1)
LONG = 60_000
MARK = 0x7F000000
MARKED = f"request mark {PEER} {summary(b'')}"
SIZES = [0, 1, 4014, 4015, 100_000, 0x100000]
MALFORMED = ("[bus] EVENT handler for 'value' threw on this payload (malformed/unexpected?): "
             "Envelope: truncated or malformed")
REFUSED = ("[bus] REQUEST handler for 'broken' threw on this payload (malformed/unexpected?): not today"
           " - dropping, requester will see a timeout")


@pytest.fixture
def peer():
    with BusPeer(PEER) as peer:
        yield peer


@pytest.fixture
def node(peer):
    with BusProgram(NODE, "node", probe_window_ms=20) as node:
        assert node.join() == (NODE, "node")
        node.do("serve mark")
        yield node


def event(topic, data, msg_id, **changes):
    return Frame(bus_wire.EVENT, data=data, msg_id=msg_id, topic_id=topic_id(topic), **changes)


def request(topic, data, msg_id, **changes):
    return Frame(bus_wire.REQUEST, data=data, msg_id=msg_id, topic_id=topic_id(topic), **changes)


def heard_event(topic, data, source=PEER, hub=0, pattern=None):
    return f"event {pattern or topic} {topic} {hub}:{source} {summary(data)}"


def mark(node, peer):
    """What was sent before has been handled when this returns, and what it printed has been read."""
    before = node.heard.count(MARKED)
    peer.send(request("mark", b"", MARK + before))
    node.wait_heard(MARKED, before + 1)
    peer.receive(lambda message: message.type == bus_wire.RESPONSE and message.msg_id == MARK + before)


def send_until(peer, message, condition):
    """A node that does not keep up loses frames, as is normal on a bus; those that come again fill the
    gaps."""
    def is_met():
        peer.send(message)
        with contextlib.suppress(AssertionError):
            return wait_until(condition, "it has come", deadline=2)
    wait_until(is_met, "it has come whole")


# Subscriptions


def test_a_subscription_is_asked_for_and_confirmed_with_what_was_said_last(node, peer):
    node.do("subscribe weather in the north")
    assert peer.receive() == Frame(bus_wire.DISCOVERY_REQUEST, UNADDRESSED)
    asked = peer.receive_type(bus_wire.SUBSCRIBE_REQUEST)
    assert asked == Frame(bus_wire.SUBSCRIBE_REQUEST, NODE, BROADCAST, encode_identity_and_topic(THEIRS, "weather"))
    assert "no known publisher" in node.fails("validate")
    peer.send(Frame(bus_wire.SUBSCRIBE_RESPONSE, dest=NODE, data=encode_identity_and_topic(OURS, "weather")))
    peer.send(event("weather", b"rain", 5, dest=NODE))
    node.wait_heard(heard_event("weather", b"rain"))
    node.do("validate")


def test_a_subscriber_is_told_who_publishes_and_what_was_said_last(node, peer):
    node.do("advertise weather in the north")
    node.do("publish weather " + in_hex(b"rain"))
    said = peer.receive_type(bus_wire.EVENT)
    assert said == event("weather", b"rain", said.msg_id, source=NODE)
    node.do("advertise silence nothing yet")
    for pattern, topics in [("weather", ["weather"]), ("w*r", ["weather"]), ("silence", ["silence"]),
                            ("*", ["silence", "weather"])]:
        peer.send(Frame(bus_wire.SUBSCRIBE_REQUEST, data=encode_identity_and_topic(OURS, pattern)))
        for topic in topics:
            assert peer.receive() == Frame(bus_wire.SUBSCRIBE_RESPONSE, NODE, PEER,
                                           encode_identity_and_topic(THEIRS, topic))
            if topic == "weather":
                assert peer.receive() == dataclasses.replace(said, dest=PEER)


def test_nobody_answers_for_a_topic_that_is_not_published(node, peer):
    node.do("advertise weather in the north")
    node.do("publish weather " + in_hex(b"rain"))
    for pattern in ("weath", "", "x*", "Weather"):
        peer.send(Frame(bus_wire.SUBSCRIBE_REQUEST, data=encode_identity_and_topic(OURS, pattern)))
    mark(node, peer)
    assert not [message for message in peer.heard if message.type == bus_wire.SUBSCRIBE_RESPONSE]


def test_the_end_of_a_subscription_is_told_and_heard(node, peer):
    node.do("unsubscribe weather")
    told = peer.receive_type(bus_wire.UNSUBSCRIBE_REQUEST)
    assert told == Frame(bus_wire.UNSUBSCRIBE_REQUEST, NODE, BROADCAST, encode_identity_and_topic(THEIRS, "weather"))
    node.do("publish weather " + in_hex(b"rain"))
    for kind in (bus_wire.SUBSCRIBE_REQUEST, bus_wire.UNSUBSCRIBE_REQUEST, bus_wire.UNSUBSCRIBE_REQUEST):
        peer.send(Frame(kind, data=encode_identity_and_topic(OURS, "w*")))
    # Events go to everybody, whoever has asked for them.
    node.do("publish weather " + in_hex(b"snow"))
    assert peer.receive(lambda message: message.data == b"snow").dest == BROADCAST


def test_a_pattern_takes_only_topics_whose_names_have_been_heard(node, peer):
    node.do("subscribe weather.*")
    peer.send(event("weather.north", b"unheard of", 1))
    peer.send(Frame(bus_wire.SUBSCRIBE_RESPONSE, dest=NODE, data=encode_identity_and_topic(OURS, "weather.north")))
    peer.send(event("weather.north", b"snow", 2))
    node.wait_heard(heard_event("weather.north", b"snow", pattern="weather.*"))
    assert len(node.all_heard("event")) == 1


# Discovery


def test_an_announcement_tells_all_that_a_node_offers(node, peer):
    node.do("role thermometer")
    node.do("advertise weather in the north")
    node.do("serve forecast for tomorrow")
    node.do("subscribe alarm* to hide")
    node.do(f"connect {CLIENT} guest")
    node.do(f"client-serve {CLIENT} guest.question asks")
    peer.send(Frame(bus_wire.DISCOVERY_REQUEST))
    answer = peer.receive(lambda message: message.type == bus_wire.DISCOVERY_RESPONSE and message.dest == PEER)
    told = DiscoveryResponse.decode(answer.data)
    assert answer.source == NODE and told.identity == THEIRS and told.roles == ["thermometer"]
    assert told.publications == [TopicDescription("guest.question", "asks", 1),
                                 TopicDescription("weather", "in the north")]
    assert told.subscriptions == [TopicDescription("alarm*", "to hide")]
    assert told.modules == [HostedModule(CLIENT, "guest", ["guest.question"])]


def test_who_announces_itself_is_known_with_all_it_offers(node, peer):
    peer.announce(DiscoveryResponse(
        OURS, [TopicDescription("weather", "in the north"), TopicDescription("forecast", "for tomorrow", 1)],
        [TopicDescription("alarm*", "to hide")], ["thermometer"], [], [HostedModule(610, "guest", ["x"])]))
    mark(node, peer)
    assert node.devices() == {NODE: "node", PEER: "peer"}
    report = "\n".join(node.printed_by("report"))
    for text in (f"[{PEER}] peer", "weather - in the north", "forecast - for tomorrow", "alarm* - to hide"):
        assert text in report
    assert node.printed_by("table")


def test_an_announcement_of_many_frames_is_understood(node, peer):
    topics = [TopicDescription(f"topic.{i}", "x" * 50) for i in range(500)]
    peer.announce(DiscoveryResponse(OURS, topics))
    node.do("subscribe topic.*")
    peer.send(event("topic.499", b"last", 1))
    node.wait_heard(heard_event("topic.499", b"last", pattern="topic.*"))
    assert node.devices()[PEER] == "peer"


def test_a_node_asks_and_hears_who_is_there(node, peer):
    peer.answer_claims(DiscoveryResponse(OURS))
    node.do("discover")
    asked = peer.receive(lambda message: message.type == bus_wire.DISCOVERY_REQUEST and message.source == NODE)
    assert asked == Frame(bus_wire.DISCOVERY_REQUEST, NODE)
    mark(node, peer)
    assert node.devices()[PEER] == "peer"


# Events


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


# Requests


@pytest.mark.parametrize("size", SIZES)
def test_requests_and_replies_of_every_size_pass_both_ways(node, peer, size):
    data = random.Random(size).randbytes(size)
    node.do("serve question")
    asked = f"request question {PEER} {summary(data)}"
    send_until(peer, request("question", data, 77), lambda: asked in node.heard)
    reply = peer.receive_type(bus_wire.RESPONSE)
    assert reply == Frame(bus_wire.RESPONSE, NODE, PEER, data, msg_id=77, origin=(0, NODE))
    node.tell(f"request riddle {LONG} {in_hex(data)}")
    asked = peer.receive_type(bus_wire.REQUEST)
    assert asked == request("riddle", data, asked.msg_id, source=NODE)
    reply = Frame(bus_wire.RESPONSE, dest=NODE, data=data[::-1], msg_id=asked.msg_id)
    send_until(peer, reply, lambda: node.answers)
    assert node.answer() == f"{PEER} {summary(data[::-1])}"


def test_a_question_from_behind_a_hub_is_answered_to_where_it_came_from(node, peer):
    node.do("serve question")
    for origin, target in [(None, PEER), ((0, 7000), 7000), ((9000, 7000), 9000)]:
        peer.send(request("question", b"?", 5, origin=origin))
        assert peer.receive_type(bus_wire.RESPONSE).dest == target
        node.wait_heard(f"request question {target} {summary(b'?')}")


def test_the_first_reply_wins_and_all_are_collected(node, peer):
    node.tell(f"request riddle {LONG} -")
    asked = peer.receive_type(bus_wire.REQUEST)
    peer.send(Frame(bus_wire.RESPONSE, PEER + 1, NODE, b"nobody's", msg_id=asked.msg_id + 1))
    peer.send(Frame(bus_wire.RESPONSE, PEER + 2, NODE, b"first", msg_id=asked.msg_id))
    assert node.answer() == f"{PEER + 2} {summary(b'first')}"
    node.tell(f"collect {BROADCAST} riddle 2000 -")
    asked = peer.receive_type(bus_wire.REQUEST)
    assert asked.dest == BROADCAST
    for source, data in [(PEER, b"one"), (PEER + 1, b"two"), (PEER, b"three")]:
        peer.send(Frame(bus_wire.RESPONSE, source, NODE, data, msg_id=asked.msg_id))
    assert node.answer() == "2"
    assert sorted(node.all_heard("reply")) == [f"{PEER} {summary(b'three')}", f"{PEER + 1} {summary(b'two')}"]


def test_a_request_to_one_address_names_it(node, peer):
    node.tell(f"collect {PEER} riddle 1 -")
    assert peer.receive_type(bus_wire.REQUEST).dest == PEER
    assert node.answer() == "0"


def test_a_question_that_nobody_answers_ends_with_its_time(node, peer):
    node.do("serve-nothing broken")
    assert node.do("request riddle 1 -") == "none"
    peer.send(request("broken", b"?", 5))
    mark(node, peer)
    assert node.warnings() == [REFUSED]
    assert [message.msg_id for message in peer.heard if message.type == bus_wire.RESPONSE] == [MARK]


# Clients


def test_a_clients_messages_bear_its_address(node, peer):
    assert node.do(f"connect {CLIENT} guest") == str(CLIENT)
    msg_id = int(node.do(f"client-publish {CLIENT} weather " + in_hex(b"rain")))
    assert peer.receive_type(bus_wire.EVENT) == event("weather", b"rain", msg_id, source=NODE, origin=(0, CLIENT))
    msg_id = int(node.do(f"client-send {CLIENT} {PEER} weather " + in_hex(b"snow")))
    assert peer.receive_type(bus_wire.EVENT) == event("weather", b"snow", msg_id, source=NODE, dest=PEER,
                                                      origin=(0, CLIENT))
    node.tell(f"client-request {CLIENT} {PEER} riddle {LONG} " + in_hex(b"?"))
    asked = peer.receive_type(bus_wire.REQUEST)
    assert asked == request("riddle", b"?", asked.msg_id, source=NODE, dest=PEER, origin=(0, CLIENT))
    peer.send(Frame(bus_wire.RESPONSE, dest=CLIENT, data=b"answer", msg_id=asked.msg_id))
    assert node.answer() == summary(b"answer")


def test_a_client_is_reached_at_its_own_address(node, peer):
    node.do(f"connect {CLIENT} guest")
    node.do(f"client-serve {CLIENT} question")
    node.do(f"client-subscribe {CLIENT} news")
    node.do("subscribe news")
    peer.send(request("question", b"?", 5, dest=CLIENT))
    assert peer.receive_type(bus_wire.RESPONSE) == Frame(bus_wire.RESPONSE, NODE, PEER, b"?", msg_id=5,
                                                         origin=(0, CLIENT))
    peer.send(event("news", b"for the client", 6, dest=CLIENT))
    peer.send(event("news", b"for all", 7))
    node.wait_heard(heard_event("news", b"for all"))
    for data in (b"for the client", b"for all"):
        node.wait_heard(f"client-event {CLIENT} news news {PEER} {summary(data)}")
    assert len(node.all_heard("event")) == 1
    node.do(f"client-leave {CLIENT}")
    peer.send(request("question", b"?", 8, dest=CLIENT))
    mark(node, peer)
    assert node.all_heard("client-request") == [f"{CLIENT} question {summary(b'?')}"]
