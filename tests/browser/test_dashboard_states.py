"""Every view while it loads, when it has nothing to show, when it fails, and what it shows."""
import pytest
from programs import wait_until
from stand_ins import BASE, CHANNELS, CRASH, ROWS, SESSION, TABLE, TABLES, below, package

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
    page.pass_time(30)
    page.wait_asked("/api/self", 2)
    assert page.requests().count(path) == asked


@pytest.mark.parametrize("tab, path, place", [
    ("Packages", "/api/packages", "main"), ("Packages", "/api/self", "#summary"),
    ("Registry", "/api/registry/packages", "main"), ("Self", "/api/self", "main"),
    ("Self", "/api/self/config", "main"), ("Console", "/static/xterm/xterm.mjs", ".tty")])
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
    page.wait(".tty .error >> text=/^The terminal could not be loaded: ./")

    open_page()
    page.evaluate("() => Promise.all(['xterm', 'addon-fit'].map((name) => import(`/static/xterm/${name}.mjs`)))")
    daemon.stop()
    page.tab("Console")
    page.wait(".tty .xterm-rows >> text=/connection closed/")
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
