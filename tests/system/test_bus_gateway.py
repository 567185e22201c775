"""A tool that joins the bus over TCP, through the gateway of an application."""
import dataclasses
import itertools
import random
import socket

import pytest

import bus_wire
from bus_payloads import DiscoveryResponse, Identity, TopicDescription, encode_identity_and_topic, topic_id
from bus_peer import PEER, BusPeer, BusTool
from bus_program import BusProgram, in_hex, summary
from bus_wire import BROADCAST, UNADDRESSED, Frame
from daemon import STOPPED_BY_SIGTERM
from frame_app import frame_log_messages
from programs import DEADLINE, wait_until

PORT = 5999
APP, LOCAL, REMOTE, NODE, TOOL, CLIENT = 200, 1100, 50000, 500, 700, 510
BUS_DOMAIN, TOOL_DOMAIN = 0, 1
VARIABLE = "CONSOLE_APP_GATEWAY_TCP_PORT"
NOT_SET = "bus gateway: CONSOLE_APP_GATEWAY_TCP_PORT not set - no TCP gateway started"
LONG = 20_000
OURS = DiscoveryResponse(Identity("tool", "a test", 1), [TopicDescription("answers", "", 1)])
DIRECTED = [bus_wire.SUBSCRIBE_REQUEST, bus_wire.SUBSCRIBE_RESPONSE, bus_wire.UNSUBSCRIBE_REQUEST,
            bus_wire.DISCOVERY_RESPONSE, bus_wire.EVENT, bus_wire.REQUEST, bus_wire.RESPONSE]
message_ids = itertools.count(1000)


def listening(port):
    return f"bus gateway: listening on TCP port {port}"


def failed(value, why):
    return (f"bus gateway: {VARIABLE}={value} was set but the gateway failed to start ({why}) - continuing without "
            "it; if the port is already in use, on macOS check AirPlay Receiver (System Settings > General > AirDrop & "
            "Handoff), which squats on 5000/7000 by default, then free it or pick a different port.")


@pytest.fixture
def gateway(frame):
    """An application with a gateway, which listens when this is there."""
    app = frame(CONSOLE_APP_GATEWAY_TCP_PORT=str(PORT)).wait_ready()
    assert "INFO " + listening(PORT) in frame_log_messages()
    yield app
    assert app.stop() == STOPPED_BY_SIGTERM


@pytest.fixture
def tool(gateway):
    with BusTool(TOOL, PORT) as tool:
        yield tool


@pytest.fixture
def node(gateway):
    with BusProgram(NODE, "node") as node:
        assert node.join() == (NODE, "node")
        node.do("serve question")
        node.do("subscribe news")
        yield node


def ask(tool, dest, topic, data, compress=False):
    """The reply of a node, which may have to be found first."""
    asked = set()

    def replied():
        asked.add(msg_id := next(message_ids))
        tool.send(Frame(bus_wire.REQUEST, dest=dest, data=data, msg_id=msg_id, topic_id=topic_id(topic)), compress)
        return tool.hear(lambda message: message.type == bus_wire.RESPONSE and message.msg_id in asked, 0.2)
    return wait_until(replied, f"{dest} replies")


def records(teller, source):
    """What a hub tells of those behind it: hops and note by address."""
    teller.send(Frame(bus_wire.DISCOVERY_REQUEST, UNADDRESSED))
    answer = teller.receive(lambda message: message.type == bus_wire.DISCOVERY_RESPONSE and message.source == source)
    told = DiscoveryResponse.decode(answer.data)
    return told.identity.name, {record.address: (record.hops, record.note) for record in told.records}


def announced(tool, peer):
    """Makes the tool known to the bus."""
    tool.announce(OURS)
    wait_until(lambda: TOOL in records(peer, LOCAL)[1], "the bus knows the tool")
    return tool


# Who is there


def test_a_tool_finds_the_nodes_of_the_bus(tool, node):
    wait_until(lambda: {APP, LOCAL, NODE} <= set(records(tool, REMOTE)[1]), "the gateway has found all")
    name, told = records(tool, REMOTE)
    assert name == "frame_app-gateway-tcp"
    assert told[TOOL_DOMAIN] == (1, "own domain")
    assert told[NODE] == told[APP] == told[BUS_DOMAIN] == (2, "forwarded")


def test_a_tool_that_announces_itself_is_told_of_on_the_bus(tool, peer):
    assert TOOL not in records(peer, LOCAL)[1]
    announced(tool, peer)
    name, told = records(peer, LOCAL)
    assert name == "frame_app-gateway-local"
    assert told[TOOL] == told[TOOL_DOMAIN] == (2, "forwarded")


# What crosses


