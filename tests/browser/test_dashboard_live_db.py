"""The DB sub-tab of a package whose application offers its database on the bus: a whole machine, with nothing
standing in."""
import pytest

from live_package import NAME
from portwatch_app import DATABASE, run

ROWS = "table.rows tbody tr"


@pytest.fixture
def tables(package, page):
    """The page shows the tables."""
    package.start()
    page.open()
    page.open_package(NAME, "DB")
    page.wait('role=button[name="targets"]')
    return page


def open_table(page, name):
    page.click(f'role=button[name="{name}"]')
    page.wait(f'h3:text-is("{name}")')
    page.wait(ROWS)


def wait_count(page, table, count):
    page.wait(f'tr:has(button:text-is("{table}")) >> td:nth-child(2):has-text("{count}")')


def field(column, row):
    return f'role=textbox[name="{column} of row {row}"]'


def add_checks(count):
    run("WITH RECURSIVE numbers(n) AS (SELECT 1 UNION SELECT n + 1 FROM numbers "
        f"WHERE n < {count}) INSERT INTO checks(target, state) SELECT 'added ' || n, 'up' FROM numbers")


def test_tables_stand_with_their_rows_and_columns(tables):
    assert tables.text(".card .hint") == f"portwatch.targets: {DATABASE}"
    assert [line.split("\t") for line in tables.texts("tbody tr")] == [
        ["checks", "2", "id, target, time, state, milliseconds, error"], ["targets", "2", "id, host, port, label"]]
    open_table(tables, "targets")
    assert tables.texts("table.rows td.key") == ["1", "2"]
    assert [[tables.value(field(column, row)) for column in ("host", "port", "label")] for row in (1, 2)] == [
        ["127.0.0.1", "7080", "dashboard"], ["127.0.0.1", "17379", "redis"]]


def test_edited_cell_is_in_the_file_and_in_the_page(tables):
    open_table(tables, "targets")
    tables.fill(field("label", 1), "the page")
    tables.fill(field("port", 1), "7090")
    run("INSERT INTO targets(host, port) VALUES ('127.0.0.1', 1)")
    tables.press("Enter")
    tables.wait_text("Row saved")
    wait_count(tables, "targets", 3)
    assert tables.count("table.rows input.edited") == 0
    assert tables.evaluate("() => document.activeElement.getAttribute('aria-label')") == "port of row 1"
    assert (tables.value(field("label", 1)), tables.value(field("port", 1))) == ("the page", "7090")
    assert run("SELECT host, port, label FROM targets WHERE id = 1") == [("127.0.0.1", 7090, "the page")]


def test_deleted_row_is_gone_from_the_file_the_page_and_the_count(tables):
    open_table(tables, "targets")
    tables.button_of("1", "Delete")
    wait_count(tables, "targets", 1)
    assert run("SELECT id FROM targets") == [(2,)]
    assert tables.texts("table.rows td.key") == ["2"]


def test_cleared_table_is_empty(tables):
    open_table(tables, "checks")
    tables.click('role=button[name="Clear table"]')
    tables.wait_text("The table is empty.")
    wait_count(tables, "checks", 0)
    assert run("SELECT count(*) FROM checks") == [(0,)] and run("SELECT count(*) FROM targets") == [(2,)]


def test_refused_write_tells_its_error_and_what_stands_there_now(tables):
    open_table(tables, "targets")
    run("DELETE FROM targets WHERE id = 2")
    tables.expected_errors = ["400 (Bad Request)"]
    tables.fill(field("label", 2), "too late")
    tables.press("Enter")
    tables.wait_text('Some cells failed to save: no row 2 in "targets"')
    wait_count(tables, "targets", 1)
    assert tables.texts("table.rows td.key") == ["1"]
    run("DELETE FROM targets")
    tables.button_of("1", "Delete")
    tables.wait('.toast.bad >> text=\'no row 1 in "targets"\'')
    tables.wait_text("The table is empty.")


def test_row_that_no_longer_comes_apart_into_its_cells_cannot_be_saved(tables):
    open_table(tables, "targets")
    tables.fill(field("label", 1), "one|two")
    tables.press("Enter")
    tables.wait('td:text-is("127.0.0.1|7080|one|two")')
    assert run("SELECT host, port, label FROM targets WHERE id = 1") == [("127.0.0.1", 7080, "one|two")]
    assert tables.count(f"{ROWS}:first-child >> input[type=text]") == 0
    assert tables.count(f"{ROWS}:first-child >> role=button[name='Save'][disabled]") == 1
    tables.button_of("1", "Delete")
    wait_count(tables, "targets", 1)
    assert run("SELECT id FROM targets") == [(2,)]


def test_long_table_is_turned_page_by_page(tables):
    add_checks(400)
    open_table(tables, "checks")
    assert tables.text(".heading .hint") == "rows 1–200 of 402"
    for first, last in ((201, 400), (401, 402)):
        tables.click('role=button[name="Next"]')
        tables.wait(f'.heading .hint:text-is("rows {first}–{last} of 402")')
    assert tables.texts("table.rows td.number") == ["401", "402"]
    assert tables.count('role=button[name="Next"]') == 0
    for gone in ("402", "401"):
        tables.button_of(gone, "Delete")
        tables.wait_gone(f'td.key:text-is("{gone}")')
    tables.wait('.heading .hint:text-is("rows 201–400 of 400")')
    assert run("SELECT max(id), count(*) FROM checks") == [(400, 400)]
    tables.click('role=button[name="Previous"]')
    tables.wait('.heading .hint:text-is("rows 1–200 of 400")')
    assert tables.count('role=button[name="Previous"]') == 0
