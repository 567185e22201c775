"""Applications that offer their databases on the bus, asked by a node that has nothing of the program, and by
the program's own client."""
import contextlib
import signal
import sqlite3
import subprocess
import sys

import pytest

import bus_wire
from bus_payloads import DiscoveryResponse, Envelope, Identity
from bus_wire import Frame
from databases import HOSTILE, HOSTILE_QUOTED, NOT_ADDRESSED, Asker, DatabaseNode, run
from programs import wait_until

SHOP, CLUB, VIEWER = 700, 710, 720
OK = {"status": "ok"}
MANY = 2500


def refused(text):
    return {"status": "error", "error": text}


@pytest.fixture
def orders(tmp_path):
    path = tmp_path / "orders.db"
    run(path, "CREATE TABLE t(id INTEGER PRIMARY KEY, name, amount INTEGER)",
        "INSERT INTO t VALUES (10, 'first', 1), (20, 'second', 2), (30, 'third', 3)",
        "CREATE TABLE settings(key, value, PRIMARY KEY(key)) WITHOUT ROWID",
        f"CREATE TABLE {HOSTILE_QUOTED}(a)", "CREATE VIEW v AS SELECT * FROM t")
    return path


@pytest.fixture
def members(tmp_path):
    path = tmp_path / "members.db"
    run(path, "CREATE TABLE t(name)", "INSERT INTO t VALUES ('anna'), ('bob')")
    return path


@pytest.fixture
def nodes(orders, members, peer, stack):
    """Two applications; the one of the club and its database have a table of the shop's name."""
    stack.enter_context(DatabaseNode(SHOP, "shop", "shop.orders", orders))
    stack.enter_context(DatabaseNode(CLUB, "club", "club.members", members))


@pytest.fixture
def asker(nodes, peer):
    return Asker(peer)


def test_every_database_of_a_domain_is_listed(asker, orders, members):
    shop = {"status": "ok", "name": "shop.orders", "path": str(orders), "loaded": "1"}
    club = {"status": "ok", "name": "club.members", "path": str(members), "loaded": "1"}
    tables = f"settings|0|key,value\nt|3|id,name,amount\n{HOSTILE}|0|rowid,a"
    for dest in (0, bus_wire.BROADCAST):
        assert asker.ask("db.info", [SHOP, CLUB], dest=dest) == {SHOP: (shop, tables),
                                                                 CLUB: (club, "t|2|rowid,name")}
    assert asker.one("db.info", CLUB)[0] == club
    assert asker.one("db.info", CLUB, payload=b"anything")[0] == club


def test_rows_are_read_of_the_database_of_that_name(asker):
    replies = asker.ask("db.table.read", [SHOP, CLUB],
                        {"db_name": "shop.orders", "table_name": "t", "from_row": 2, "to_row": 0})
    fields, rows = replies[SHOP]
    assert fields == {"status": "ok", "total_rows": "3", "from_row": "2", "columns": "id,name,amount"}
    assert rows == "20|second|2\n30|third|3"
    fields, rows = replies[CLUB]
    assert fields == {**NOT_ADDRESSED, "total_rows": "0", "from_row": "0", "columns": ""} and not rows


@pytest.mark.parametrize("first, last, rows", [
    (1, 1, ["10|first|1"]), (0, 2, ["10|first|1", "20|second|2"]), (3, 99, ["30|third|3"]), (4, 0, []), (3, 2, []),
    (2 ** 64 - 1, 2 ** 64 - 1, [])])
def test_rows_count_from_one_with_both_ends(asker, first, last, rows):
    fields, data = asker.one("db.table.read", SHOP, {"db_name": "shop.orders", "table_name": "t",
                                                     "from_row": first, "to_row": last})
    assert fields["status"] == "ok" and fields["total_rows"] == "3" and fields["from_row"] == str(max(first, 1))
    assert data.split("\n") == (rows or [""])


def test_what_cells_hold_is_shown_in_one_line(asker, orders):
    run(orders, "DELETE FROM t", "INSERT INTO t VALUES (1, 'a|b', NULL), (2, 'c' || char(10) || 'd', x'00ff'), "
        "(3, '', 2.5), (4, 'größer', -9223372036854775808)")
    fields, data = asker.one("db.table.read", SHOP, {"db_name": "shop.orders", "table_name": "t"})
    assert fields["status"] == "ok"
    assert data == "1|a|b|\n2|c d|X'00FF'\n3||2.5\n4|größer|-9223372036854775808"


