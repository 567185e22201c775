"""The real daemon as a browser reaches it through mirelserver: by its tunnel, and by its address."""
import asyncio
import concurrent.futures
import contextlib
import http.cookiejar
import json
import os
import socket
import urllib.request

import pytest
import websockets

from daemon import WEB_PORT
from programs import DEADLINE, wait_until
from reach import clients, error, machine_on, proxied, proxy
from websocket import Terminal

# Whatever may stand in a name: it is escaped in the path and in the cookie.
ODD_NAME = "Büro 1 & 50%25;a=b?c#d\"+'"
VNC_PORT = 5900


class Reached:
    """A daemon behind a server, by the name that it has there."""

    def __init__(self, server, name):
        self.server = server
        self.name = name

    def get(self, rest, **options):
        return proxy(self.server, rest, self.name, **options)

    def run(self, command):
        status, _, answer = self.get("/api/console/exec", method="POST", body=json.dumps({"command": command}))
        assert status == 200, answer
        return json.loads(answer)["output"]


def settings_of(way, server):
    if way == "tunnel":
        return {"tunnel_addr": f"127.0.0.1:{server.tunnel_port}"}
    return {"registry_url": f"http://127.0.0.1:{server.port}", "heartbeat_interval_seconds": 1,
            "advertise_addr": f"http://127.0.0.1:{WEB_PORT}"}


def start_behind(server, daemon, way, name="real", **settings):
    daemon.configure(client_name=name, **settings_of(way, server), **settings)
    daemon.start()

    def is_there():
        machine = clients(server).get(name)
        return machine and (machine["tunnel"] if way == "tunnel" else machine["address"])
    wait_until(is_there, f"the server knows {name}")
    return Reached(server, name)


@pytest.fixture(params=["tunnel", "address"])
def reached(request, server, daemon):
    machine = start_behind(server, daemon, request.param)
    assert clients(server)["real"]["tunnel"] == (request.param == "tunnel")
    return machine


class Browser:
    """Keeps its cookies, as all browsers do."""

    def __init__(self, server):
        self.root = f"127.0.0.1:{server.port}"
        self.cookies = http.cookiejar.CookieJar()
        self.opener = urllib.request.build_opener(urllib.request.HTTPCookieProcessor(self.cookies))

    def open_page(self, name):
        with self.opener.open(f"http://{self.root}{proxied('/', name)}", timeout=DEADLINE) as answer:
            return answer.headers["Content-Type"], answer.read()

    def web_socket(self, path):
        cookies = "; ".join(f"{cookie.name}={cookie.value}" for cookie in self.cookies)
        headers = {"Cookie": cookies} if cookies else {}
        return websockets.connect(f"ws://{self.root}{path}", extra_headers=headers, max_size=None,
                                  compression=None)


def in_terminal(browser, scenario):
    async def run():
        async with browser.web_socket("/api/console/ws") as connection:
            return await scenario(Terminal(connection))
    return asyncio.run(run())


# -- the page, the API and the terminal --

def test_the_page_is_the_machines_own(reached, daemon):
    kind, page = Browser(reached.server).open_page("real")
    assert (kind, page.decode()) == ("text/html; charset=utf-8", daemon.get("/").text)


def test_the_api_answers_as_it_does_at_the_machine(reached, daemon):
    status, kind, body = reached.get("/api/self")
    direct = daemon.get("/api/self")
    assert (status, kind) == (200, direct.content_type)
    assert json.loads(body).keys() == direct.json().keys()
    assert reached.run("echo hello") == "hello\n"
    assert reached.get("/api/none")[0] == 404


def test_large_answers_arrive_whole_and_in_parallel(reached):
    with concurrent.futures.ThreadPoolExecutor(20) as pool:
        outputs = list(pool.map(
            lambda i: reached.run(f"head -c 1000000 /dev/zero | tr '\\0' {chr(97 + i)}"), range(20)))
    assert outputs == [chr(97 + i) * 1_000_000 for i in range(20)]


