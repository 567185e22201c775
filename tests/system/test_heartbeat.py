"""The heartbeat of the real daemon, through the real curl, at a real listener."""
import http.server
import json
import pathlib
import threading

import pytest
from programs import wait_until


class Registry:
    """Keeps what is posted to it: path, content type and body."""

    def __init__(self):
        self.beats = []
        outer = self

        class Handler(http.server.BaseHTTPRequestHandler):
            def do_POST(self):
                body = self.rfile.read(int(self.headers["Content-Length"]))
                outer.beats.append((self.path, self.headers["Content-Type"], body))
                self.send_response(200)
                self.send_header("Content-Length", "0")
                self.end_headers()

            def log_message(self, *_):
                pass

        self.server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self.url = f"http://127.0.0.1:{self.server.server_port}"
        self.thread = threading.Thread(target=self.server.serve_forever)
        self.thread.start()

    def wait_beats(self, count):
        wait_until(lambda: len(self.beats) >= count, f"{count} beats have come")
        return self.beats

    def stop(self):
        self.server.shutdown()
        self.server.server_close()
        self.thread.join()


@pytest.fixture
def listener():
    registry = Registry()
    yield registry
    registry.stop()


@pytest.mark.parametrize("name", ["box", "Tom's 'box'", 'a "quoted" \\ name', "$(id) `id` ; exit", "zähler-7"])
def test_a_beat_tells_name_and_address(daemon, listener, name):
    address = "http://192.0.2.10:7080/?a='b'"
    daemon.configure(registry_url=listener.url, advertise_addr=address, client_name=name)
    daemon.start()
    path, content_type, body = listener.wait_beats(1)[0]
    assert (path, content_type) == ("/api/clients/heartbeat", "application/json")
    assert json.loads(body) == {"name": name, "address": address}
    assert body.startswith(b'{"name":"') and b'","address":"' in body


def test_beats_follow_each_other_to_the_server_that_is_set_now(daemon, listener):
    daemon.configure(registry_url=listener.url, advertise_addr="a", heartbeat_interval_seconds=1)
    daemon.start()
    listener.wait_beats(3)
    second = Registry()
    try:
        assert daemon.post("/api/self/config", {"name": "registry_url", "value": second.url}).status == 200
        second.wait_beats(2)
    finally:
        second.stop()


def test_without_an_address_nothing_is_sent(daemon, listener):
    daemon.configure(registry_url=listener.url, heartbeat_interval_seconds=1)
    daemon.start()
    tasks = pathlib.Path(f"/proc/{daemon.pid}/task")
    assert "heartbeat\n" not in [(task / "comm").read_text() for task in tasks.iterdir()]
    assert listener.beats == []
