"""Every view while it loads, when it has nothing to show and when it fails, and what a refresh leaves
as it is."""
import json

import pytest
from browser import DESK, PHONE
from preloaded import entry_text, write_registry
from programs import wait_until
from shell import open_terminal, run, wait_rows

BASE = "/api/packages/app"
CHANNELS = "/api/registry/packages/app/channels"
FIELD = {"name": "speed", "type_name": "int", "description": "How fast", "current_value": "7", "default_value": "5",
         "is_default": False}
OTHER_FIELD = dict(FIELD, name="label", current_value="one")
TABLE = {"ok": True, "error": "", "total_rows": 212, "from_row": 11, "column_names": ["id", "name"],
         "rows": [["a", "Ann"], ["b", "Bob"]]}
TABLES = {"tables": [{"name": "people", "row_count": 2, "column_names": ["id", "name"]}]}
ROWS = "/db/people?from=1&to=200"
SESSION = {"is_start": True, "timestamp": 1700000000, "pid": 4711, "executable_path": "/opt/app/run", "user": "root",
           "working_dir": "/opt/app", "args": "", "duration_seconds": 61, "reason": "", "log_line": 0}
CRASH = {"ts": 1700000000, "pid": 4711, "signum": 11, "detail": "at 0x10 in run()"}


def package(name="app", **fields):
    return {"name": name, "version": "1.0.0", "arch": "any", "status": "running", "started_at": 0, "launch_args": [],
            **fields}


@pytest.fixture
def open_page(daemon, page):
    """Opens the page of a machine on which "app" is installed; the answers are by whole path."""
    write_registry(entry_text("app", "1.0.0", "/usr/local/daemon/nowhere", stopped=True))
    daemon.start()
    return lambda **options: page.open(**options)


def below(answers):
    return {BASE + path: answer for path, answer in answers.items()}


# -- loading --


@pytest.mark.parametrize("sub_tab, path", [
    ("Manifest", BASE + "/manifest"), ("Sessions", BASE + "/sessions"), ("Crashes", BASE + "/crashes"),
    ("Logs", BASE + "/log/info"), ("Config", BASE + "/config"), ("Versions", CHANNELS), ("DB", BASE + "/db")])
def test_sub_tab_says_that_it_loads_and_asks_once_meanwhile(open_page, page, sub_tab, path):
    open_page(held=[path], stop_clock=True)
    page.open_package("app", sub_tab)
    page.wait('.card .note:text-is("Loading…")')
    page.wait_asked(path)
    asked = page.requests().count(path)
    page.pass_time(20)
    page.wait_asked("/api/self", 1)
    assert page.requests().count(path) == asked


@pytest.mark.parametrize("tab, path, place", [
    ("Packages", "/api/packages", "main"), ("Packages", "/api/self", "#summary"),
    ("Registry", "/api/registry/packages", "main"), ("Self", "/api/self", "main"),
    ("Self", "/api/self/config", "main"), ("Console", "/static/xterm/xterm.mjs", ".terminal")])
def test_tab_says_that_it_loads(open_page, page, tab, path, place):
    open_page(held=[path])
    page.tab(tab)
    page.wait(f'{place} >> text="Loading…" >> visible=true')
    page.wait_asked(path)


def test_what_loads_within_a_view_says_so_too(open_page, page):
    open_page(answers={**below({"/db": TABLES, "/sessions": {"sessions": [dict(SESSION, log_line=3)]}}),
                       "/api/registry/packages": {"packages": ["app"]}, CHANNELS: {"channels": ["main"]}},
              held=[BASE + ROWS, BASE + "/log?from=3&to=43", "/api/registry/packages/app/main"])
    page.open_package("app", "DB")
    page.click('role=button[name="people"]')
    page.wait('.card .card .note:text-is("Loading…")')
    page.tab("Sessions")
    page.click('role=button[name="start"]')
    page.wait('tr.detail >> text="Loading…"')
    page.tab("Registry")
    page.click('role=button[name="app"]')
    page.wait('.offer .note:text-is("Loading…")')


# -- nothing to show --