def test_a_terminal_of_the_page_is_at_the_root(reached):
    async def scenario(terminal):
        await terminal.quiet()
        await terminal.resize(cols=123, rows=45)
        assert await terminal.answer_to("stty size") == "45 123\r\n"
        assert await terminal.answer_to("head -c 3000000 /dev/zero | tr '\\0' x") == "x" * 3_000_000

    browser = Browser(reached.server)
    browser.open_page("real")
    in_terminal(browser, scenario)


def test_a_terminal_without_a_page_is_refused(reached):
    async def run():
        with pytest.raises(websockets.exceptions.InvalidStatusCode) as refused:
            async with Browser(reached.server).web_socket("/api/console/ws"):
                pass
        return refused.value.status_code

    assert asyncio.run(run()) == 404
    assert reached.server.get("/api/console/ws") == error(404, "no machine's page was opened in this browser")


def test_the_page_that_was_opened_last_has_the_terminal(server, daemon):
    start_behind(server, daemon, "tunnel")
    asked = []

    def serve(stream):
        line, _, _ = stream.request()
        asked.append(line)
        stream.answer(b"the other one")

    def terminal_works(browser):
        async def scenario(terminal):
            await terminal.quiet()
            return await terminal.answer_to("echo he''re") == "here\r\n"
        return in_terminal(browser, scenario)

    with machine_on(server, "other", serve):
        browser = Browser(server)
        browser.open_page("real")
        assert terminal_works(browser)
        assert browser.open_page("other")[1] == b"the other one"
        with pytest.raises(websockets.exceptions.InvalidStatusCode):
            terminal_works(browser)
        assert asked == ["GET / HTTP/1.1", "GET /api/console/ws HTTP/1.1"]
        # What is not the page itself does not count.
        assert proxy(server, "/api/self", "real")[0] == 200
        with pytest.raises(websockets.exceptions.InvalidStatusCode):
            terminal_works(browser)
        browser.open_page("real")
        assert terminal_works(browser)


@pytest.mark.parametrize("way", ["tunnel", "address"])
def test_a_name_with_everything_in_it_names_its_machine(server, daemon, way):
    machine = start_behind(server, daemon, way, ODD_NAME)
    assert list(clients(server)) == [ODD_NAME]
    assert machine.run("echo he''re") == "here\n"

    async def scenario(terminal):
        await terminal.quiet()
        assert await terminal.answer_to("echo he''re") == "here\r\n"

    browser = Browser(server)
    browser.open_page(ODD_NAME)
    in_terminal(browser, scenario)


# -- the files of the page --

FILES = ["/static/xterm/xterm.mjs", "/static/xterm/addon-fit.mjs", "/static/xterm/xterm.css",
         "/static/novnc/core/rfb.js", "/static/novnc/core/util/logging.js",
         "/static/novnc/vendor/pako/lib/zlib/zstream.js"]


def test_the_pages_files_are_the_servers_own(server, daemon):
    start_behind(server, daemon, "tunnel")
    for path in FILES:
        status, kind, body = server.get(path)
        direct = daemon.get(path)
        assert (status, kind, body.decode()) == (200, direct.content_type, direct.text), path
        assert server.get(f"{path}?v=1", method="HEAD") == (200, kind, b""), path


def test_the_files_are_there_without_any_machine_and_no_machine_is_asked(server):
    with machine_on(server) as machine:
        cookie = {"Cookie": "mirel_client=m1"}
        for path in FILES:
            assert server.get(path, headers=cookie)[0] == 200, path
        for path in ["/static/", "/static/none.js", "/static/novnc/core/", "/static/novnc/core/../core/rfb.js",
                     "/static/novnc/core/%72fb.js/", "/static/novnc/vendor/../../../etc/passwd"]:
            assert server.get(path, headers=cookie) == error(404, "not found"), path
        assert server.get(FILES[0], method="POST", headers=cookie) == error(405, "method not allowed")
        assert machine.targets == []


# -- the screen --

@contextlib.contextmanager
def screen():
    with socket.create_server(("127.0.0.1", VNC_PORT)) as listener:
        listener.settimeout(DEADLINE)
        yield listener


