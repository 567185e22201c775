"""Machines behind mirelserver: heartbeats, tunnels and what a browser reaches through them."""
import concurrent.futures
import contextlib
import hashlib
import http.client
import http.server
import json
import os
import socket
import threading

import pytest

from programs import DEADLINE, wait_until
from reach import beat, clients, error, fetch, machine_on, proxy
from registry_support import free_port
from tunnel_machine import CLOSE, DATA, TunnelMachine, frame

BIG = os.urandom(5 << 20)


def echo(stream):
    """Answers with what was asked."""
    line, headers, body = stream.request()
    stream.answer(json.dumps({"line": line, "headers": headers, "body": body.decode("latin-1")}).encode())


# -- the list --

def test_a_heartbeat_puts_a_machine_on_the_list(server):
    assert clients(server) == {}
    assert beat(server)[0] == 200
    listed = clients(server)["m1"]
    assert 0 <= listed.pop("age") <= DEADLINE
    assert listed == {"name": "m1", "address": "http://127.0.0.1:1", "tunnel": False}
    beat(server, address="http://127.0.0.1:2")
    assert clients(server)["m1"]["address"] == "http://127.0.0.1:2"


def test_a_machine_that_only_has_a_tunnel_is_listed_too(server):
    with machine_on(server, "behind nat"):
        assert clients(server)["behind nat"]["address"] == ""
    wait_until(lambda: not clients(server)["behind nat"]["tunnel"], "the tunnel is gone")


@pytest.mark.parametrize("body", [
    b"", b"{", b"[]", b"{}", b'{"name":"","address":"x"}', b'{"name":"a/b","address":"x"}',
    b'{"name":"..","address":"x"}', b'{"name":"a\xff","address":"x"}',
    json.dumps({"name": "n" * 129, "address": ""}).encode(),
    json.dumps({"name": "n", "address": "a" * 257}).encode()])
def test_a_heartbeat_without_sense_is_refused(server, body):
    assert server.get("/api/clients/heartbeat", method="POST", body=body)[0] == 400
    assert clients(server) == {}


def test_a_heartbeat_has_a_limited_size_and_one_method(server):
    assert beat(server, "n", "a" * 5000)[0] == 413
    assert server.get("/api/clients/heartbeat")[0] == 405
    assert server.get("/api/clients", method="POST", body=b"x")[0] == 405


# -- requests through a tunnel --

@pytest.mark.parametrize("rest, path", [
    ("", "/"), ("/", "/"), ("?a=1", "/?a=1"), ("/api/self", "/api/self"),
    ("/a%2Fb/../c?x=%20", "/a%2Fb/../c?x=%20")])
def test_a_request_reaches_the_machine_without_the_prefix(server, rest, path):
    with machine_on(server, serve=echo) as machine:
        status, _, body = proxy(server, rest, headers={"X-Test": "yes"})
        seen = json.loads(body)
        assert (status, seen["line"]) == (200, f"GET {path} HTTP/1.1")
        assert seen["headers"]["connection"] == "close"
        assert seen["headers"]["host"] == "localhost"
        assert seen["headers"]["x-test"] == "yes"
        assert machine.targets == [b"http"]


@pytest.mark.parametrize("method", ["POST", "PUT", "DELETE", "PATCH", "OPTIONS"])
def test_every_method_passes_with_its_body(server, method):
    with machine_on(server, serve=echo):
        seen = json.loads(proxy(server, "/x", method=method, body=b"the body")[2])
        assert (seen["line"], seen["body"]) == (f"{method} /x HTTP/1.1", "the body")


def test_large_bodies_pass_in_both_directions(server):
    def serve(stream):
        _, _, body = stream.request()
        stream.answer(hashlib.sha256(body).hexdigest().encode() + BIG)

    with machine_on(server, serve=serve):
        body = proxy(server, "/upload", method="POST", body=BIG)[2]
        assert body == hashlib.sha256(BIG).hexdigest().encode() + BIG


