"""The reverse tunnel of the real daemon, up to an independent server."""
import json
import os
import pathlib
import random
import signal
import socket
import subprocess
import threading

import pytest
from daemon import WEB_PORT
from load import request_bytes
from programs import wait_until
from tunnel_server import CLOSE, DATA, TunnelServer, frame

VNC_PORT = 5900


@pytest.fixture
def server():
    server = TunnelServer()
    yield server
    server.end()


@pytest.fixture
def tunnel(daemon, server):
    daemon.configure(tunnel_addr=server.address)
    daemon.start()
    return server.accept()


@pytest.fixture
def screen():
    with socket.create_server(("127.0.0.1", VNC_PORT)) as listener:
        listener.settimeout(60)
        yield listener


def descriptors(daemon):
    return len(os.listdir(f"/proc/{daemon.pid}/fd"))


def threads(daemon):
    return len(os.listdir(f"/proc/{daemon.pid}/task"))


def threads_named(daemon, name):
    tasks = pathlib.Path(f"/proc/{daemon.pid}/task")
    return sum((task / "comm").read_text() == name + "\n" for task in tasks.iterdir())


def test_without_an_address_there_is_no_tunnel(daemon):
    daemon.start()
    assert threads_named(daemon, "tunnel") == 0


def test_the_name_is_registered(daemon, server):
    daemon.configure(tunnel_addr=server.address, client_name="Tom's bóx \"1\"")
    daemon.start()
    server.accept("Tom's bóx \"1\"")


def test_an_http_stream_reaches_the_daemons_own_api(daemon, tunnel):
    tunnel.open(1, "http")
    tunnel.send(DATA, 1, request_bytes("GET", "/api/self"))
    head, body = tunnel.read_stream(1).split(b"\r\n\r\n")
    assert head.startswith(b"HTTP/1.1 200 OK\r\n")
    assert json.loads(body).keys() == daemon.get("/api/self").json().keys()


def test_a_request_may_come_in_pieces_and_others_in_between(tunnel):
    request = request_bytes("GET", "/api/packages")
    for stream in (1, 2):
        tunnel.open(stream, "http")
    for byte in request:
        tunnel.send(DATA, 1, bytes([byte]))
        tunnel.send(DATA, 99, b"for nobody")
    tunnel.send(9, 1, b"of an unknown type")
    assert tunnel.read_stream(1).endswith(b'{"body":[],"ok":true}')
    tunnel.send(DATA, 2, request)
    assert tunnel.read_stream(2).endswith(b'{"body":[],"ok":true}')


def test_a_vnc_stream_reaches_a_server_and_back(tunnel, screen):
    tunnel.open(5, "vnc")
    backend, _ = screen.accept()
    backend.sendall(b"RFB 003.008\n")
    assert tunnel.read() == (DATA, 5, b"RFB 003.008\n")
    tunnel.send(DATA, 5, b"RFB 003.008\n")
    assert backend.recv(100) == b"RFB 003.008\n"
    tunnel.send(CLOSE, 5)
    assert backend.recv(100) == b""
    assert tunnel.read() == (CLOSE, 5, b"")


def test_what_cannot_be_opened_is_closed(tunnel):
    tunnel.open(6, "vnc")
    assert tunnel.read() == (CLOSE, 6, b"")
    tunnel.open(7, "ftp")
    assert tunnel.read() == (CLOSE, 7, b"")


def test_a_console_answers_in_the_size_it_is_given(tunnel):
    tunnel.open(1, "console")
    tunnel.type(1, "stty size\n")
    tunnel.read_console_until(1, "24 80\r\n")
    tunnel.resize(1, 132, 43)
    tunnel.type(1, "stty size\n")
    tunnel.read_console_until(1, "43 132\r\n")
    tunnel.type(1, "exit\n")
    while (got := tunnel.read()) != (CLOSE, 1, b""):
        assert got[:2] == (DATA, 1)


def test_a_close_ends_the_shell_and_is_returned(daemon, tunnel):
    tunnel.open(1, "console")
    tunnel.type(1, "echo r''eady\n")
    tunnel.read_console_until(1, "ready\r\n")
    assert len(daemon.children()) == 1
    tunnel.send(CLOSE, 1)
    while (got := tunnel.read()) != (CLOSE, 1, b""):
        assert got[:2] == (DATA, 1)
    assert daemon.children() == set()


def test_closing_twice_is_harmless(tunnel, screen):
    tunnel.open(1, "vnc")
    backend, _ = screen.accept()
    tunnel.send(CLOSE, 1)
    tunnel.send(CLOSE, 1)
    tunnel.send(CLOSE, 1234)
    assert tunnel.read() == (CLOSE, 1, b"")
    tunnel.send(DATA, 1, b"too late")
    tunnel.expect_all_handled()


def test_a_thousand_streams_leave_nothing_behind(daemon, tunnel):
    request = request_bytes("GET", "/api/self")
    tunnel.open(0, "http")
    tunnel.send(DATA, 0, request)
    tunnel.read_stream(0)
    wait_until(lambda: threads_named(daemon, "tunnel-stream") == 0, "the first stream is over")
    before = descriptors(daemon), threads(daemon)
    for stream in range(1, 1001):
        tunnel.open(stream, "http")
        tunnel.send(DATA, stream, request)
        assert tunnel.read_stream(stream).startswith(b"HTTP/1.1 200 OK")
    # The web server keeps a thread or two for a while.
    wait_until(lambda: descriptors(daemon) <= before[0], "all descriptors are closed")
    wait_until(lambda: threads(daemon) <= before[1], "all threads have ended")


