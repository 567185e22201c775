"""The databases of packages, asked of the daemon: real files behind real nodes on the bus."""
import machine
import pytest
from applications import NO_DATABASE, compact, expect, expect_error, is_discovered
from daemon import Daemon
from databases import HOSTILE, HOSTILE_QUOTED, DatabaseNode, run
from programs import wait_until

fresh_machine = pytest.fixture(machine.fresh, scope="module", autouse=True)

SHOP, CLUB = 700, 710
OK = {"error": "", "ok": True}
CELL = 'expected {"row_index":N,"column_index":N,"value":"..."}: '
ROW = 'expected {"row_index":N}: '


@pytest.fixture(scope="module")
def files(tmp_path_factory):
    folder = tmp_path_factory.mktemp("databases")
    return folder / "orders.db", folder / "members.db"


@pytest.fixture(scope="module")
def daemon(tmp_path_factory, files):
    """With two applications on the bus; what they offer has tables of the same name."""
    orders, members = files
    run(orders, "CREATE TABLE t(id INTEGER PRIMARY KEY, name, amount INTEGER)",
        f"CREATE TABLE {HOSTILE_QUOTED}(a)")
    run(members, "CREATE TABLE t(name)")
    daemon = Daemon(tmp_path_factory.mktemp("daemon") / "daemon.out")
    with (DatabaseNode(SHOP, "shop", "shop.orders", orders), DatabaseNode(CLUB, "club", "club.members", members)):
        daemon.start()
        wait_until(lambda: is_discovered(daemon, "shop") and is_discovered(daemon, "club"), "both are discovered")
        yield daemon
        daemon.kill()


@pytest.fixture
def orders(files):
    run(files[0], "DELETE FROM t", "INSERT INTO t VALUES (10, 'first', 1), (20, 'second', 2), (30, 'third', 3)")
    return files[0]


@pytest.fixture
def members(files):
    run(files[1], "DELETE FROM t", "INSERT INTO t VALUES ('anna'), ('bob')")
    return files[1]


def get(daemon, path="", package="shop"):
    return daemon.get(f"/api/packages/{package}/db{path}")


def post(daemon, path, body=None, package="shop"):
    return daemon.post(f"/api/packages/{package}/db/{path}", body)


def test_each_package_has_its_own_database(daemon, orders, members):
    expect(get(daemon), 200, {
        "loaded": True, "name": "shop.orders", "path": str(orders),
        "tables": [{"column_names": ["id", "name", "amount"], "name": "t", "row_count": 3},
                   {"column_names": ["rowid", "a"], "name": HOSTILE, "row_count": 0}]})
    expect(get(daemon, package="club"), 200, {
        "loaded": True, "name": "club.members", "path": str(members),
        "tables": [{"column_names": ["rowid", "name"], "name": "t", "row_count": 2}]})


@pytest.mark.parametrize("query, first, rows", [
    ("", 1, [["10", "first", "1"], ["20", "second", "2"], ["30", "third", "3"]]),
    ("?from=2", 2, [["20", "second", "2"], ["30", "third", "3"]]), ("?from=2&to=2", 2, [["20", "second", "2"]]),
    ("?to=1", 1, [["10", "first", "1"]]), ("?from=9", 9, []), ("?from=x&to=1", 1, [["10", "first", "1"]])])
def test_rows_are_read_as_cells(daemon, orders, query, first, rows):
    expect(get(daemon, "/t" + query), 200, {
        "column_names": ["id", "name", "amount"], "error": "", "from_row": first, "ok": True, "rows": rows,
        "total_rows": 3})


def test_a_bar_in_a_cell_makes_two_of_it(daemon, orders):
    run(orders, "DELETE FROM t WHERE id > 10", "UPDATE t SET name = 'a|b', amount = NULL")
    assert get(daemon, "/t").json()["rows"] == [["10", "a", "b", ""]]