def test_registry_without_channels_or_versions_says_so(open_page, page):
    open_page(answers={"/api/registry/packages": {"packages": ["app", "bare"]}, CHANNELS: {"channels": ["main"]},
                       "/api/registry/packages/app/main": {"versions": []},
                       "/api/registry/packages/bare/channels": {"channels": []}})
    page.tab("Registry")
    page.click('role=button[name="app"]')
    page.wait_text("The channel has no versions.")
    page.click('role=button[name="bare"]')
    page.wait_text("The package has no channels.")


def test_package_that_the_registry_does_not_have_says_so(open_page, page):
    open_page(answers={CHANNELS: {"channels": []}})
    page.open_package("app", "Versions")
    page.wait_text("The registry has no versions of it.")
    page.wait_text("Installed: 1.0.0 (any)")


def test_table_without_rows_says_so(open_page, page):
    open_page(answers=below({"/db": TABLES, ROWS: dict(TABLE, total_rows=0, rows=[])}))
    page.open_package("app", "DB")
    page.click('role=button[name="people"]')
    page.wait_text("The table is empty.")


# -- errors --


@pytest.mark.parametrize("sub_tab, path", [
    ("Manifest", BASE + "/manifest"), ("Launch args", "/api/packages"), ("Versions", CHANNELS),
    ("DB", BASE + "/db")])
def test_error_of_what_is_read_once_stands_in_the_card(open_page, page, sub_tab, path):
    page.expected_errors = ["404 (Not Found)", "502 (Bad Gateway)"]
    open_page()
    page.wait('role=button[name="app"]')
    page.answer(path, {"error": "not now"}, 404)
    page.open_package("app", sub_tab)
    page.wait('.card .error:text-is("not now")')


def test_errors_of_the_registrys_detail_and_of_the_settings_stand_in_their_cards(open_page, page):
    page.expected_errors = ["502 (Bad Gateway)", "500 (Internal Server Error)"]
    open_page(answers={"/api/registry/packages": {"packages": ["app", "other"]}, CHANNELS: {"channels": ["main"]},
                       "/api/registry/packages/app/main": ({"error": "no such channel"}, 502),
                       "/api/registry/packages/other/channels": ({"error": "no such package"}, 502),
                       "/api/self/config": ({"error": "no settings"}, 500)})
    page.tab("Registry")
    page.click('role=button[name="app"]')
    page.wait('.offer .error:text-is("no such channel")')
    page.click('role=button[name="other"]')
    page.wait('.offer .error:text-is("no such package")')
    page.tab("Self")
    page.wait('.card .error:text-is("no settings")')


def test_view_that_polls_recovers_from_an_error(open_page, page):
    page.expected_errors = ["404 (Not Found)"]
    open_page(answers=below({"/crashes": ({"error": "not on the bus"}, 404)}), stop_clock=True)
    page.open_package("app", "Crashes")
    page.wait('.card .error:text-is("not on the bus")')
    for _ in range(2):  # the second time it is shown again, though it is the same as before the error
        page.answer(BASE + "/crashes", {"crashes": [CRASH]})
        page.pass_time(5)
        page.wait("tbody tr")
        assert page.count(".error >> visible=true") == 0
        page.answer(BASE + "/crashes", {"error": "not on the bus"}, 404)
        page.pass_time(5)
        page.wait('.card .error:text-is("not on the bus")')
        assert page.count("tbody tr >> visible=true") == 0


def test_errors_of_an_update_of_the_daemon_are_told(open_page, page):
    page.expected_errors = ["500 (Internal Server Error)", "409 (Conflict)"]
    open_page(answers={"/api/self/check-update": ({"error": "no check"}, 500),
                       "/api/self/update": ({"error": "busy already"}, 409)})
    page.tab("Self")
    page.click('role=button[name="Check for updates"]')
    page.wait('.line >> text="no check"')
    page.answer("/api/self/check-update", {"available": True, "current_version": "1.0.0", "latest_version": "2.0.0"})
    page.click('role=button[name="Check for updates"]')
    page.click('role=button[name="Update now"]')
    page.wait('.line >> text="busy already"')


