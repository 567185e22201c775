"""Databases on the bus: programs that offer them (tests/programs/database_node.cpp), and how to ask."""
import contextlib
import itertools
import sqlite3
import subprocess

import bus_wire
from bus_payloads import Envelope, to_bytes, to_text, topic_id
from bus_wire import Frame
from programs import BIN, DEADLINE

DOMAIN = 0
NOT_ADDRESSED = {"status": "error", "error": "not addressed to this db"}
# Of a table.
HOSTILE = 'x"; DROP TABLE t; -- \''
HOSTILE_QUOTED = '"' + HOSTILE.replace('"', '""') + '"'


def run(path, *statements):
    """As an application does, on a connection of its own."""
    with contextlib.closing(sqlite3.connect(path)) as connection:
        rows = [connection.execute(statement).fetchall() for statement in statements][-1]
        connection.commit()
    return rows


class DatabaseNode:
    """One process of it. One that has no database asks for those of others."""

    def __init__(self, address, name, *database):
        self.address = address
        self.process = subprocess.Popen([BIN / "database_node", str(address), name, *map(str, database)],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, bufsize=1)
        assert self.process.stdout.readline() == f"ready {address}\n"

    def __enter__(self):
        return self

    def __exit__(self, kind, *_):
        self.process.stdin.close()
        code = self.process.wait(DEADLINE)
        self.process.stdout.close()
        assert kind or code == 0

    def tell(self, command):
        """Gives a command whose answer is asked for later."""
        self.process.stdin.write(command + "\n")

    def answer(self):
        """What a command printed, and how it ended."""
        lines = []
        for line in self.process.stdout:
            line = line.rstrip("\n")
            if line in ("ok", "none") or line.startswith("refused "):
                return lines, line
            lines.append(line)
        raise AssertionError(f"the program has ended after {lines}")

    def do(self, command):
        self.tell(command)
        return self.answer()


class Asker:
    """Asks as a node that has nothing of the programs, through the peer."""

    def __init__(self, peer):
        self.peer = peer
        self.ids = itertools.count(1)

    def send(self, topic, fields=None, data="", dest=DOMAIN, payload=None):
        """The number of the request."""
        number = next(self.ids)
        if payload is None:
            fields = {key: str(value) for key, value in (fields or {}).items()}
            payload = Envelope(fields, to_bytes(data)).encode()
        self.peer.send(Frame(bus_wire.REQUEST, dest=dest, msg_id=number, topic_id=topic_id(topic), data=payload))
        return number

    def replies(self, number, sources):
        """Fields and text of each one's reply, by its address."""
        found = {}
        while set(found) != set(sources):
            reply = self.peer.receive(lambda message: message.type == bus_wire.RESPONSE and message.msg_id == number)
            assert reply.source in sources and reply.source not in found
            assert reply == Frame(bus_wire.RESPONSE, reply.source, self.peer.address, reply.data, msg_id=number,
                                  origin=(0, reply.source))
            envelope = Envelope.decode(reply.data)
            found[reply.source] = envelope.fields, to_text(envelope.data)
        return found

    def ask(self, topic, sources, fields=None, data="", **options):
        return self.replies(self.send(topic, fields, data, **options), sources)

    def one(self, topic, source, fields=None, data="", **options):
        """The same of one, who alone is asked."""
        return self.ask(topic, [source], fields, data, dest=source, **options)[source]