def test_a_body_that_waits_for_leave_gets_it(server):
    with machine_on(server, serve=echo), \
            socket.create_connection(("127.0.0.1", server.port), timeout=DEADLINE) as peer:
        peer.sendall(b"POST /api/clients/m1/proxy/x HTTP/1.1\r\nHost: x\r\nExpect: 100-continue\r\n"
                     b"Content-Length: 4\r\n\r\n")
        assert peer.recv(25, socket.MSG_WAITALL) == b"HTTP/1.1 100 Continue\r\n\r\n"
        peer.sendall(b"late")
        assert b'"body": "late"' in b"".join(iter(lambda: peer.recv(65536), b""))


def test_a_chunked_body_is_refused(server):
    with machine_on(server, serve=echo):
        assert proxy(server, "/x", method="POST", body=iter([b"a", b"b"]))[0] == 411


def test_twenty_requests_at_once_share_a_tunnel(server):
    def serve(stream):
        line, _, _ = stream.request()
        stream.answer(line.encode() * 20000)

    with machine_on(server, serve=serve), concurrent.futures.ThreadPoolExecutor(20) as pool:
        answers = pool.map(lambda i: (i, proxy(server, f"/{i}")[2]), range(20))
        assert all(body == f"GET /{i} HTTP/1.1".encode() * 20000 for i, body in answers)


def test_a_slow_reader_does_not_stall_another_stream(server):
    big = BIG * 6

    def serve(stream):
        line, _, _ = stream.request()
        stream.answer(big if "/big" in line else b"quick")

    with machine_on(server, serve=serve):
        with socket.create_connection(("127.0.0.1", server.port), timeout=DEADLINE) as slow:
            slow.sendall(b"GET /api/clients/m1/proxy/big HTTP/1.1\r\nHost: x\r\n\r\n")
            first = slow.recv(1)
            assert [proxy(server, "/quick")[2] for _ in range(20)] == [b"quick"] * 20
            rest = b"".join(iter(lambda: slow.recv(1 << 20), b""))
            assert (first + rest).endswith(big)


def test_a_stream_that_nobody_reads_is_closed_and_the_others_go_on(server):
    def serve(stream):
        line, _, _ = stream.request()
        if "/endless" not in line:
            return stream.answer(b"quick")
        stream.send(b"HTTP/1.1 200 OK\r\n\r\n")
        while not stream.closed:
            stream.send(b"x" * 1_000_000, 1_000_000)

    with machine_on(server, serve=serve) as machine:
        with socket.create_connection(("127.0.0.1", server.port), timeout=DEADLINE) as slow:
            slow.sendall(b"GET /api/clients/m1/proxy/endless HTTP/1.1\r\nHost: x\r\n\r\n")
            wait_until(lambda: machine.opened and machine.opened[0].closed, "the stream is closed")
            assert proxy(server, "/quick")[2] == b"quick"


def test_a_browser_that_leaves_closes_its_stream(server):
    with machine_on(server) as machine:
        with socket.create_connection(("127.0.0.1", server.port)) as peer:
            peer.sendall(b"GET /api/clients/m1/proxy/wait HTTP/1.1\r\nHost: x\r\n\r\n")
            wait_until(lambda: machine.opened, "the stream is open")
        wait_until(lambda: machine.opened[0].closed, "the stream is closed")


# -- what can go wrong --

def test_an_unknown_machine_is_not_found(server):
    assert proxy(server, name="nobody") == error(404, "unknown client")
    assert server.get("/api/clients/m1/other")[0] == 404


@pytest.mark.parametrize("address", ["", "nonsense of its own", "ftp://127.0.0.1:1", "http://127.0.0.1:99999"])
def test_without_tunnel_and_usable_address_the_gateway_is_bad(server, address):
    beat(server, address=address)
    assert proxy(server) == error(502, "the client has no tunnel and no usable address")


def test_an_address_where_nothing_listens_is_a_bad_gateway(server):
    beat(server, address=f"http://127.0.0.1:{free_port()}")
    assert proxy(server) == error(502, "the client cannot be reached")


def test_a_machine_that_gives_no_answer_is_a_bad_gateway(server):
    with machine_on(server, serve=lambda stream: stream.close()):
        assert proxy(server) == error(502, "the client gave no answer")
    with machine_on(server, "m2", lambda stream: (stream.send(b"nonsense\r\n\r\n"), stream.close())):
        assert proxy(server, name="m2") == error(502, "the client's answer is malformed")


