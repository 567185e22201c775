"""A network that vanishes without a word between the daemon and its server, which stands in a
network namespace of its own."""
import ctypes
import threading
import time

import pytest
from cable import HERE, THERE, Cable
from other_network import run
from programs import wait_until
from tunnel_server import DATA, TunnelServer

NOWHERE = "02:00:00:00:00:99"
CLONE_NEWNET = 0x40000000
LIMIT = 30


class Network(Cable):
    """Frames for a wrong address are lost, and nobody is told."""

    def __init__(self):
        super().__init__()
        self.near_address = self.address_in(run("ip", "-o", "link", "show", "near"))
        self.far_address = self.address_in(self.there("ip", "-o", "link", "show", "far"))

    @staticmethod
    def address_in(text):
        words = text.split()
        return words[words.index("link/ether") + 1]

    def vanish(self):
        run(*self.neighbour(THERE, NOWHERE, "near"))
        self.there(*self.neighbour(HERE, NOWHERE, "far"))

    def come_back(self):
        run(*self.neighbour(THERE, self.far_address, "near"))
        self.there(*self.neighbour(HERE, self.near_address, "far"))

    @staticmethod
    def neighbour(host, address, device):
        return ["ip", "neigh", "replace", host, "lladdr", address, "dev", device, "nud", "permanent"]

    def listen(self, port):
        """A socket stays in the namespace in which its thread was."""
        made = []

        def make():
            with open(f"/proc/{self.other.pid}/ns/net") as namespace:
                assert ctypes.CDLL(None).setns(namespace.fileno(), CLONE_NEWNET) == 0
            made.append(TunnelServer(THERE, port))

        worker = threading.Thread(target=make)
        worker.start()
        worker.join()
        return made[0]


@pytest.fixture
def network():
    network = Network()
    yield network
    network.end()


def open_sockets(daemon):
    """The daemon's connections to the other end, by their state."""
    lines = run("ss", "-tnpH", "dst", THERE).splitlines()
    return [line.split()[0] for line in lines if f"pid={daemon.pid}," in line]


@pytest.fixture
def server(network):
    server = network.listen(7000)
    yield server
    server.end()


@pytest.mark.parametrize("busy", [False, True], ids=["idle", "busy"])
def test_a_dead_connection_is_replaced_soon_after_the_networks_return(daemon, network, server, busy):
    daemon.configure(tunnel_addr=server.address)
    daemon.start()
    tunnel = server.accept()
    if busy:
        tunnel.open(1, "console")
        tunnel.type(1, "while :; do echo r''eady; sleep 0.2; done\n")
        tunnel.read_console_until(1, "ready\r\n")
    network.vanish()
    wait_until(lambda: "ESTAB" not in open_sockets(daemon), "the loss is noticed")
    network.come_back()
    returned = time.monotonic()
    second = server.accept()
    assert time.monotonic() - returned < LIMIT
    second.send(DATA, 1, b"who?")
    second.expect_all_handled()


def test_a_server_that_has_forgotten_the_connection_gets_another_one(daemon, network, server):
    """The network is back before the daemon has noticed, and the server was another one meanwhile."""
    daemon.configure(tunnel_addr=server.address)
    daemon.start()
    first = server.accept()
    network.vanish()
    first.abort()
    network.come_back()
    returned = time.monotonic()
    server.accept().expect_all_handled()
    assert time.monotonic() - returned < LIMIT


def test_an_outage_of_a_moment_is_survived(daemon, network, server):
    daemon.configure(tunnel_addr=server.address)
    daemon.start()
    tunnel = server.accept()
    network.vanish()
    tunnel.open(1, "no such target")
    network.come_back()
    tunnel.open(2, "console")
    kinds = [tunnel.read()[:2] for _ in range(2)]
    assert (4, 1) in kinds and (DATA, 2) in kinds
