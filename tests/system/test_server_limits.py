"""What mirelserver puts up with from machines, and what not."""
import concurrent.futures
import contextlib
import os
import socket

from programs import DEADLINE, wait_until
from reach import clients, error, machine_on, proxied, proxy
from tunnel_machine import CLOSE, DATA, REGISTER, TunnelMachine, frame

MOST_TUNNELS = 1024
LARGEST_PAYLOAD = 4 << 20
LARGEST_HEAD = 64 << 10


def dial(server):
    return socket.create_connection(("127.0.0.1", server.tunnel_port), timeout=DEADLINE)


def is_hung_up(connection):
    try:
        return connection.recv(1) == b""
    except ConnectionResetError:
        return True


def test_there_is_room_for_so_many_tunnels_and_no_more(server):
    with contextlib.ExitStack() as stack:
        tunnels = []
        for number in range(MOST_TUNNELS):
            tunnels.append(stack.enter_context(dial(server)))
            tunnels[-1].sendall(frame(REGISTER, 0, f"m{number}".encode()))
        wait_until(lambda: sum(client["tunnel"] for client in clients(server).values()) == MOST_TUNNELS,
                   "all tunnels stand")
        one_too_many = stack.enter_context(dial(server))
        assert is_hung_up(one_too_many)
        assert len(clients(server)) == MOST_TUNNELS

        tunnels[0].close()
        wait_until(lambda: not clients(server)["m0"]["tunnel"], "a tunnel has gone")

        def one_more():
            connection = stack.enter_context(dial(server))
            with contextlib.suppress(OSError):
                connection.sendall(frame(REGISTER, 0, b"late"))
            return clients(server).get("late", {}).get("tunnel")
        wait_until(one_more, "its place is free")


def head_of(size):
    start = b"HTTP/1.1 200 OK\r\nX: "
    return start + b"h" * (size - len(start) - 4) + b"\r\n\r\n"


def test_an_answers_head_has_a_limit(server):
    def serve(stream):
        line, _, _ = stream.request()
        stream.send(head_of(LARGEST_HEAD + line.count("/too-large")) + b"body")
        stream.close()

    with machine_on(server, serve=serve):
        # Python's own client takes no such line.
        with socket.create_connection(("127.0.0.1", server.port), timeout=DEADLINE) as browser:
            browser.sendall(f"GET {proxied('/largest')} HTTP/1.1\r\nHost: x\r\n\r\n".encode())
            answer = b"".join(iter(lambda: browser.recv(65536), b""))
        assert answer.startswith(head_of(LARGEST_HEAD)[:-2]) and answer.endswith(b"\r\n\r\nbody")
        assert proxy(server, "/too-large") == error(502, "the client's answer is malformed")


def test_a_head_without_an_end_is_given_up_at_the_limit(server):
    def serve(stream):
        stream.send(b"HTTP/1.1 200 OK\r\n")
        while not stream.closed:
            stream.send(b"X: y\r\n" * 1000)

    with machine_on(server, serve=serve) as machine:
        assert proxy(server) == error(502, "the client's answer is malformed")
        wait_until(lambda: machine.opened[0].closed, "the stream is closed")


def test_the_largest_frame_reaches_a_browser_and_a_larger_one_ends_the_tunnel(server):
    body = os.urandom(LARGEST_PAYLOAD)

    def serve(stream):
        line, _, _ = stream.request()
        if "/too-large" in line:
            stream.machine.socket.sendall(frame(DATA, stream.number, bytes(LARGEST_PAYLOAD + 1))[:9])
        else:
            stream.send(b"HTTP/1.1 200 OK\r\n\r\n")
            stream.send(body, LARGEST_PAYLOAD)
            stream.close()

    with machine_on(server, serve=serve) as machine:
        assert proxy(server, "/largest")[2] == body
        assert proxy(server, "/too-large") == error(502, "the client gave no answer")
        assert machine.ended.wait(DEADLINE)
    wait_until(lambda: not clients(server)["m1"]["tunnel"], "the tunnel is gone")


def test_data_for_a_stream_that_was_closed_disturbs_no_other(server):
    def serve(stream):
        line, _, _ = stream.request()
        if "/left" not in line:
            return stream.answer(b"heard")
        stream.wait(lambda: stream.closed, "the browser has left")
        for _ in range(100):
            stream.machine.send(DATA, stream.number, b"x" * 100_000)
        stream.machine.send(CLOSE, stream.number)
        stream.machine.send(CLOSE, stream.number)

    with machine_on(server, serve=serve) as machine:
        with socket.create_connection(("127.0.0.1", server.port)) as browser:
            browser.sendall(f"GET {proxied('/left')} HTTP/1.1\r\nHost: x\r\n\r\n".encode())
            wait_until(lambda: machine.opened, "the stream is open")
        for _ in range(20):
            assert proxy(server, "/stays")[2] == b"heard"


def test_a_second_registration_ends_the_streams_of_the_first(server):
    with machine_on(server) as first, concurrent.futures.ThreadPoolExecutor(3) as pool:
        pending = [pool.submit(proxy, server, f"/{number}") for number in range(3)]
        wait_until(lambda: len(first.opened) == 3, "the streams are open")
        second = TunnelMachine(server.tunnel_port, "m1", lambda stream: stream.answer(b"second"))
        for request in pending:
            assert request.result(DEADLINE) == error(502, "the client gave no answer")
        assert first.ended.wait(DEADLINE)
        assert proxy(server)[2] == b"second"
        second.close()


def test_a_further_registration_on_a_tunnel_is_ignored(server):
    with machine_on(server, serve=lambda stream: stream.answer(b"m1 itself")) as machine:
        machine.send(REGISTER, 0, b"m2")
        machine.send(REGISTER, 0, b"")
        assert proxy(server)[2] == b"m1 itself"
        assert list(clients(server)) == ["m1"]


def test_a_name_of_the_largest_size_is_taken(server):
    name = "é" * 64
    with machine_on(server, name, lambda stream: stream.answer(b"reached")):
        assert proxy(server, name=name)[2] == b"reached"


def test_a_machine_that_says_nothing_is_hung_up_on(server):
    with dial(server) as silent, dial(server) as half:
        half.sendall(frame(REGISTER, 0, b"a name")[:12])
        assert is_hung_up(silent)
        assert is_hung_up(half)
    assert clients(server) == {}


def test_machines_that_flood_a_stream_leave_the_memory_of_the_server_alone(server):
    """A browser that leaves takes what waited for it along."""
    def serve(stream):
        stream.send(b"HTTP/1.1 200 OK\r\n\r\n")
        while not stream.closed:
            stream.send(b"x" * 1_000_000, 1_000_000)

    def resident():
        with open(f"/proc/{server.pid}/statm") as numbers:
            return int(numbers.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")

    with machine_on(server, serve=serve) as machine:
        for number in range(12):
            with socket.create_connection(("127.0.0.1", server.port), timeout=DEADLINE) as browser:
                browser.sendall(f"GET {proxied('/')} HTTP/1.1\r\nHost: x\r\n\r\n".encode())
                wait_until(lambda: len(machine.opened) > number and machine.opened[number].closed,
                           "the stream is closed")
        assert clients(server)["m1"]["tunnel"]
    # Twelve streams brought 64 MiB each before they were closed.
    wait_until(lambda: resident() < 400 << 20, f"memory comes back: {resident() >> 20} MiB")
