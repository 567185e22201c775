"""Whatever comes in broken ends in the answer named for it, and the daemon goes on."""
import socket

import pytest
from daemon import STORE, WEB_PORT
from preloaded import entry_text, preload, write_registry
from registry import entry

DEEP = ["[" * (1 << 20), '{"a":' * ((1 << 20) // 5)]
CLOSED = "[" * 400000 + "]" * 400000


@pytest.mark.parametrize("text", DEEP, ids=["arrays", "objects"])
def test_a_megabyte_of_nesting_in_a_request_body_is_harmless(daemon, text):
    daemon.start()
    room = len("POST /api/packages/x/launch-args HTTP/1.1\r\n\r\n") + 200
    answer = daemon.post("/api/packages/x/launch-args", text[:(1 << 20) - room])
    assert answer.status == 400 and answer.text.startswith('{"error":"expected {\\"args\\":[...]}: tiny_json: ')
    answer = daemon.post("/api/self/config", text[:(1 << 20) - room])
    assert (answer.status, answer.text) == (400, '{"error":"\\"name\\" is required"}')
    assert daemon.get("/api/packages").status == 200


def test_deep_and_whole_bodies_are_harmless(daemon):
    preload(daemon, "sleeper", "", stopped=True)
    daemon.start()
    assert daemon.post("/api/packages/sleeper/launch-args", '{"args":' + CLOSED + "}").status == 200
    assert daemon.packages()["sleeper"]["launch_args"] == [""]


@pytest.mark.parametrize("text", DEEP, ids=["arrays", "objects"])
def test_a_megabyte_of_nesting_as_the_store_file_is_harmless(daemon, text):
    STORE.mkdir(parents=True)
    (STORE / "registry.json").write_text(text)
    daemon.start()
    assert daemon.packages() == {}


def test_a_deep_manifest_in_the_store_is_kept_shown_and_saved(daemon):
    write_registry(entry_text("deep", "1", "/nowhere", stopped=True).replace(
        b'{"executable":"run"}', b'{"executable":"run","x":' + CLOSED.encode() + b"}"))
    daemon.start()
    assert daemon.get("/api/packages/deep/manifest").text == '{"executable":"run","x":' + CLOSED + "}"
    daemon.post("/api/packages/deep/launch-args", {"args": ["a"]})
    daemon.kill()
    daemon.start()
    assert daemon.packages()["deep"]["launch_args"] == ["a"]
    assert len(daemon.get("/api/packages/deep/manifest").text) > len(CLOSED)


@pytest.mark.parametrize("text", DEEP, ids=["arrays", "objects"])
def test_a_megabyte_of_nesting_as_the_bootstrap_list_is_an_error_in_the_log(daemon, text):
    daemon.bootstrap(text)
    daemon.start()
    assert "bootstrap package list at " in daemon.log() and " is not valid JSON: tiny_json: " in daemon.log()


@pytest.mark.parametrize("text, names", [
    ("", []), ("nonsense", []), ("{}", []), ('{"name":"a"}', []), ("[1,null,\"x\",[]]", [""]),
    ('[{"name":"a","install_path":"/x"},{"name":"b"', []),
    ('[{"name":"a","version":1,"launch_args":"no","administratively_stopped":true}]', ["a"]),
    ('[{"name":"a","version":"1"},{"name":"a","version":"2"}]', ["a"])])
def test_a_malformed_store_file_loads_as_far_as_it_can_be_read(daemon, text, names):
    STORE.mkdir(parents=True)
    (STORE / "registry.json").write_text(text)
    daemon.start()
    packages = daemon.packages()
    assert list(packages) == names
    if text.endswith('"2"}]'):
        assert packages["a"]["version"] == "2"


def test_a_store_file_that_is_an_object_is_replaced_by_the_next_save(daemon, registry):
    STORE.mkdir(parents=True)
    (STORE / "registry.json").write_text('{"name":"a"}')
    (STORE / "registry.json.tmp").write_text("left by a daemon that died")
    registry.publish("one")
    registry.serve()
    daemon.bootstrap([entry("one")], registry_url=registry.url)
    daemon.start()
    assert list(daemon.packages()) == ["one"]
    assert [item["name"] for item in daemon.registry_file()] == ["one"]
    assert not (STORE / "registry.json.tmp").exists()


@pytest.mark.parametrize("raw, status, body", [
    (b"", 400, "empty or oversized request"), (b"\r\n\r\n", 400, "malformed request"),
    (b"GET\r\n\r\n", 400, "malformed request"), (b"GET / HTTP/1.1", 400, "malformed request"),
    (b"\0\0\0\0\r\n\r\n", 400, "malformed request"), (b"GET /%00%ff%zz HTTP/9\r\n\r\n", 404, "not found"),
    (b"GET /none HTTP/1.1\r\n" + b"A: b\r\n" * 1000 + b"\r\n", 404, "not found"),
    (b"x" * (1 << 20) + b"x", 400, "empty or oversized request")],
    ids=["nothing", "blank", "one-token", "no-end", "nuls", "odd-path", "many-headers", "oversized"])
def test_a_bad_request_gets_its_answer(daemon, raw, status, body):
    daemon.start()
    with socket.create_connection(("127.0.0.1", WEB_PORT), timeout=30) as connection:
        connection.sendall(raw)
        connection.shutdown(socket.SHUT_WR)
        answer = b""
        while chunk := connection.recv(65536):
            answer += chunk
    head, _, got = answer.partition(b"\r\n\r\n")
    assert head.split(b" ")[1] == str(status).encode()
    assert got.decode() == '{"error":"' + body + '"}'


def test_silent_connections_and_slow_readers_do_not_delay_other_requests(daemon):
    write_registry(entry_text("deep", "1", "/nowhere", stopped=True).replace(
        b'{"executable":"run"}', b'{"x":"' + b"y" * (8 << 20) + b'"}'))
    daemon.start()
    silent = [socket.create_connection(("127.0.0.1", WEB_PORT)) for _ in range(500)]
    slow = []
    for _ in range(50):
        connection = socket.socket()
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        connection.connect(("127.0.0.1", WEB_PORT))
        connection.sendall(b"GET /api/packages/deep/manifest HTTP/1.1\r\n\r\n")
        connection.recv(1)
        slow.append(connection)
    for _ in range(100):
        assert daemon.get("/api/packages").status == 200
    for connection in slow + silent:
        connection.close()
    assert daemon.stop() == 143