def test_terminal_that_cannot_be_loaded_or_connected_says_so(daemon, open_page, page):
    page.expected_errors = ["404 (Not Found)", "WebSocket", "ERR_"]
    open_page(answers={"/static/xterm/addon-fit.mjs": ({}, 404)})
    page.tab("Console")
    page.wait(".terminal .error >> text=/^The terminal could not be loaded: ./")

    open_page()
    page.evaluate("() => Promise.all(['xterm', 'addon-fit'].map((name) => import(`/static/xterm/${name}.mjs`)))")
    daemon.stop()
    page.tab("Console")
    page.wait(".terminal .xterm-rows >> text=/connection closed/")
    red = page.evaluate("""() => [...document.querySelectorAll(".xterm-rows span.xterm-fg-1")]
        .map((span) => span.textContent.trim())""")
    assert red == ["[connection error]", "[connection closed]"]


# -- what is shown --


@pytest.mark.parametrize("age, text", [
    (0, "0s ago"), (59, "59s ago"), (60, "1m ago"), (3599, "59m ago"), (3600, "1h 0m ago"), (86399, "23h 59m ago"),
    (86400, "1d ago"), (86400 * 30, "30d ago"), (None, "")])
def test_start_is_told_as_a_relative_time(open_page, page, age, text):
    open_page(answers={"/api/packages": {"body": []}}, stop_clock=True)
    page.wait_text("No packages installed.")
    now = page.evaluate("() => Math.floor(Date.now() / 1000)")
    page.answer("/api/packages", {"body": [package(started_at=0 if age is None else now + 5 - age)]})
    page.pass_time(5)
    page.wait("tbody tr")
    assert page.texts("tbody td")[4] == text


def test_summary_names_the_arch_where_no_processor_is_known(open_page, page):
    open_page(answers={"/api/self": {"arch": "arm64-linux", "cpu": "", "os": "linux", "config_name": "m1",
                                     "version": "1.2.3"}})
    page.wait('#summary >> text="arm64-linux"')
    assert page.text("#summary").split() == ["os", "linux", "cpu", "arm64-linux", "name", "m1", "version", "1.2.3"]


def test_crash_is_told_with_its_time_pid_signal_and_detail(open_page, page):
    open_page(answers=below({"/crashes": {"discovered": True, "crashes": [CRASH]}}))
    page.open_package("app", "Crashes")
    page.wait("tbody tr")
    time, *rest = page.texts("tbody td")
    assert rest == ["4711", "11", "at 0x10 in run()"]
    assert time == page.evaluate("() => new Date(1700000000000).toLocaleString('sv-SE')")


def test_part_of_the_log_before_an_early_stop_begins_with_the_first_line(open_page, page):
    open_page(answers=below({"/sessions": {"sessions": [dict(SESSION, is_start=False, log_line=12)]},
                             "/log?from=1&to=12": {"ok": True, "lines": ["early"]}}))
    page.open_package("app", "Sessions")
    page.click('role=button[name="stop"]')
    page.wait('.log >> text="early"')


def test_rows_are_numbered_from_the_first_one_that_was_sent(open_page, page):
    open_page(answers=below({"/db": TABLES, ROWS: TABLE, "/db/people/delete-row": {"ok": True}}))
    page.open_package("app", "DB")
    page.click('role=button[name="people"]')
    page.wait("table.rows tbody tr")
    assert page.texts("table.rows td.number") == ["11", "12"]
    page.button_of("b", "Delete")
    page.wait_asked(BASE + ROWS, 2)
    assert page.requests("POST") == [(BASE + "/db/people/delete-row", '{"row_index":12}')]


def test_launch_arguments_may_be_taken_away(daemon, open_page, page):
    daemon.post(BASE + "/launch-args", {"args": ["--fast"]})
    open_page()
    page.open_package("app", "Launch args")
    page.fill('role=textbox[name="Launch arguments"]', " ")
    page.press("Enter")
    page.wait_text("Launch args saved - restart the package to apply.")
    assert daemon.packages()["app"]["launch_args"] == []


