"""How a node settles with others that have what it wants, where these are nodes that have nothing of it."""
import pytest

import bus_wire
from bus_payloads import DiscoveryResponse, HostedModule, Identity
from bus_peer import PEER, BusPeer
from bus_program import BusProgram
from bus_warnings import claimed_at_same_instant, giving_up, in_use, no_name_left, renamed
from bus_wire import BROADCAST

NODE, CLIENT = 500, 510
CLIENT_KIND = "local-client address"
# Those who contest an address must be in time, even on a busy machine.
WINDOW = {"probe_window_ms": 500}


def announcement(name, modules=()):
    return DiscoveryResponse(Identity(name, "a test", 1), modules=list(modules))


def is_announcement(message):
    return message.type == bus_wire.DISCOVERY_RESPONSE and message.dest == BROADCAST


def test_who_is_alone_has_no_conflict(peer):
    with BusProgram(NODE, "node") as node:
        assert node.join() == (NODE, "node")
        assert not node.warnings()


@pytest.mark.parametrize("address", [0xFFFFFFFE, 0xFFFFFFFF])
def test_an_address_that_cannot_be_a_nodes_own_is_not_claimed(peer, address):
    with BusProgram(address, "node") as node:
        assert 1 <= node.join()[0] <= 65533
        assert not node.warnings()


@pytest.mark.parametrize("modules", [[], [HostedModule(NODE, "guest")]], ids=["a node", "a client"])
def test_an_address_that_somebody_has_is_left_to_them(modules):
    with BusPeer(PEER if modules else NODE) as holder, BusProgram(NODE, "node", **WINDOW) as node:
        holder.answer_claims(announcement("holder", modules))
        address, _ = node.join()
        assert address != NODE and 1 <= address <= 65533
        assert node.warnings() == [in_use(NODE, 1)]


def test_a_node_settles_somewhere_where_every_address_is_claimed(peer):
    tried = []

    def claim(message):
        if is_announcement(message):
            tried.append(message.source)
            peer.announce(announcement("everywhere"), source=message.source)
    peer.on_message = claim
    with BusProgram(NODE, "node", **WINDOW) as node:
        assert node.join() == (tried[7], "node")
        assert node.warnings() == [*(claimed_at_same_instant(address, i + 1) for i, address in enumerate(tried[:8])),
                                   giving_up(tried[7])]
    assert tried[0] == NODE and tried[8] == tried[7]
    assert len(set(tried[:8])) == 8


@pytest.mark.parametrize("taken, new", [(["node"], "node2"), (["node", "node2", "node4"], "node3"),
                                        (["node2"], "node"), (["n" * 49], "n" * 49 + "2")])
def test_a_name_that_is_taken_gets_a_digit(stack, taken, new):
    wanted = "n" * 49 if len(new) > 40 else "node"
    for i, name in enumerate(taken):
        stack.enter_context(BusPeer(PEER + i)).answer_claims(announcement(name))
    node = stack.enter_context(BusProgram(NODE, wanted, **WINDOW))
    assert node.join() == (NODE, new)
    assert node.warnings() == ([renamed(wanted, new[-1])] if new != wanted else [])


def test_a_name_of_which_every_digit_is_taken_is_kept(stack):
    for i in range(9):
        holder = stack.enter_context(BusPeer(PEER + i))
        holder.answer_claims(announcement("node" + (str(i + 1) if i else "")))
    node = stack.enter_context(BusProgram(NODE, "node", **WINDOW))
    assert node.join() == (NODE, "node")
    assert node.warnings() == [no_name_left("node")]


# Clients


def test_a_client_gives_way_to_a_node_that_has_its_address(peer):
    peer.answer_claims(announcement("holder"))
    with BusProgram(NODE, "node", **WINDOW) as node:
        node.join()
        address = int(node.do(f"connect-resolved {PEER} guest"))
        assert address != PEER and 1 <= address <= 65533
        assert node.warnings() == [in_use(PEER, 1, CLIENT_KIND)]
        assert node.do(f"connect-resolved {CLIENT} guest") == str(CLIENT)
        announced = peer.receive(lambda message: is_announcement(message) and
                                 len(DiscoveryResponse.decode(message.data).modules) == 2)
        assert [module.address for module in DiscoveryResponse.decode(announced.data).modules] == \
            sorted([address, CLIENT])


def test_a_client_gives_way_to_its_own_node_and_to_another_client_of_it(peer):
    with BusProgram(NODE, "node") as node:
        node.join()
        first = int(node.do(f"connect-resolved {NODE} guest"))
        second = int(node.do(f"connect-resolved {first} other"))
        assert len({NODE, first, second}) == 3
        assert node.warnings() == [in_use(NODE, 1, CLIENT_KIND), in_use(first, 1, CLIENT_KIND)]


def test_a_client_gives_way_to_one_that_chose_its_address_in_the_same_instant(peer):
    def claim(message):
        if is_announcement(message) and \
                CLIENT in [module.address for module in DiscoveryResponse.decode(message.data).modules]:
            peer.announce(announcement("host", [HostedModule(CLIENT, "guest")]))
    peer.on_message = claim
    with BusProgram(NODE, "node", **WINDOW) as node:
        node.join()
        assert node.do(f"connect-resolved {CLIENT} guest") != str(CLIENT)
        assert node.warnings() == [claimed_at_same_instant(CLIENT, 1, CLIENT_KIND)]