@pytest.mark.parametrize("compress", [False, True], ids=["plain", "compressed"])
def test_a_tool_asks_a_node_and_gets_its_reply(tool, node, compress):
    for size in (0, 1, 4014, 4015, 200_000):
        data = bytes(random.Random(size).choices(b"abcdefghijklmnop", k=size))
        reply = ask(tool, NODE, "question", data, compress)
        assert (reply.data, reply.dest, reply.origin) == (data, TOOL, (BUS_DOMAIN, NODE))
        node.wait_heard(f"request question {TOOL} {summary(data)}")


def test_whole_replies_are_compressed_for_the_tool(tool, node, peer):
    data = bytes(3000)
    assert ask(tool, NODE, "question", data).data == data
    assert peer.receive_type(bus_wire.RESPONSE).data == data
    assert [frame.frag_flags for frame in tool.frames if frame.type == bus_wire.RESPONSE] == [bus_wire.COMPRESSED]
    assert {frame.frag_flags for frame in peer.frames if frame.type == bus_wire.RESPONSE} == {0}


def test_a_node_that_joins_later_is_reachable(tool, gateway):
    with BusProgram(NODE, "late") as late:
        late.join()
        late.do("serve question")
        assert ask(tool, NODE, "question", b"?").data == b"?"


def test_a_tool_reaches_a_client_of_a_node(tool, node):
    node.do(f"connect {CLIENT} guest")
    node.do(f"client-serve {CLIENT} question")
    assert ask(tool, CLIENT, "question", b"?").origin == (BUS_DOMAIN, CLIENT)


def test_a_node_asks_a_tool_and_gets_its_reply(tool, node, peer):
    announced(tool, peer)
    node.do(f"connect {CLIENT} guest")
    node.tell(f"client-request {CLIENT} {TOOL} riddle {LONG} {in_hex(b'?')}")
    asked = tool.receive_type(bus_wire.REQUEST)
    assert (asked.data, asked.dest, asked.topic_id) == (b"?", TOOL, topic_id("riddle"))
    tool.send(Frame(bus_wire.RESPONSE, dest=asked.origin[1], data=b"answer", msg_id=asked.msg_id))
    assert node.answer() == summary(b"answer")


def test_events_cross_both_ways_to_whom_they_are_addressed(tool, node, peer):
    ask(tool, NODE, "question", b"")
    announced(tool, peer)
    node.do(f"connect {CLIENT} guest")
    for data in (b"short", random.Random(1).randbytes(50_000)):
        tool.send(Frame(bus_wire.EVENT, dest=NODE, data=data, msg_id=next(message_ids), topic_id=topic_id("news")))
        node.wait_heard(f"event news news {BUS_DOMAIN}:{TOOL} {summary(data)}")
        node.do(f"client-send {CLIENT} {TOOL} news {in_hex(data)}")
        assert tool.receive_type(bus_wire.EVENT).data == data


def test_every_message_with_content_crosses_unchanged(tool, peer):
    """Subscriptions too: a node that answers where one came from answers the tool."""
    announced(tool, peer)
    peer.announce(DiscoveryResponse(Identity("peer")))
    wait_until(lambda: PEER in records(tool, REMOTE)[1], "the tool's side knows the peer")
    for kind in DIRECTED:
        for one, other, gate, domain in [(tool, peer, LOCAL, BUS_DOMAIN), (peer, tool, REMOTE, TOOL_DOMAIN)]:
            sent = Frame(kind, one.address, other.address, payload_of(kind), topic_id=topic_id("news"),
                         msg_id=next(message_ids) if kind >= bus_wire.EVENT else 0)
            for changes, origin in [({}, (domain, one.address)), ({"origin": (9000, 8000), "ttl": 1}, (9000, 8000))]:
                one.send(dataclasses.replace(sent, **changes))
                arrived = other.receive(lambda message: message.type == kind and message.dest == other.address)
                assert arrived == dataclasses.replace(sent, source=gate, origin=origin, ttl=changes.get("ttl", 8) - 1)


def payload_of(kind):
    if kind == bus_wire.DISCOVERY_RESPONSE:
        return OURS.encode()
    return encode_identity_and_topic(OURS.identity, "news")


def test_what_is_for_all_or_has_no_hops_left_stays_on_its_side(tool, node, peer):
    ask(tool, NODE, "question", b"")
    announced(tool, peer)
    for sender, dest in [(tool, NODE), (peer, TOOL)]:
        for data, to, ttl in [(b"for all", BROADCAST, 8), (b"no hops", dest, 0), (b"the end", dest, 8)]:
            sender.send(Frame(bus_wire.EVENT, dest=to, data=data, msg_id=next(message_ids), topic_id=topic_id("news"),
                              ttl=ttl))
    assert tool.receive_type(bus_wire.EVENT).data == b"the end"
    node.wait_heard(f"event news news {BUS_DOMAIN}:{TOOL} {summary(b'the end')}")
    heard = [line.partition(" ")[2].split()[1] for line in node.all_heard("event")]
    assert heard == [f"{BUS_DOMAIN}:{PEER}", f"{BUS_DOMAIN}:{TOOL}"] or \
        heard == [f"{BUS_DOMAIN}:{TOOL}", f"{BUS_DOMAIN}:{PEER}"]


