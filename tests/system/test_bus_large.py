"""Messages of a mebibyte, the largest that there are, between two processes.

All frames of a message leave at once, and a receiver that is not on a processor at that moment finds
what its socket's buffer has held. Where the system gives a socket less than the mebibyte that a node
asks for (docs/bus.md), messages of the size that it gives are the largest to be relied on.
"""
import socket

import pytest

from bus_stream import Receiver, Sender
from programs import is_sanitized

SO_RCVBUFFORCE = 33


def receive_buffer(asked):
    """What a node's socket gets of the size that it asks for."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as asking:
        asking.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, asked)
        try:
            asking.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, asked)
        except PermissionError:
            pass
        return asking.getsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF) // 2


LARGEST = min(receive_buffer(1 << 20), 1 << 20)
COUNT = 100 if is_sanitized() else 1000
ONE_IN_A_THOUSAND = 1  # may be lost


@pytest.fixture
def receiver():
    with Receiver() as receiver:
        yield receiver


def test_the_largest_messages_arrive_999_times_in_1000(receiver):
    Sender().send([LARGEST], COUNT, "acknowledged")
    counts = receiver.counts()
    assert counts.received >= COUNT - ONE_IN_A_THOUSAND
    assert counts[1:] == (0, 0, 0)


def test_large_requests_are_answered_with_all_they_brought(receiver):
    """The asker's socket has to hold its own frames, which come back to it, and those of the answer."""
    answered, damaged = Sender().request([LARGEST // 4], COUNT // 5)
    assert answered >= COUNT // 5 - ONE_IN_A_THOUSAND
    assert damaged == 0


def test_messages_faster_than_they_can_be_heard_are_lost_or_whole(receiver):
    """Nobody tells a sender that it is too fast. What comes is what was sent, and in its order."""
    sender = Sender()
    sender.send([LARGEST, 100_000, 16], COUNT // 2, 0)
    sender.wait_until_handled()
    hurried = receiver.counts()
    assert hurried.received > 0
    assert hurried[1:] == (0, 0, 0)
    sender.send([LARGEST], 10, "acknowledged")
    assert receiver.counts().received - hurried.received == 10
