"""The sub-tabs of a package, with answers that stand in for a package that runs on the bus."""
import json

import pytest
from programs import wait_until

BASE = "/api/packages/app"
NOT_ON_THE_BUS = "package not discovered on the bus, or it didn't reply"
FIELD = {"name": "speed", "type_name": "int", "description": "How fast it turns", "current_value": "7",
         "default_value": "5", "is_default": False}
OTHER_FIELD = {"name": "label", "type_name": "string", "description": "", "current_value": "one",
               "default_value": "one", "is_default": True}


def session(is_start, timestamp, log_line, **fields):
    return {"is_start": is_start, "timestamp": timestamp, "pid": 4711, "executable_path": "/opt/app/run",
            "user": "root", "working_dir": "/opt/app", "args": "--fast -n 3", "duration_seconds": 0 if is_start else 61,
            "reason": "" if is_start else "stopped by signal 15", "runtime_snapshot": "", "log_line": log_line, **fields}


def log(first, lines, **fields):
    return {"ok": True, "error": "", "total_lines": first + len(lines) - 1, "from_line": first, "generation": 1,
            "lines": lines, **fields}


@pytest.fixture
def open_tab(open_page, page):
    """Opens a sub-tab of the package "app" with the given answers below the package's path."""

    def open_tab(sub_tab, answers, **options):
        open_page(answers={BASE + path: answer for path, answer in answers.items()}, **options)
        page.open_package("app", sub_tab)
        return page

    return open_tab


@pytest.mark.parametrize("sub_tab, path", [
    ("Sessions", "/sessions"), ("Crashes", "/crashes"), ("Logs", "/log/info"), ("Config", "/config"), ("DB", "/db")])
def test_error_of_a_request_stands_in_the_card(open_tab, page, sub_tab, path):
    page.expected_errors = ["404 (Not Found)"]
    open_tab(sub_tab, {path: ({"error": NOT_ON_THE_BUS}, 404)})
    page.wait(f'.card .error:text-is("{NOT_ON_THE_BUS}")')


@pytest.mark.parametrize("sub_tab, path, body, text", [
    ("Sessions", "/sessions", {"discovered": False, "sessions": []},
     "No data (is the package running and discovered?)"),
    ("Crashes", "/crashes", {"discovered": False, "crashes": []},
     "No data (is the package running and discovered?)"),
    ("Config", "/config", {"fields": []}, "No config fields (package not discovered on the bus?)."),
    ("DB", "/db", {"tables": []}, "No tables (package not discovered on the bus, or it has no db)."),
    ("Logs", "/log/info", {"line_count": 0}, "The log is empty.")])
def test_nothing_to_show_is_said(open_tab, page, sub_tab, path, body, text):
    open_tab(sub_tab, {path: body})
    page.wait_text(text)


@pytest.mark.parametrize("sub_tab, path, seconds", [("Sessions", "/sessions", 3), ("Crashes", "/crashes", 5),
                                                    ("Logs", "/log/info", 2)])
def test_sub_tab_polls_until_another_one_is_opened(open_tab, page, sub_tab, path, seconds):
    open_tab(sub_tab, {path: {}}, stop_clock=True)
    page.wait(".card .note >> text=/^(No data|The log is empty)/")
    page.pass_time(seconds - 0.1)
    assert page.requests().count(BASE + path) == 1
    page.pass_time(0.1)
    page.wait_asked(BASE + path, 2)

    page.tab("Manifest")
    page.wait("pre")
    before = page.requests().count(BASE + path)
    page.pass_time(30)
    page.wait_asked("/api/self", 2)
    assert page.requests().count(BASE + path) == before


def test_sessions_stand_newest_first_and_open_with_their_part_of_the_log(open_tab, page):
    sessions = [session(True, 1700000000, 100), session(False, 1700000061, 130), session(True, 1700000100, 0)]
    open_tab("Sessions", {"/sessions": {"discovered": True, "sessions": sessions},
                          "/log?from=100&to=140": log(100, ["begins"]), "/log?from=90&to=130": log(90, ["ends"])})
    page.wait("tbody tr")
    assert [row.split()[0] for row in page.texts("tbody tr")] == ["start", "stop", "start"]
    page.click('role=button[name="stop"]')
    page.wait('.log >> text="ends"')
    assert page.texts("dd") == ["4711", "--fast -n 3", "/opt/app", "/opt/app/run", "61", "stopped by signal 15"]
    page.click("tbody tr:last-child")
    page.wait('.log >> text="begins"')
    assert page.count(".log") == 1
    page.click('role=button[name="start"] >> nth=0')  # has no line in the log
    page.wait_gone(".log")
    assert page.count("dl") == 1
    page.click('role=button[name="start"] >> nth=0')
    page.wait_gone("dl")