def test_cells_are_changed_and_rows_deleted_in_the_packages_own_file(daemon, orders, members):
    expect(post(daemon, "t/cell", compact({"row_index": 2, "column_index": 1, "value": "it's new\n\"|ü"}).encode()), 200, OK)
    expect(post(daemon, "t/cell", '{"row_index":3.9,"column_index":2.9,"value":"42"}'), 200, OK)
    assert run(orders, "SELECT * FROM t") == [(10, "first", 1), (20, "it's new\n\"|ü", 2), (30, "third", 42)]
    expect(post(daemon, "t/cell", {"row_index": 1, "column_index": 1}), 200, OK)
    assert run(orders, "SELECT name FROM t WHERE id = 10") == [("",)]
    expect(post(daemon, "t/delete-row", {"row_index": 1}), 200, OK)
    assert [row[0] for row in run(orders, "SELECT id FROM t")] == [20, 30]
    assert run(members, "SELECT name FROM t") == [("anna",), ("bob",)]


def test_a_table_is_cleared_in_the_packages_own_file(daemon, orders, members):
    expect(post(daemon, "t/clear", "ignored", "club"), 200, OK)
    assert run(members, "SELECT * FROM t") == []
    assert len(run(orders, "SELECT * FROM t")) == 3


def test_a_table_of_a_hostile_name_is_a_table(daemon, orders):
    path = "%78%22%3B%20DROP%20TABLE%20t%3B%20--%20'"
    run(orders, f"INSERT INTO {HOSTILE_QUOTED} VALUES ('old')")
    assert get(daemon, "/" + path).json()["rows"][0][1] == "old"
    expect(post(daemon, path + "/clear"), 200, OK)
    assert get(daemon, "/" + path).json()["total_rows"] == 0
    assert len(run(orders, "SELECT * FROM t")) == 3


@pytest.mark.parametrize("path, body, error", [
    ("t/cell", {"row_index": 1, "column_index": 0, "value": "x"}, "column 0 is the primary key"),
    ("t/cell", {"row_index": 1, "value": "x"}, "column 0 is the primary key"),
    ("t/cell", {"row_index": 1, "column_index": 3, "value": "x"}, 'no column 3 in "t"'),
    ("t/cell", {"row_index": 1, "column_index": 2 ** 40, "value": "x"}, f'no column {2 ** 32 - 1} in "t"'),
    ("t/cell", {"row_index": 4, "column_index": 1}, 'no row 4 in "t"'),
    ("t/cell", {"row_index": "1", "column_index": 1, "value": "x"}, "rows count from 1"),
    ("t/cell", {"row_index": -1, "column_index": 1, "value": "x"}, "rows count from 1"),
    ("t/cell", [], "column 0 is the primary key"),
    ("t/delete-row", {}, "rows count from 1"), ("t/delete-row", {"row_index": 9}, 'no row 9 in "t"'),
    ("u/clear", None, 'no table "u"'), ("sqlite_schema/clear", None, 'no table "sqlite_schema"')])
def test_what_the_database_refuses_is_told(daemon, orders, path, body, error):
    expect_error(post(daemon, path, body), 400, error)
    assert run(orders, "SELECT * FROM t") == [(10, "first", 1), (20, "second", 2), (30, "third", 3)]


@pytest.mark.parametrize("body, why", [
    ("", "tiny_json: unexpected end of input"), ("{", "tiny_json: expected '\"' at offset 1"),
    ("1 2", "tiny_json: trailing garbage after top-level value at offset 2"), ("nope", "stod")])
def test_a_body_that_cannot_be_read_says_what_was_expected(daemon, orders, body, why):
    for package in ("shop", "ghost"):
        expect_error(post(daemon, "t/cell", body, package), 400, CELL + why)
        expect_error(post(daemon, "t/delete-row", body, package), 400, ROW + why)
    assert len(run(orders, "SELECT * FROM t")) == 3


def test_a_table_that_is_not_there_cannot_be_read(daemon):
    expect_error(get(daemon, "/u"), 404, NO_DATABASE)


@pytest.mark.parametrize("package", ["ghost", "mirelclient"])
def test_a_package_without_a_database(daemon, package):
    expect_error(get(daemon, package=package), 404, NO_DATABASE)
    expect_error(get(daemon, "/t", package), 404, NO_DATABASE)
    expect_error(post(daemon, "t/cell", {"row_index": 1, "column_index": 1, "value": "x"}, package), 404, NO_DATABASE)
    expect_error(post(daemon, "t/delete-row", {"row_index": 1}, package), 404, NO_DATABASE)
    expect_error(post(daemon, "t/clear", package=package), 404, NO_DATABASE)