def test_update_is_asked_for_each_700_milliseconds_and_ends_with_a_fresh_list(open_page, page):
    builds = [{"version": version, "arch": "any", "manifest": {}} for version in ("1.0.0", "2.0.0")]
    status = {"phase": "downloading", "error": "", "target_version": "2.0.0"}
    open_page(answers={CHANNELS: {"channels": ["main"]}, "/api/registry/packages/app/main": {"versions": builds},
                       BASE + "/update": {"ok": True}, BASE + "/update-status": status}, stop_clock=True)
    page.open_package("app", "Versions")
    page.button_of("2.0.0", "Switch")
    page.wait_asked(BASE + "/update-status", 0)
    wait_until(lambda: page.requests("POST"), "the update is asked for")
    for times in (1, 2, 3):
        page.pass_time(0.7)
        page.wait_asked(BASE + "/update-status", times)
        assert page.requests().count(BASE + "/update-status") == times
        page.wait_text("Downloading…")
    before = page.requests().count("/api/packages")
    page.answer(BASE + "/update-status", dict(status, phase="done"))
    page.pass_time(0.7)
    page.wait('tr:has-text("2.0.0") >> .phase.good >> text="Done"')
    page.wait_asked("/api/packages", before + 2)  # the list, and the version that is installed now
    asked = page.requests().count(BASE + "/update-status")
    page.pass_time(7)
    assert page.requests().count(BASE + "/update-status") == asked


# -- a refresh --


BOXES = """() => [...document.querySelectorAll("header, #summary, main, thead th, tbody tr, tbody td, tbody button")]
    .filter((element) => element.offsetParent !== null)
    .map((element) => JSON.stringify(element.getBoundingClientRect()))"""


@pytest.mark.parametrize("size", [DESK, PHONE], ids=["desk", "phone"])
def test_refresh_of_the_list_moves_nothing(open_page, page, size):
    def entries(now, *states):
        return {"body": [package(f"app-{number}", status=status, started_at=now - age)
                         for number, (status, age) in enumerate(states)]}

    open_page(answers={"/api/packages": {"body": []}}, size=size, stop_clock=True)
    page.wait_text("No packages installed.")
    now = page.evaluate("() => Math.floor(Date.now() / 1000)")
    page.answer("/api/packages", entries(now, *[("running", 5)] * 30))
    page.pass_time(5)
    page.wait(".badge.good")
    page.evaluate("() => scrollTo(0, 300)")
    before = page.evaluate(BOXES)
    assert page.evaluate("() => scrollY") == 300
    page.answer("/api/packages", entries(now, *[("stopped", 40000), ("running", 86000), ("down", 900000)] * 10))
    page.pass_time(5)
    page.wait(".badge.bad")
    page.pass_time(20)
    page.wait_asked("/api/self", 2)
    assert page.evaluate(BOXES) == before


@pytest.mark.parametrize("sub_tab, path, first, second", [
    ("Sessions", "/sessions", {"sessions": [SESSION] * 60}, {"sessions": [SESSION] * 59 + [dict(SESSION, pid=9)]}),
    ("Crashes", "/crashes", {"crashes": [CRASH] * 60}, {"crashes": [CRASH] * 59 + [dict(CRASH, pid=9)]})])
def test_refresh_of_a_long_list_leaves_the_window_where_it_was_scrolled_to(open_page, page, sub_tab, path, first, second):
    open_page(answers=below({path: first}), stop_clock=True)
    page.open_package("app", sub_tab)
    page.wait("tbody tr >> nth=59")
    page.evaluate("() => scrollTo(0, 400)")
    page.answer(BASE + path, second)
    page.pass_time(5)
    page.wait('td:text-is("9")')
    assert page.evaluate("() => scrollY") == 400


def test_toast_moves_nothing(open_page, page):
    page.expected_errors = ["400 (Bad Request)", "404 (Not Found)"]
    open_page(stop_clock=True, answers={BASE + "/start": ({"error": "a long story " * 30}, 400)})
    page.wait("tbody tr")
    before = page.evaluate(BOXES)
    page.button_of("app", "Start")
    page.wait(".toast")
    assert page.evaluate(BOXES) == before