def test_opened_session_stays_open_over_a_refresh(open_tab, page):
    first = {"discovered": True, "sessions": [session(True, 1700000000, 3)]}
    open_tab("Sessions", {"/sessions": first, "/log?from=3&to=43": log(3, ["begins"])}, stop_clock=True)
    page.click('role=button[name="start"]')
    page.wait('.log >> text="begins"')
    page.answer(BASE + "/sessions", {"discovered": True, "sessions": [*first["sessions"], session(False, 1700000061, 0)]})
    page.pass_time(3)
    page.wait('role=button[name="stop"]')
    assert page.text("tbody tr:last-child .log") == "begins"
    assert page.requests().count(BASE + "/log?from=3&to=43") == 1


def test_log_follows_its_end_unless_it_was_scrolled_up(open_tab, page):
    def lines(count):
        return log(1, [f"line {number}" for number in range(1, count + 1)])

    def grow(count):
        page.answer(f"{BASE}/log?from=1&to={count}", lines(count))
        page.answer(BASE + "/log/info", {"line_count": count})
        page.pass_time(2)
        page.wait(f'.log >> text="line {count}"')
        return page.evaluate("""() => {
            const log = document.querySelector(".log");
            return [log.scrollTop, log.scrollHeight - log.clientHeight, log === document.activeElement];
        }""")

    open_tab("Logs", {"/log/info": {"line_count": 100}, "/log?from=1&to=100": lines(100)}, stop_clock=True)
    page.wait('.log >> text="line 100"')
    page.locate(".log", "focus")
    top, end, focused = grow(110)
    assert abs(top - end) < 2 and focused
    page.evaluate("() => document.querySelector('.log').scrollTo(0, 40)")
    top, _, focused = grow(120)
    assert top == 40 and focused


def test_refresh_of_the_sessions_leaves_the_focus(open_tab, page):
    sessions = [session(True, 1700000000, 0), session(False, 1700000061, 0)]
    open_tab("Sessions", {"/sessions": {"discovered": True, "sessions": sessions[:1]}}, stop_clock=True)
    page.locate('role=button[name="start"]', "focus")
    page.answer(BASE + "/sessions", {"discovered": True, "sessions": sessions})
    page.pass_time(3)
    page.wait('role=button[name="stop"]')
    assert page.evaluate("() => document.activeElement.textContent") == "start"


@pytest.mark.parametrize("lines, expected", [(1, (1, 1)), (200, (1, 200)), (201, (2, 201)), (5000, (4801, 5000))])
def test_log_shows_its_last_two_hundred_lines(open_tab, page, lines, expected):
    path = "/log?from={}&to={}".format(*expected)
    open_tab("Logs", {"/log/info": {"line_count": lines}, path: log(expected[0], ["the end"])})
    page.wait('.log >> text="the end"')


def test_log_lines_have_the_colour_of_their_level(open_tab, page):
    levels = ["TRACE", "DEBUG", "INFO", "WARNING", "ERROR", "FATAL"]
    lines = [f"[app] [{level}] [now] text" for level in levels] + ["no tag", "[app] [ERROR] [INFO] both", "[OTHER] x"]
    open_tab("Logs", {"/log/info": {"line_count": 9}, "/log?from=1&to=9": log(1, lines)})
    page.wait(".log")
    classes = page.evaluate("() => [...document.querySelectorAll('.log div')].map((line) => line.className)")
    assert classes == [f"level-{level.lower()}" for level in levels] + ["level-info", "level-error", "level-info"]


def test_log_that_the_package_cannot_read_tells_its_error(open_tab, page):
    open_tab("Logs", {"/log/info": {"line_count": 1},
                      "/log?from=1&to=1": log(1, [], ok=False, error="the file is gone")})
    page.wait('.card .error:text-is("the file is gone")')


def test_field_is_saved_and_read_again(open_tab, page):
    open_tab("Config", {"/config": {"fields": [FIELD, OTHER_FIELD]}})
    page.wait("tbody tr")
    assert page.texts("tbody tr:first-child td")[0].split("\n") == ["speed", "How fast it turns"]
    page.fill('role=textbox[name="label"]', "half ty")
    page.fill('role=textbox[name="speed"]', "9")
    page.answer(BASE + "/config", {"fields": [dict(FIELD, current_value="9"), dict(OTHER_FIELD, current_value="two")]})
    page.click('tr:has-text("speed") >> role=button[name="Save"]')
    page.wait_text("speed saved")
    page.wait_asked(BASE + "/config", 2)
    assert page.requests("POST") == [(BASE + "/config", '{"name":"speed","value":"9"}')]
    page.wait("input.edited >> nth=0")
    assert (page.value('role=textbox[name="speed"]'), page.value('role=textbox[name="label"]')) == ("9", "half ty")
    assert page.count("input.edited") == 1


def test_console_is_opened_once(daemon, page):
    daemon.start()
    page.open()
    assert not any("xterm.mjs" in path for path in page.requests())
    page.tab("Console")
    page.wait(".tty .xterm-screen")
    page.tab("Self")
    page.tab("Console")
    assert page.count(".tty .xterm") == 1
    assert page.requests().count("/static/xterm/xterm.mjs") == 1