def test_streams_of_five_megabytes_at_once_arrive_byte_by_byte(tunnel, screen):
    count, size = 6, 5_000_000
    sent = [random.Random(seed).randbytes(size) for seed in range(count)]

    def send(backend, data):
        with backend:
            backend.sendall(data)

    workers = []
    for stream in range(count):
        tunnel.open(stream, "vnc")
        workers.append(threading.Thread(target=send, args=(screen.accept()[0], sent[stream])))
        workers[-1].start()
    received = [[] for _ in range(count)]
    running = count
    while running:
        kind, stream, payload = tunnel.read()
        assert kind in (DATA, CLOSE) and len(payload) <= 32768
        received[stream].append(payload)
        running -= kind == CLOSE
    for worker in workers:
        worker.join()
    assert [b"".join(parts) for parts in received] == sent


def test_five_megabytes_reach_a_backend_byte_by_byte(tunnel, screen):
    data = random.Random(1).randbytes(5_000_000)
    tunnel.open(1, "vnc")
    backend, _ = screen.accept()
    received = bytearray()

    def receive():
        while len(received) < len(data):
            received.extend(backend.recv(65536))

    worker = threading.Thread(target=receive)
    worker.start()
    tunnel.send(DATA, 1, data[:4_000_000])
    tunnel.send(DATA, 1, data[4_000_000:])
    worker.join()
    assert bytes(received) == data


def test_a_frame_of_four_mebibytes_is_taken_and_a_larger_one_ends_the_connection(daemon, tunnel, server, screen):
    tunnel.send(DATA, 77, bytes(4_194_304))
    tunnel.expect_all_handled()
    tunnel.open(1, "vnc")
    backend, _ = screen.accept()
    tunnel.connection.sendall(b"\x03\0\0\0\x01" + (4_194_305).to_bytes(4, "big"))
    assert backend.recv(1) == b""
    while (got := tunnel.read()) is not None:
        assert got == (CLOSE, 1, b"")
    server.accept().expect_all_handled()


def test_another_connection_follows_when_the_server_dies(daemon, tunnel, server, screen):
    tunnel.open(1, "vnc")
    backend, _ = screen.accept()
    tunnel.open(2, "console")
    tunnel.type(2, "echo r''eady\n")
    tunnel.read_console_until(2, "ready\r\n")
    port = server.port
    server.end()
    assert backend.recv(1) == b""
    wait_until(lambda: daemon.children() == set(), "the shell is gone")
    reborn = TunnelServer(port=port)
    try:
        second = reborn.accept()
        second.send(DATA, 1, b"who?")
        second.expect_all_handled()
    finally:
        reborn.end()


def test_a_stop_with_fifty_open_streams(daemon, tunnel, screen):
    backends = []
    for stream in range(50):
        tunnel.open(stream, "vnc")
        backends.append(screen.accept()[0])
    assert daemon.stop() == 128 + signal.SIGTERM
    assert [backend.recv(1) for backend in backends] == [b""] * 50


def test_a_stop_with_shells_that_ignore_their_hang_up_ends_them(daemon, tunnel):
    for stream in range(5):
        tunnel.open(stream, "console")
        tunnel.type(stream, "exec sh -c \"trap '' HUP; echo r''eady; sleep 1000; :\"\n")
        tunnel.read_console_until(stream, "ready\r\n")
    shells = daemon.children()
    assert len(shells) == 5
    assert daemon.stop() == 128 + signal.SIGTERM
    wait_until(lambda: not any(is_running(pid) for pid in shells), "the shells are gone")


def is_running(pid):
    try:
        state = pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[0]
    except OSError:
        return False
    return state not in "ZX"


def test_a_stop_while_the_server_does_not_read(daemon, tunnel, screen):
    tunnel.open(1, "vnc")
    backend, _ = screen.accept()
    backend.settimeout(1)
    with pytest.raises(TimeoutError):
        while True:
            backend.sendall(bytes(1 << 20))
    assert threads_named(daemon, "tunnel-stream") == 1
    assert daemon.stop() == 128 + signal.SIGTERM


def test_a_stop_while_a_backend_does_not_read(daemon, tunnel, screen):
    tunnel.open(1, "vnc")
    backend, _ = screen.accept()
    tunnel.connection.settimeout(1)
    with pytest.raises(TimeoutError):
        while True:
            tunnel.connection.sendall(frame(DATA, 1, bytes(1 << 20)))
    assert threads_named(daemon, "tunnel-stream") == 1
    assert daemon.stop() == 128 + signal.SIGTERM


def test_a_stop_during_the_pause_between_connections(daemon):
    daemon.configure(tunnel_addr="127.0.0.1:1")
    daemon.start()
    assert threads_named(daemon, "tunnel") == 1
    assert daemon.stop() == 128 + signal.SIGTERM


def test_a_stop_while_the_name_is_looked_up(daemon, tmp_path):
    resolver = tmp_path / "resolv.conf"
    resolver.write_text("nameserver 127.0.0.1\noptions timeout:30\n")
    subprocess.run(["mount", "--bind", resolver, "/etc/resolv.conf"], check=True)
    try:
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as silent:
            silent.bind(("127.0.0.1", 53))
            silent.settimeout(60)
            daemon.configure(tunnel_addr="nowhere.example:7000")
            daemon.start()
            assert silent.recv(1000)
            assert daemon.stop() == 128 + signal.SIGTERM
    finally:
        subprocess.run(["umount", "/etc/resolv.conf"], check=True)


def test_odd_addresses_keep_the_daemon_going(daemon):
    for address in ("example:", ":1234", "plain"):
        daemon.configure(tunnel_addr=address)
        daemon.start()
        assert threads_named(daemon, "tunnel") == 1
        assert daemon.stop() == 128 + signal.SIGTERM