def test_bytes_that_are_no_frames_are_passed_over(tool, node):
    tool.socket.sendall(b"GET / HTTP/1.1\r\n\r\n" + bus_wire.PREFIX[:3] + bytes(5000))
    assert ask(tool, NODE, "question", b"?").data == b"?"


def test_a_tool_may_leave_and_come_back(gateway, node):
    for _ in range(3):
        with BusTool(TOOL, PORT) as tool:
            assert ask(tool, NODE, "question", b"?").data == b"?"


def test_a_frame_to_one_address_is_one_datagram_on_a_bus_of_twenty_nodes(gateway, stack, peer):
    nodes = [stack.enter_context(BusProgram(NODE + i, f"node{i}")) for i in range(20)]
    for node in nodes:
        node.tell("join")
    for i, node in enumerate(nodes):
        assert node.answer() == f"{NODE + i} node{i}"
        node.do("serve question")
        node.do(f"connect {8000 + i} guest{i}")
    tool = stack.enter_context(BusTool(TOOL, PORT))
    announced(tool, peer)
    for i in range(len(nodes)):
        ask(tool, NODE + i, "question", b"")
    for i in range(len(nodes)):
        tool.send(Frame(bus_wire.REQUEST, dest=NODE + i, data=b"?", msg_id=i + 1, topic_id=topic_id("question")))
        assert tool.receive_type(bus_wire.RESPONSE).msg_id == i + 1
        nodes[i].do(f"client-send {8000 + i} {TOOL} news {in_hex(b'?')}")
        tool.receive_type(bus_wire.EVENT)
    for sender in (tool, peer):
        sender.send(Frame(bus_wire.EVENT, dest=30_000, data=b"?", msg_id=next(message_ids)))
    peer.send(Frame(bus_wire.EVENT, dest=TOOL, data=b"end", msg_id=100))
    tool.receive(lambda message: message.data == b"end")
    ask(tool, NODE, "question", b"end")
    peer.receive(lambda message: message.type == bus_wire.RESPONSE and message.data == b"end")
    on_bus = [frame.type for frame in peer.frames if frame.data == b"?"]
    assert sorted(on_bus) == [bus_wire.EVENT] * 20 + [bus_wire.REQUEST] * 20 + [bus_wire.RESPONSE] * 20


# Whether there is one


def check_nothing_listens(peer):
    """Nothing extra is on the bus, or on the port."""
    name, _ = records(peer, APP)
    assert name == "frame_app"
    assert {message.source for message in peer.heard} <= {APP, UNADDRESSED}
    with pytest.raises(ConnectionRefusedError):
        socket.create_connection(("127.0.0.1", PORT), timeout=DEADLINE)


def test_without_the_variable_there_is_none(frame, peer):
    app = frame().wait_ready()
    assert "INFO " + NOT_SET in frame_log_messages()
    assert "bus gateway" not in app.errors()
    check_nothing_listens(peer)


@pytest.mark.parametrize("value", ["", "abc", "5999x", "70000", "-1", "99999999999"])
def test_a_bad_number_leaves_the_application_without_one(frame, peer, value):
    app = frame(CONSOLE_APP_GATEWAY_TCP_PORT=value).wait_ready()
    assert failed(value, "stoi") in app.errors().splitlines()
    assert "ERROR " + failed(value, "stoi") in frame_log_messages()
    check_nothing_listens(peer)
    app.do("log INFO still there")
    assert app.stop() == STOPPED_BY_SIGTERM


def test_a_second_application_on_the_port_goes_on_without_one(daemon, gateway):
    daemon.start(environment={VARIABLE: str(PORT)})
    text = failed(PORT, f"HubGateway: failed to open TCP listener on port {PORT}")
    assert text in daemon.output().splitlines()
    daemon.wait_log(text)
    assert "[mirelclient] [ERROR] [" in next(line for line in daemon.log().splitlines() if text in line)
    assert listening(PORT) not in daemon.log()
    # The first one's is not disturbed.
    with BusTool(TOOL, PORT) as tool:
        assert records(tool, REMOTE)[0] == "frame_app-gateway-tcp"


def test_the_daemon_has_one_of_its_name(daemon):
    daemon.start(environment={VARIABLE: str(PORT)})
    daemon.wait_log(listening(PORT))
    with BusTool(TOOL, PORT) as tool, BusPeer(PEER) as peer:
        assert records(tool, REMOTE)[0] == "mirelclient-gateway-tcp"
        assert records(peer, LOCAL)[0] == "mirelclient-gateway-local"
    assert daemon.stop() == STOPPED_BY_SIGTERM