def test_a_tunnel_that_breaks_ends_its_requests(server):
    with machine_on(server) as machine, concurrent.futures.ThreadPoolExecutor(1) as pool:
        pending = pool.submit(proxy, server)
        wait_until(lambda: machine.opened, "the stream is open")
        machine.close()
        assert pending.result(DEADLINE) == error(502, "the client gave no answer")


def test_a_second_registration_of_a_name_replaces_the_first(server):
    with machine_on(server, serve=lambda stream: stream.answer(b"first")) as first:
        assert proxy(server)[2] == b"first"
        second = TunnelMachine(server.tunnel_port, "m1", lambda stream: stream.answer(b"second"))
        assert first.ended.wait(DEADLINE)
        assert proxy(server)[2] == b"second"
        assert clients(server)["m1"]["tunnel"]
        second.close()


@pytest.mark.parametrize("first", [
    frame(DATA, 1, b"x"), frame(1, 0, b""), frame(1, 0, b"a/b"), frame(1, 0, b"n" * 129),
    frame(1, 0, b"\xff\xfe"), b"GET / HTTP/1.1\r\nHost: x\r\n\r\n"])
def test_a_connection_that_does_not_register_is_closed(server, first):
    with socket.create_connection(("127.0.0.1", server.tunnel_port), timeout=DEADLINE) as peer:
        peer.sendall(first)
        with contextlib.suppress(ConnectionResetError):
            assert peer.recv(1) == b""
    assert clients(server) == {}


def test_frames_out_of_place_are_ignored_up_to_the_size_limit(server):
    with machine_on(server, serve=echo) as machine:
        machine.send(99, 7, b"unknown type")
        machine.send(DATA, 12345, b"unknown stream")
        machine.send(CLOSE, 12345)
        machine.send(DATA, 12345, bytes(4 << 20))
        assert proxy(server)[0] == 200
        machine.socket.sendall(frame(DATA, 1, bytes((4 << 20) + 1))[:9])
        assert machine.ended.wait(DEADLINE)


# -- by the advertised address --

class Page(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        body = f"direct {self.path} {self.headers['Host']}".encode()
        self.send_response(200)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *_):
        pass


def test_a_tunnel_that_is_down_gives_way_to_the_advertised_address(server):
    web = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Page)
    threading.Thread(target=web.serve_forever, daemon=True).start()
    beat(server, address=f"http://127.0.0.1:{web.server_port}/")
    with machine_on(server, serve=lambda stream: stream.answer(b"tunnel")):
        assert proxy(server)[2] == b"tunnel"
    wait_until(lambda: not clients(server)["m1"]["tunnel"], "the tunnel is gone")
    assert proxy(server, "/a?b")[2] == f"direct /a?b 127.0.0.1:{web.server_port}".encode()
    web.shutdown()
    web.server_close()


# -- the page and what it asks for at the root --

def test_a_page_leaves_a_cookie_and_its_terminal_is_asked_of_the_same_machine(server):
    with machine_on(server, "m 1", echo), machine_on(server, "m2", echo):
        _, cookie, _ = fetch(server, "/api/clients/m%201/proxy/")
        assert cookie == "mirel_client=m%201; Path=/; HttpOnly; SameSite=Lax"
        assert fetch(server, "/api/clients/m2/proxy/api/self")[1] is None
        status, _, body = fetch(server, "/api/console/ws?v=1", "a=b; mirel_client=m%201; c=d")
        assert (status, json.loads(body)["line"]) == (200, "GET /api/console/ws?v=1 HTTP/1.1")


def test_a_terminal_without_a_page_is_nobodys(server):
    assert server.get("/api/console/ws") == error(404, "no machine's page was opened in this browser")
    assert fetch(server, "/api/console/ws", "mirel_client=nobody")[0] == 404


def test_a_stop_in_the_middle_of_everything_is_clean(server):
    with machine_on(server) as machine, concurrent.futures.ThreadPoolExecutor(4) as pool:
        pending = [pool.submit(proxy, server, f"/{i}") for i in range(4)]
        wait_until(lambda: len(machine.opened) == 4, "all streams are open")
        server.process.terminate()
        assert server.process.wait(DEADLINE) == 0
        for request in pending:  # either is fair: the end of the connection, or the last word on it
            ended = isinstance(request.exception(DEADLINE), (OSError, http.client.HTTPException))
            assert ended or request.result() == error(502, "the client gave no answer")