def test_a_large_table_comes_in_parts(asker, orders):
    run(orders, "DELETE FROM t", "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < "
        f"{MANY}) INSERT INTO t SELECT i, printf('%.*c', 100, 'x'), i FROM n")
    found = []
    while len(found) < MANY:
        fields, data = asker.one("db.table.read", SHOP, {"db_name": "shop.orders", "table_name": "t",
                                                         "from_row": len(found) + 1})
        assert fields["status"] == "ok" and fields["from_row"] == str(len(found) + 1)
        rows = data.split("\n")
        assert 0 < len(rows) <= 1000
        found += rows
    assert found == [f"{i}|{'x' * 100}|{i}" for i in range(1, MANY + 1)]


def test_changes_are_made_in_the_database_of_that_name_alone(asker, orders, members):
    for topic, fields, value in [
            ("db.cell.edit", {"row_index": 2, "column_index": 1}, "it's new\n|"),
            ("db.cell.edit", {"row_index": 3, "column_index": 2}, "42"),
            ("db.row.delete", {"row_index": 1}, "")]:
        replies = asker.ask(topic, [SHOP, CLUB], {"db_name": "shop.orders", "table_name": "t", **fields}, value)
        assert replies == {SHOP: (OK, ""), CLUB: (NOT_ADDRESSED, "")}
    assert run(orders, "SELECT *, typeof(amount) FROM t") == [(20, "it's new\n|", 2, "integer"),
                                                              (30, "third", 42, "integer")]
    replies = asker.ask("db.table.clear", [SHOP, CLUB], {"db_name": "club.members", "table_name": "t"})
    assert replies == {SHOP: (NOT_ADDRESSED, ""), CLUB: (OK, "")}
    assert run(members, "SELECT * FROM t") == []
    assert len(run(orders, "SELECT * FROM t")) == 2


@pytest.mark.parametrize("topic, fields, error", [
    ("db.cell.edit", {"table_name": "t", "row_index": 1, "column_index": 0}, "column 0 is the primary key"),
    ("db.cell.edit", {"table_name": "t", "row_index": 1}, "column 0 is the primary key"),
    ("db.cell.edit", {"table_name": "t", "row_index": 1, "column_index": 3}, 'no column 3 in "t"'),
    ("db.cell.edit", {"table_name": "t", "row_index": 4, "column_index": 1}, 'no row 4 in "t"'),
    ("db.cell.edit", {"table_name": "t", "column_index": 1}, "rows count from 1"),
    ("db.cell.edit", {"table_name": "v", "row_index": 1, "column_index": 1}, 'no table "v"'),
    ("db.row.delete", {"table_name": "t; DROP TABLE t", "row_index": 1}, 'no table "t; DROP TABLE t"'),
    ("db.row.delete", {"table_name": "t", "row_index": "first"}, "row_index is not a number: first"),
    ("db.table.clear", {"table_name": "sqlite_schema"}, 'no table "sqlite_schema"'),
    ("db.table.clear", {}, 'no table ""')])
def test_what_cannot_be_done_is_told(asker, orders, topic, fields, error):
    assert asker.one(topic, SHOP, {"db_name": "shop.orders", **fields}, "new") == (refused(error), "")
    assert run(orders, "SELECT * FROM t") == [(10, "first", 1), (20, "second", 2), (30, "third", 3)]


def test_a_hostile_name_is_a_name(asker, orders):
    run(orders, f"INSERT INTO {HOSTILE_QUOTED} VALUES ('old')")
    at = {"db_name": "shop.orders", "table_name": HOSTILE, "row_index": 1, "column_index": 1}
    assert asker.one("db.cell.edit", SHOP, at, HOSTILE) == (OK, "")
    assert run(orders, f"SELECT a FROM {HOSTILE_QUOTED}") == [(HOSTILE,)]
    assert asker.one("db.row.delete", SHOP, at) == (OK, "")
    assert run(orders, f"SELECT count(*) FROM {HOSTILE_QUOTED}") == [(0,)]
    assert len(run(orders, "SELECT * FROM t")) == 3


def test_a_payload_that_cannot_be_read_is_answered_and_harms_nobody(asker):
    for payload in (b"", b"\xff" * 100, Envelope({"db_name": "shop.orders"}).encode()[:-1]):
        for topic in ("db.table.read", "db.cell.edit", "db.row.delete", "db.table.clear"):
            fields, _ = asker.one(topic, SHOP, payload=payload)
            assert fields["error"] == "Envelope: truncated or malformed"
    assert asker.one("db.info", SHOP)[0]["loaded"] == "1"


def test_an_application_that_writes_is_not_waited_for_too_long(asker, orders):
    at = {"db_name": "shop.orders", "table_name": "t", "row_index": 1}
    with contextlib.closing(sqlite3.connect(orders, isolation_level=None)) as application:
        application.execute("BEGIN EXCLUSIVE")
        assert asker.one("db.row.delete", SHOP, at) == (refused("database is locked"), "")
        assert asker.one("db.info", SHOP)[0]["loaded"] == "0"
        application.execute("COMMIT")
    assert asker.one("db.row.delete", SHOP, at) == (OK, "")