def test_console_that_is_opened_again_while_it_loads_is_opened_once(daemon, page):
    daemon.start()
    page.open()
    page.evaluate("""() => {
        const tabs = [...document.querySelectorAll("[role=tab]")];
        for (const name of ["Console", "Self", "Console"]) {
            tabs.find((tab) => tab.textContent === name).click();
        }
    }""")
    wait_until(lambda: "$" in page.text(".tty .xterm-rows") or "#" in page.text(".tty .xterm-rows"), "the shell is there")
    assert page.count(".tty .xterm") == 1
    assert page.sockets() == ["/api/console/ws"]


# -- DB --

TABLE = {"ok": True, "error": "", "total_rows": 3, "from_row": 1, "column_names": ["id", "name", "note"],
         "rows": [["a", "Ann", "x"], ["b", "Bob", "y"], ["c", "Cem", "two\nlines"]]}
PAGE = "/db/people?from=1&to=200"
DB = {"/db": {"name": "app", "path": "/db", "loaded": True, "tables": [
    {"name": "people", "row_count": 3, "column_names": ["id", "name", "note"]}]}}


@pytest.fixture
def table(open_tab, page):
    open_tab("DB", {**DB, PAGE: TABLE, "/db/people/cell": {"ok": True, "error": ""},
                    "/db/people/delete-row": {"ok": True}, "/db/people/clear": {"ok": True}})
    page.click('role=button[name="people"]')
    page.wait("table.rows tbody tr")
    return page


def posts(page):
    return [(path.removeprefix(BASE + "/db/people"), json.loads(body) if body else None)
            for path, body in page.requests("POST")]


def test_rows_have_their_key_and_a_field_for_every_other_cell(table):
    assert table.texts("table.rows td.key") == ["a", "b", "c"]
    assert table.texts("table.rows td.number") == ["1", "2", "3"]
    assert table.count("table.rows tbody tr:first-child input[type=text]") == 2
    assert table.value('role=textbox[name="note of row 3"]') == "two\nlines"
    assert table.text(".heading .hint") == "rows 1–3 of 3"


def test_row_is_saved_cell_by_cell_without_its_key(table):
    table.fill('role=textbox[name="name of row 2"]', "Bea")
    table.button_of("b", "Save")
    table.wait_text("Row saved")
    table.wait_asked(BASE + PAGE, 2)
    assert posts(table) == [("/cell", {"row_index": 2, "column_index": 1, "value": "Bea"}),
                            ("/cell", {"row_index": 2, "column_index": 2, "value": "y"})]


def test_cells_that_fail_do_not_keep_the_others_from_being_saved(table):
    table.answer(BASE + "/db/people/cell", {"error": "no such column"}, 400)
    table.expected_errors = ["400 (Bad Request)"]
    table.button_of("a", "Save")
    table.wait_text("Some cells failed to save: no such column")
    assert [body["column_index"] for _, body in posts(table)] == [1, 2]
    table.wait_asked(BASE + PAGE, 2)


def test_what_is_typed_into_other_rows_survives_a_save(table):
    table.fill('role=textbox[name="name of row 1"]', "Half")
    table.fill('role=textbox[name="name of row 2"]', "Bea")
    table.answer(BASE + PAGE, dict(TABLE, rows=[["a", "Ann", "x"], ["b", "Bea", "y"], ["c", "New", "z"]]))
    table.press("Enter")
    table.wait_text("Row saved")
    table.wait("table.rows input.edited")
    assert [table.value(f'role=textbox[name="name of row {row}"]') for row in (1, 2, 3)] == ["Half", "Bea", "New"]
    assert table.count("input.edited") == 1


def test_row_is_deleted_and_table_cleared_without_a_question(table):
    table.button_of("b", "Delete")
    table.wait_asked(BASE + PAGE, 2)
    table.click('role=button[name="Clear table"]')
    table.wait_asked(BASE + PAGE, 3)
    assert posts(table) == [("/delete-row", {"row_index": 2}), ("/clear", None)]


def test_selected_rows_are_copied_in_the_order_of_their_numbers(table):
    table.click('role=checkbox[name="Select row 2"]')
    table.click('role=checkbox[name="Select row 1"]')
    table.click('role=button[name="Copy selected"]')
    table.wait_text("2 rows copied")
    assert table.evaluate("() => navigator.clipboard.readText()") == "a\tAnn\tx\nb\tBob\ty"

    table.click('role=checkbox[name="Select all rows"]')
    assert table.count("input[type=checkbox]:checked") == 4
    table.button_of("b", "Delete")
    table.wait_gone("input[type=checkbox]:checked")


def test_table_that_the_package_cannot_read_tells_its_error(open_tab, page):
    open_tab("DB", {**DB, PAGE: dict(TABLE, ok=False, error="no such table", rows=[])})
    page.click('role=button[name="people"]')
    page.wait('.card .error:text-is("no such table")')
