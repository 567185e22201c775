"""The example application that is built against the installed package (examples/portwatch), and targets
for it to watch."""
import contextlib
import json
import os
import pathlib
import signal
import socket
import sqlite3
import subprocess

import bus_wire
import sessions
from bus_payloads import Envelope, topic_id
from bus_services import Services
from crash_log import crash_records
from programs import BIN, CHECKOUT, DEADLINE, wait_until

PORTWATCH = BIN / "portwatch"
PACKAGE = CHECKOUT / "examples/portwatch/package"
PORTWATCH_DATA = pathlib.Path("/usr/local/daemon/portwatch/portwatch")
DATABASE = PORTWATCH_DATA / "portwatch.db"
DATABASE_NAME = "portwatch.targets"
FIRST_TARGETS = [(1, "127.0.0.1", 7080, "dashboard"), (2, "127.0.0.1", 17379, "redis")]
NEVER = 3600  # seconds from one round to the next


def run(*statements):
    """As an operator does, on a connection of his own."""
    with contextlib.closing(sqlite3.connect(DATABASE)) as connection:
        rows = [connection.execute(statement).fetchall() for statement in statements][-1]
        connection.commit()
    return rows


class Listener:
    """A target; its port stays the same while it is closed."""

    def __init__(self, backlog=128):
        self.backlog = backlog
        self.port = 0
        self.open()

    def open(self):
        self.socket = socket.create_server(("127.0.0.1", self.port), backlog=self.backlog)
        self.port = self.socket.getsockname()[1]

    def close(self):
        self.socket.close()


class PortWatch:
    """One process of it; it makes a round when it starts, and then when it is asked to."""

    def __init__(self, folder, asker):
        self.output_path = folder / "portwatch.out"
        self.asker = asker
        self.process = None
        self.services = None

    def configure(self, **fields):
        PORTWATCH_DATA.mkdir(parents=True, exist_ok=True)
        document = {name: {"value": value} for name, value in {"interval_seconds": NEVER, **fields}.items()}
        (PORTWATCH_DATA / "config.json").write_text(json.dumps(document))

    def watch(self, *targets):
        """A database with these targets alone, by their ports."""
        PORTWATCH_DATA.mkdir(parents=True, exist_ok=True)
        run("CREATE TABLE targets(id INTEGER PRIMARY KEY, host TEXT, port INTEGER, label TEXT)",
            *(f"INSERT INTO targets(host, port, label) VALUES ('127.0.0.1', {target.port}, '')" for target in targets))

    def spawn(self, *command):
        if not (PORTWATCH_DATA / "config.json").exists():
            self.configure()
        with open(self.output_path, "ab") as output:
            self.process = subprocess.Popen(command or [PORTWATCH], stdin=subprocess.DEVNULL, stdout=output,
                                            stderr=subprocess.STDOUT)
        return self

    def start(self, *command):
        self.spawn(*command)
        self.wait_running()
        return self

    def wait_running(self, sessions_before=0):
        """Waits for the start of the session behind those, for its place on the bus, and for its first round."""
        wait_until(lambda: self.starts() > sessions_before, f"a session has begun\n{self.output()}")

        def on_bus():
            found = Services(self.asker, "portwatch")
            return found if "watch" in found.addresses else None
        self.services = wait_until(on_bus, "it can be asked")

    def ask(self, topic, **fields):
        return self.asker.ask(self.services.addresses["watch"], topic, **fields)

    def status(self):
        """How many are up and down, and what is said of each."""
        fields, data = self.ask("portwatch.status")
        assert fields.pop("status") == "ok"
        lines = [line.split("|") for line in data.splitlines()]
        return (int(fields["up"]), int(fields["down"])), lines

    def ask_database(self, topic, value="", **fields):
        """As the dashboard does, of the node itself."""
        payload = Envelope({"db_name": DATABASE_NAME, **{key: str(text) for key, text in fields.items()}},
                           value.encode()).encode()
        reply = Envelope.decode(self.asker.ask_raw(bus_wire.BROADCAST, topic, payload))
        return reply.fields, reply.data.decode()

    def edit(self, row, column, value):
        assert self.ask_database("db.cell.edit", value, table_name="targets", row_index=row,
                                 column_index=column) == ({"status": "ok"}, "")

    def check_now(self):
        """Asks for a round and waits for its end."""
        before = last_check()
        assert self.ask("portwatch.check_now") == ({"status": "ok"}, "")
        wait_until(lambda: last_check() > before, "another round has been written down")

    def send(self, number):
        self.process.send_signal(number)

    def stop(self):
        self.send(signal.SIGTERM)
        return self.process.wait(DEADLINE)

    def kill(self):
        if self.process is not None:
            self.process.kill()
            self.process.wait()

    def pid(self):
        return self.process.pid

    def output(self):
        return self.output_path.read_text(errors="replace") if self.output_path.exists() else ""

    def starts(self):
        return sum(line["event"] == "start" for line in self.sessions())

    def sessions(self):
        return sessions.session_lines(PORTWATCH_DATA / "sessions.log", self.process.pid)


def last_check():
    """The number of the newest row; 0 without any."""
    try:
        return run("SELECT coalesce(max(id), 0) FROM checks")[0][0]
    except sqlite3.OperationalError:
        return 0


def next_change(peer):
    """What is told next of a target that went up or down."""
    message = peer.receive(lambda message: message.type == bus_wire.EVENT
                           and message.topic_id == topic_id("portwatch.changed"))
    return Envelope.decode(message.data).fields


def portwatch_log():
    path = PORTWATCH_DATA / "app.log"
    return path.read_text(errors="replace") if path.exists() else ""


def portwatch_crashes():
    return crash_records(PORTWATCH_DATA / "crash.log")


def executable_of(pid):
    return os.readlink(f"/proc/{pid}/exe")