def test_what_a_killed_application_left_half_done_is_not_there(asker, orders):
    half = f"""import sqlite3, sys, time
connection = sqlite3.connect({str(orders)!r}, isolation_level=None)
connection.execute("PRAGMA cache_size = 1")
connection.execute("BEGIN")
connection.executemany("INSERT INTO t VALUES (?, 'half', 0)", [(1000 + i,) for i in range(5000)])
print("half", flush=True)
time.sleep(1000)"""
    with subprocess.Popen([sys.executable, "-c", half], stdout=subprocess.PIPE, text=True) as application:
        assert application.stdout.readline() == "half\n"
        application.send_signal(signal.SIGKILL)
    assert (orders.parent / "orders.db-journal").exists()
    fields, data = asker.one("db.table.read", SHOP, {"db_name": "shop.orders", "table_name": "t"})
    assert fields["total_rows"] == "3" and "half" not in data


def test_a_database_may_come_later_and_go(peer, tmp_path, stack):
    path = tmp_path / "later.db"
    stack.enter_context(DatabaseNode(SHOP, "shop", "shop.later", path))
    asker = Asker(peer)
    at = {"db_name": "shop.later", "table_name": "t", "row_index": 1}
    for _ in range(2):
        fields, tables = asker.one("db.info", SHOP)
        assert fields == {"status": "ok", "name": "shop.later", "path": str(path), "loaded": "0"} and not tables
        assert asker.one("db.row.delete", SHOP, at) == (refused("unable to open database file"), "")
        run(path, "CREATE TABLE t(a)", "INSERT INTO t VALUES (1)")
        assert asker.one("db.info", SHOP)[0]["loaded"] == "1"
        assert asker.one("db.row.delete", SHOP, at) == (OK, "")
        path.unlink()


def test_the_client_finds_and_changes_what_others_offer(nodes, orders, stack):
    viewer = stack.enter_context(DatabaseNode(VIEWER, "viewer"))
    wanted = [f"database {SHOP} shop.orders 1 settings:0 t:3 {HOSTILE}:0", f"database {CLUB} club.members 1 t:2"]
    wait_until(lambda: viewer.do("info") == (wanted, "ok"), "both databases are listed")
    assert viewer.do("read shop.orders t 1 2") == (["row 10|first|1", "row 20|second|2"], "ok")
    assert viewer.do("read club.members t 1 0") == (["row 1|anna", "row 2|bob"], "ok")
    assert viewer.do("edit shop.orders t 1 1 new") == ([], "ok")
    assert viewer.do("edit shop.orders t 1 0 new") == ([], "refused column 0 is the primary key")
    assert viewer.do("delete shop.orders t 2") == ([], "ok")
    assert run(orders, "SELECT * FROM t") == [(10, "new", 1), (30, "third", 3)]
    assert viewer.do("clear shop.orders t") == ([], "ok")
    assert run(orders, "SELECT * FROM t") == []


def test_the_client_passes_over_whoever_is_not_addressed(nodes, peer, stack):
    """The peer has a database too, and is the slower one to answer."""
    viewer = stack.enter_context(DatabaseNode(VIEWER, "viewer"))
    viewer.tell("delete peer.db t 5")
    asked = peer.receive(lambda message: message.type == bus_wire.REQUEST and message.source == VIEWER)
    assert asked.dest == 0 and asked.origin == (0, VIEWER + 4000)
    assert Envelope.decode(asked.data).fields == {"db_name": "peer.db", "table_name": "t", "row_index": "5"}
    replies = [peer.receive_type(bus_wire.RESPONSE) for _ in (SHOP, CLUB)]
    assert {reply.source for reply in replies} == {SHOP, CLUB}
    for reply in replies:
        assert reply.dest == VIEWER + 4000 and Envelope.decode(reply.data).fields == NOT_ADDRESSED
    peer.send(Frame(bus_wire.RESPONSE, dest=VIEWER + 4000, data=Envelope(refused("not today")).encode(),
                    msg_id=asked.msg_id))
    assert viewer.answer() == ([], "refused not today")


def test_a_node_tells_that_it_serves_a_database(nodes, peer):
    peer.send(Frame(bus_wire.DISCOVERY_REQUEST))
    told = {}
    while set(told) != {SHOP, CLUB}:
        answer = peer.receive(lambda message: message.type == bus_wire.DISCOVERY_RESPONSE and message.dest == peer.address)
        told[answer.source] = DiscoveryResponse.decode(answer.data)
    for source, name in ((SHOP, "shop"), (CLUB, "club")):
        assert told[source].identity == Identity(name, name, 1)
        assert [topic.name for topic in told[source].publications if topic.kind == 1 and topic.description] == [
            "db.cell.edit", "db.info", "db.row.delete", "db.table.clear", "db.table.read"]
