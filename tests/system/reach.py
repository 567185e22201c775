"""What tests ask of a mirelserver that makes machines reachable, and the machines that they make up."""
import contextlib
import http.client
import json
import urllib.parse

from programs import DEADLINE, wait_until
from tunnel_machine import TunnelMachine


@contextlib.contextmanager
def machine_on(server, name="m1", serve=None):
    machine = TunnelMachine(server.tunnel_port, name, serve)
    try:
        wait_until(lambda: clients(server).get(name, {}).get("tunnel"), f"{name} has a tunnel")
        yield machine
    finally:
        machine.close()


def clients(server):
    status, kind, body = server.get("/api/clients")
    assert (status, kind) == (200, "application/json")
    return {client["name"]: client for client in json.loads(body)["clients"]}


def beat(server, name="m1", address="http://127.0.0.1:1", **options):
    body = json.dumps({"name": name, "address": address})
    return server.get("/api/clients/heartbeat", method="POST", body=body, **options)


def proxied(rest="/", name="m1"):
    return f"/api/clients/{urllib.parse.quote(name, safe='')}/proxy{rest}"


def proxy(server, rest="/", name="m1", **options):
    return server.get(proxied(rest, name), **options)


def error(status, text):
    return status, "application/json", json.dumps({"error": text}, separators=(",", ":")).encode()


def fetch(server, target, cookie=None):
    """Status, cookie that is set, and body."""
    connection = http.client.HTTPConnection("127.0.0.1", server.port, timeout=DEADLINE)
    with contextlib.closing(connection):
        connection.request("GET", target, headers={"Cookie": cookie} if cookie else {})
        answer = connection.getresponse()
        return answer.status, answer.getheader("Set-Cookie"), answer.read()
