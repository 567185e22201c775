"""A node of the program's and one that has nothing of it, side by side on one bus."""
import contextlib

import pytest

import bus_wire
from bus_payloads import Identity, topic_id
from bus_peer import PEER
from bus_program import BusProgram, summary
from bus_wire import Frame
from programs import wait_until

NODE, CLIENT = 500, 510
OURS = Identity("peer", "a test", 7, "group", "extra")
THEIRS = Identity("node", "node", 1)
SIZES = [0, 1, 4014, 4015, 100_000, 0x100000]
MARK = 0x7F000000
MARKED = f"request mark {PEER} {summary(b'')}"


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
    """The node's line for it."""
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