def test_a_viewer_and_a_screen_server_exchange_bytes(reached):
    to_viewer, to_screen = os.urandom(3_000_000), os.urandom(2_000_000)

    def screen_side(listener):
        connection, _ = listener.accept()
        with connection:
            connection.settimeout(DEADLINE)
            connection.sendall(to_viewer)
            return b"".join(iter(lambda: connection.recv(1 << 16), b""))

    async def viewer_side():
        path = proxied("/api/vnc/ws", "real")
        async with Browser(reached.server).web_socket(path) as viewer:
            seen = b""
            while len(seen) < len(to_viewer):
                seen += await asyncio.wait_for(viewer.recv(), DEADLINE)
            for start in range(0, len(to_screen), 100_000):
                await viewer.send(to_screen[start:start + 100_000])
            return seen

    with screen() as listener, concurrent.futures.ThreadPoolExecutor(1) as pool:
        received = pool.submit(screen_side, listener)
        assert asyncio.run(viewer_side()) == to_viewer
        assert received.result(DEADLINE) == to_screen


def test_without_a_screen_server_a_viewer_is_let_in_and_out_again(reached):
    async def run():
        async with Browser(reached.server).web_socket(proxied("/api/vnc/ws", "real")) as viewer:
            with pytest.raises(websockets.exceptions.ConnectionClosed):
                await asyncio.wait_for(viewer.recv(), DEADLINE)

    asyncio.run(run())


# -- a browser that does not read --

def test_a_browser_that_stops_reading_stalls_no_other_stream(reached):
    browser = Browser(reached.server)
    browser.open_page("real")
    address = ("127.0.0.1", reached.server.port)
    with screen() as listener, socket.create_connection(address, timeout=DEADLINE) as slow:
        path = proxied("/api/vnc/ws", "real")
        slow.sendall(f"GET {path} HTTP/1.1\r\nHost: x\r\nConnection: Upgrade\r\nUpgrade: websocket\r\n"
                     "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n".encode())
        assert slow.recv(12) == b"HTTP/1.1 101"
        connection, _ = listener.accept()
        with connection:
            # 30 MB: more than the system holds for a browser, less than the server does.
            connection.settimeout(1)
            sent = 0
            with contextlib.suppress(TimeoutError):
                while sent < 30_000_000:
                    sent += connection.send(b"x" * 65536)
            assert sent > 0

            async def scenario(terminal):
                await terminal.quiet()
                for number in range(20):
                    assert await terminal.answer_to(f"echo {number}") == f"{number}\r\n"

            in_terminal(browser, scenario)
            assert [reached.run(f"echo {i}") for i in range(10)] == [f"{i}\n" for i in range(10)]


def test_a_stream_that_nobody_reads_ends_and_the_others_of_its_machine_go_on(server, daemon):
    machine = start_behind(server, daemon, "tunnel")
    address = ("127.0.0.1", server.port)
    with screen() as listener, socket.create_connection(address, timeout=DEADLINE) as slow:
        slow.sendall(f"GET {proxied('/api/vnc/ws', 'real')} HTTP/1.1\r\nHost: x\r\nConnection: Upgrade\r\n"
                     "Upgrade: websocket\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n".encode())
        assert slow.recv(12) == b"HTTP/1.1 101"
        connection, _ = listener.accept()
        connection.settimeout(DEADLINE)
        with connection, pytest.raises((ConnectionResetError, BrokenPipeError)):
            for _ in range(20_000):  # over a gigabyte, if nobody stops it
                connection.sendall(b"x" * 65536)
        assert machine.run("echo still here") == "still here\n"
        assert clients(server)["real"]["tunnel"]


# -- from one way to the other --

def test_the_address_serves_while_another_one_has_the_tunnel_and_gives_no_answer(server, daemon):
    daemon.configure(client_name="real", tunnel_addr=f"127.0.0.1:{server.tunnel_port}",
                     **settings_of("address", server))
    daemon.start()
    wait_until(lambda: clients(server).get("real", {}).get("address"), "the heartbeat has come")
    with machine_on(server, "real", lambda stream: stream.answer(b"taken")) as machine:
        wait_until(lambda: proxy(server, "/api/self", "real")[2] == b"taken", "the tunnel is taken")
        machine.close()
        wait_until(lambda: b'"version"' in proxy(server, "/api/self", "real")[2], "the daemon answers itself")
