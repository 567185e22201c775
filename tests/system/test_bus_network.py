"""A bus whose network goes away and comes back, between here and the far end of a cable."""
import itertools

import pytest

from bus_program import BusProgram, in_hex, summary
from cable import Cable
from other_network import run
from programs import wait_until

HERE, THERE = 500, 600
SILENCE_MS = 400
numbers = itertools.count(1)


class Bus(Cable):
    """Multicast goes through the cable at both ends."""

    def plug_in(self):
        super().plug_in()
        self.find_way()

    def find_way(self):
        run("ip", "route", "replace", "224.0.0.0/4", "dev", "near")
        self.there("ip", "route", "replace", "224.0.0.0/4", "dev", "far")

    def end(self):
        super().end()
        run("ip", "route", "replace", "224.0.0.0/4", "dev", "lo")


@pytest.fixture
def bus():
    bus = Bus()
    yield bus
    bus.end()


def start_nodes(bus, stack, **options):
    nodes = [BusProgram(HERE, "here", **options), BusProgram(THERE, "there", bus.inside, **options)]
    for node in nodes:
        stack.push(node)
    assert [node.join() for node in nodes] == [(HERE, "here"), (THERE, "there")]
    for node in nodes:
        node.do("subscribe news")
    return nodes


def reaches(one, other, address):
    """Whether something that is said anew is heard at the other end. A datagram may be lost."""
    data = b"news %d" % next(numbers)
    heard = f"event news news 0:{address} {summary(data)}"
    one.do("publish news " + in_hex(data))
    return wait_briefly(lambda: heard in other.heard)


def wait_briefly(condition):
    try:
        return wait_until(condition, "it is heard", deadline=0.5)
    except AssertionError:
        return False


def check_flow(here, there):
    wait_until(lambda: reaches(here, there, HERE), "the far end hears this one")
    wait_until(lambda: reaches(there, here, THERE), "this end hears the far one")


def take_down(bus):
    run("ip", "link", "set", "near", "down")


def bring_up(bus):
    run("ip", "link", "set", "near", "up")
    bus.find_way()


def take_down_far_end(bus):
    bus.there("ip", "link", "set", "far", "down")


def bring_up_far_end(bus):
    bus.there("ip", "link", "set", "far", "up")
    bus.find_way()


OUTAGES = {"the interface here": (take_down, bring_up), "the interface there": (take_down_far_end, bring_up_far_end),
           "both are replaced": (lambda bus: bus.pull_out(), lambda bus: bus.plug_in())}
ALL_OUTAGES = pytest.mark.parametrize("begin, end", OUTAGES.values(), ids=OUTAGES)


@ALL_OUTAGES
def test_traffic_flows_again_both_ways(bus, stack, begin, end):
    here, there = start_nodes(bus, stack, silence_ms=SILENCE_MS)
    check_flow(here, there)
    for _ in range(2):
        begin(bus)
        assert not reaches(here, there, HERE)
        assert not reaches(there, here, THERE)
        before = rejoins(here, there)
        # Silence without a network is no reason to give up.
        wait_until(lambda: all(now > then for now, then in zip(rejoins(here, there), before)), "both try to join anew")
        end(bus)
        check_flow(here, there)


def rejoins(*nodes):
    return [int(node.do("rejoins")) for node in nodes]


@ALL_OUTAGES
def test_an_outage_that_is_over_before_it_is_noticed_is_survived(bus, stack, begin, end):
    here, there = start_nodes(bus, stack, silence_ms=SILENCE_MS)
    check_flow(here, there)
    begin(bus)
    end(bus)
    check_flow(here, there)


def test_requests_are_answered_again_both_ways(bus, stack):
    here, there = start_nodes(bus, stack, silence_ms=SILENCE_MS)
    for node in (here, there):
        node.do("serve question")
    bus.pull_out()
    assert here.do("request question 1 -") == "none"
    bus.plug_in()
    for one, other in [(here, THERE), (there, HERE)]:
        wait_until(lambda: one.do(f"request question 500 {in_hex(b'?')}") == f"{other} {summary(b'?')}",
                   "a question is answered")


def test_the_usual_patience_with_silence_is_fifteen_seconds(bus, stack):
    here, there = start_nodes(bus, stack)
    bus.pull_out()
    bus.plug_in()
    assert rejoins(here, there) == [0, 0]
    # Nobody speaks meanwhile: whoever speaks hears itself.
    wait_until(lambda: min(rejoins(here, there)) > 0, "the silence is noticed")
    check_flow(here, there)