def test_what_is_typed_survives_a_refresh_that_fails(open_page, page):
    page.expected_errors = ["404 (Not Found)"]
    open_page(answers=below({"/config": {"fields": [FIELD, OTHER_FIELD]}}))
    page.open_package("app", "Config")
    page.fill('role=textbox[name="label"]', "half ty")
    for answer, status, text in (({"error": "gone"}, 404, "gone"),
                                 ({"fields": []}, 200, "No config fields (package not discovered on the bus?).")):
        page.fill('role=textbox[name="speed"]', "9")
        page.evaluate("() => (window.fetched = window.fetch)")
        page.call("unrouteAll")
        page.answer(BASE + "/config", answer, status)
        # The save goes through, only what is read after it does not.
        page.evaluate("""(path) => (window.fetch = (url, request) => request.method === "POST"
            ? Promise.resolve(new Response("{}")) : window.fetched(url, request))""", BASE)
        page.click('tr:has-text("speed") >> role=button[name="Save"]')
        page.wait(f'.card .error:text-is("{text}")')
        assert page.value('role=textbox[name="label"]') == "half ty"
        page.evaluate("() => (window.fetch = window.fetched)")
    page.answer(BASE + "/config", {"fields": [dict(FIELD, current_value="9"), OTHER_FIELD]})
    page.click('tr:has-text("speed") >> role=button[name="Save"]')
    page.wait_gone(".card .error >> visible=true")
    assert page.value('role=textbox[name="label"]') == "half ty"


def test_what_is_typed_into_a_table_survives_a_refresh_that_fails(open_page, page):
    page.expected_errors = ["404 (Not Found)"]
    open_page(answers=below({"/db": TABLES, ROWS: TABLE, "/db/people/cell": {"ok": True}}))
    page.open_package("app", "DB")
    page.click('role=button[name="people"]')
    page.fill('role=textbox[name="name of row 12"]', "half ty")
    page.answer(BASE + ROWS, {"error": "gone"}, 404)
    page.button_of("a", "Save")
    page.wait('.card .card .error:text-is("gone")')
    assert page.value('role=textbox[name="name of row 12"]') == "half ty"
    page.answer(BASE + ROWS, TABLE)
    page.button_of("a", "Save")
    page.wait_gone(".card .card .error >> visible=true")
    assert page.value('role=textbox[name="name of row 12"]') == "half ty"


def test_package_chosen_in_the_registry_stays_marked_when_the_list_has_changed(open_page, page):
    open_page(answers={"/api/registry/packages": {"packages": ["app"]}, CHANNELS: {"channels": []}})
    page.tab("Registry")
    page.click('role=button[name="app"]')
    page.wait_text("The package has no channels.")
    page.answer("/api/registry/packages", {"packages": ["aaa", "app"]})
    page.tab("Self")
    page.tab("Registry")
    page.wait('role=button[name="aaa"]')
    assert page.texts("[aria-pressed=true]") == ["app"]
    page.wait_text("The package has no channels.")


# -- the keyboard --


def test_terminal_takes_every_key_but_the_one_that_leads_out_of_it(open_page, page):
    open_page()
    open_terminal(page)
    run(page, "cat -v")
    page.press("Tab")
    page.press("Shift+Tab")
    page.press("Escape")
    page.type("=")
    wait_rows(page, lambda rows: any(row.endswith("^[[Z^[=") for row in rows), "the keys have come")
    page.press("Control+Shift+ArrowUp")
    assert page.evaluate("() => document.activeElement.textContent") == "Console"
    page.press("ArrowRight")
    page.wait('role=tab[name="Self"][selected=true]')
    page.press("ArrowLeft")
    page.type("back")
    wait_rows(page, lambda rows: any(row.endswith("=back") for row in rows), "the terminal has the keys again")


def test_every_action_on_the_page_can_be_reached_by_the_tab_key(open_page, page):
    """What can be clicked is among what the key goes to, but for the tabs, which the arrows move along."""
    open_page(answers=below({"/db": TABLES, ROWS: TABLE}))
    page.open_package("app", "DB")
    page.click('role=button[name="people"]')
    page.wait("table.rows input >> nth=3")
    expected = page.evaluate("""() => [...document.querySelectorAll("button, input, textarea, a")]
        .filter((element) => element.offsetParent !== null && element.getAttribute("role") !== "tab").length""")
    page.evaluate("() => { document.activeElement.blur(); window.reached = new Set(); }")
    for _ in range(expected + 6):
        page.press("Tab")
        page.evaluate("() => window.reached.add(document.activeElement)")
    reached = page.evaluate("""() => [...window.reached].filter((element) =>
        element.matches("button:not([role=tab]), input, textarea, a")).length""")
    assert reached == expected > 10
