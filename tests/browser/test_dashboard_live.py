"""The sub-tabs of a package whose application answers on the bus: a whole machine, with nothing standing in."""
import contextlib
import os
import re
import signal

import pytest

from live_package import LOG, NAME
from portwatch_app import NEVER, PORTWATCH_DATA, Listener, portwatch_crashes, portwatch_log, run
from programs import wait_until

REFUSED = "config_set failed - check the field name/value"


@pytest.fixture
def running(package):
    return package.start()


def restart(page, package, starts):
    """By the button in the list, and back to the package."""
    page.click('role=button[name="← Packages"]')
    page.button_of(NAME, "Restart")
    page.wait_text(f"restart {NAME}: ok")
    package.wait_ready(starts)


def facts(page):
    return dict(zip(page.texts("tr.detail dt"), page.texts("tr.detail dd")))


def cells(page, row):
    return page.texts(f"tbody > tr:not(.detail) >> nth={row} >> td")


# Sessions


def test_sessions_show_the_start_and_after_a_restart_the_stop_and_the_next_start(running, page):
    first = running.pid()
    page.open()
    page.open_package(NAME, "Sessions")
    page.wait('role=button[name="start"]')
    assert [cells(page, 0)[at] for at in (0, 2, 3)] == ["start", str(first), ""]

    restart(page, running, starts=2)
    second = running.pid()
    page.open_package(NAME, "Sessions")
    page.wait("tbody > tr >> nth=2")
    assert [[cells(page, row)[at] for at in (0, 2, 3)] for row in range(3)] == [
        ["start", str(second), ""], ["stop", str(first), "signal: Terminated"], ["start", str(first), ""]]


def test_session_tells_its_arguments_its_folder_and_what_the_log_says(running, page):
    page.open()
    page.open_package(NAME, "Sessions")
    page.locate('role=button[name="start"]', "focus")
    page.press("Enter")
    page.wait("tr.detail .log > div")
    session, = running.get("/sessions").json()["sessions"]
    folder = os.readlink(f"/proc/{running.pid()}/cwd")
    assert facts(page) == {"pid": str(running.pid()), "args": "--instance-policy kill", "working_dir": folder,
                           "executable_path": f"{folder}/portwatch", "duration_seconds": "–", "reason": "–"}
    shown = page.texts("tr.detail .log > div")
    assert shown == portwatch_log().splitlines()[session["log_line"] - 1:][:len(shown)]
    assert any("dashboard (127.0.0.1:7080) is " in line for line in shown)
    page.press("Enter")
    page.wait_gone("tr.detail")


# Crashes


def test_crash_appears_and_a_click_shows_where_it_happened_and_what_came_before(running, page):
    page.open()
    page.open_package(NAME, "Crashes")
    page.wait_text("No data (is the package running and discovered?)")
    pid = running.pid()
    os.kill(pid, signal.SIGSEGV)
    page.click(f'tr:has(td:text-is("{pid}")) >> role=button')
    page.wait("tr.detail .card .log > div")

    record, = portwatch_crashes()
    told = facts(page)
    assert cells(page, 0)[1:] == [str(pid), str(int(signal.SIGSEGV)), ""]
    assert told["signal"] == "11 (SIGSEGV)" and re.fullmatch("0x[0-9a-f]+", told["address"]) and told["detail"] == "–"
    assert f" version={told['version']} " in record.build and f" commit={told['commit']} " in record.build
    kind, time, maker = told["build"].split(", ")
    for text in (f"build_type={kind}", f"build_ts={time}", "build_user={} build_machine={}".format(*maker.split("@"))):
        assert set(text.split()) <= set(record.build.split())

    frames = page.texts("tr.detail .frames > div")
    functions, lines = zip(*(frame.split("\n") for frame in frames))
    assert "portwatch::PortWatch::run_impl" in functions and "main" in functions
    assert list(lines) == running.get("/crashes").json()["crashes"][0]["backtrace"]
    trace = page.texts("tr.detail .card .log > div")
    assert any(re.search(r"^\[LOG (INFO|WARNING)\] .*\(127\.0\.0\.1:7080\) is ", line) for line in trace)
    assert any(line.startswith("[BUS ") for line in trace)


def test_details_of_a_crash_stay_open_when_another_one_comes(running, page):
    page.open()
    page.open_package(NAME, "Crashes")
    for count in (1, 2):
        running.wait_ready(starts=count)
        os.kill(running.pid(), signal.SIGABRT)
        page.wait(f"tbody > tr:not(.detail) >> nth={count - 1}")
        if count == 1:
            page.locate("tbody button", "focus")
            page.press("Enter")
            page.wait("tr.detail .card .log > div")
    assert page.locate("tbody > tr >> nth=2", "getAttribute", "class") == "detail"
    assert facts(page)["signal"] == "6 (SIGABRT)"
    assert page.locate("tbody button >> nth=1", "getAttribute", "aria-expanded") == "true"
    assert page.evaluate("() => [...document.querySelectorAll('tbody button')].indexOf(document.activeElement)") == 1


# Config


def test_another_log_level_holds_after_a_restart(running, page):
    page.open()
    page.open_package(NAME, "Logs")
    page.wait('.log >> text=/dashboard .* is up/')
    assert page.count(".log .level-trace") == 0

    page.tab("Config")
    page.fill('role=textbox[name="log_min_level"]', "0")
    page.press("Enter")
    page.wait_text("log_min_level saved")
    restart(page, running, starts=2)
    page.open_package(NAME, "Logs")
    page.wait(".log .level-trace >> text=/dashboard .* is up after [0-9]+ ms/")
    page.tab("Config")
    page.wait('tr.changed:has(code:text-is("log_min_level"))')
    assert page.value('role=textbox[name="log_min_level"]') == "0"


def test_setting_is_saved_and_a_refused_value_tells_its_error(running, page):
    page.open()
    page.open_package(NAME, "Config")
    page.wait('tr.changed:has(code:text-is("interval_seconds"))')
    assert page.value('role=textbox[name="interval_seconds"]') == str(NEVER)
    keep_checks = 'tr:has(code:text-is("keep_checks"))'
    assert page.texts(f"{keep_checks} >> td")[:2] == [
        "keep_checks\nRows kept in the table of checks", "int"]
    page.fill('role=textbox[name="keep_checks"]', "77")
    page.click(f"{keep_checks} >> role=button")
    page.wait_text("keep_checks saved")
    page.wait('tr.changed:has(code:text-is("keep_checks"))')
    assert re.search(r'"keep_checks": *\{[^}]*"value": *77\b', (PORTWATCH_DATA / "config.json").read_text())

    page.expected_errors = ["400 (Bad Request)"]
    page.fill('role=textbox[name="keep_checks"]', "many")
    page.click(f"{keep_checks} >> role=button")
    page.wait_text(f"keep_checks: {REFUSED}")
    field, = (field for field in running.get("/config").json()["fields"] if field["name"] == "keep_checks")
    assert (field["current_value"], page.value('role=textbox[name="keep_checks"]')) == ("77", "many")
    page.locate('role=textbox[name="keep_checks"]', "focus")
    page.press("Escape")
    assert page.value('role=textbox[name="keep_checks"]') == "77"


# Logs


def test_lines_appear_while_one_looks(package, page, stack):
    listener = stack.enter_context(contextlib.closing(Listener()))
    package.prepare(interval_seconds=1)
    run("CREATE TABLE targets(id INTEGER PRIMARY KEY, host TEXT, port INTEGER, label TEXT)",
        f"INSERT INTO targets(host, port, label) VALUES ('127.0.0.1', {listener.port}, 'shop')")
    package.start()
    page.open()
    page.open_package(NAME, "Logs")
    page.wait(".log >> text=/shop .* is up/")
    listener.close()
    page.wait(".log .level-warning >> text=/shop .* is down: Connection refused/")
    listener.open()
    wait_until(lambda: len(page.texts(".log >> text=/shop .* is up/")) == 2, "it is told to be up again")


LONG = "x" * 1500


@pytest.fixture
def rotated(package):
    """Its log has outgrown a file, of which lines of an earlier run are the beginning."""
    package.prepare(log_min_level=0)
    LOG.write_text("".join(f"[portwatch] [INFO] [then] [app] line {number} {LONG}\n" for number in range(1, 401)))
    run("CREATE TABLE targets(id INTEGER PRIMARY KEY, host TEXT, port INTEGER, label TEXT)",
        "WITH RECURSIVE numbers(n) AS (SELECT 1 UNION SELECT n + 1 FROM numbers WHERE n < 300) "
        f"INSERT INTO targets(host, port, label) SELECT 'target', 1, n || '{LONG}' FROM numbers")
    package.start()
    assert package.get("/log/info").status == 200  # all that was logged is written then
    return package


def kept_lines():
    """Of all files of the log, the oldest first."""
    backups = sorted(LOG.parent.glob("app.log.*"), key=lambda path: int(path.suffix[1:]))
    return [(path, path.read_text().splitlines()) for path in [*backups, LOG]]


def all_pages(files):
    """From the end of the log, with the numbers of their first and last lines."""
    return [(path, lines, max(1, last - 199), last)
            for path, lines in reversed(files) for last in range(len(lines), 0, -200)]


def pages_behind(files, last):
    """To the end, from a line of the first file on."""
    for path, lines in files:
        for first in range(last + 1, len(lines) + 1, 200):
            yield path, lines, first, min(first + 199, len(lines))
        last = 0


def is_live(page):
    return page.locate('role=button[name="Live"]', "getAttribute", "aria-pressed")


def wait_page(page, path, lines, first, last):
    page.wait(f'.heading .hint:text-is("lines {first}–{last} of {len(lines)} in {path}")')
    assert page.texts(".log > div") == lines[first - 1:last]


def test_older_lines_are_read_page_by_page_across_rotations(rotated, page):
    files = kept_lines()
    assert len(files) >= 2, "the log was rotated"
    pages = all_pages(files)
    page.open()
    page.open_package(NAME, "Logs")
    wait_page(page, *pages[0])
    for older in pages[1:]:
        page.click('role=button[name="Older"]')
        wait_page(page, *older)
    page.click('role=button[name="Older"]')
    page.wait_text("Nothing older is kept.")
    wait_page(page, *pages[-1])

    for newer in pages_behind(files, pages[-1][3]):
        page.click('role=button[name="Newer"]')
        wait_page(page, *newer)
    assert is_live(page) == "false"
    page.click('role=button[name="Newer"]')
    page.wait('role=button[name="Live"][pressed]')
    wait_page(page, *pages[0])


def test_live_leads_back_to_the_end_from_an_earlier_page(rotated, page):
    pages = all_pages(kept_lines())
    page.open()
    page.open_package(NAME, "Logs")
    wait_page(page, *pages[0])
    for older in pages[1:3]:
        page.locate('role=button[name="Older"]', "focus")
        page.press("Enter")
        wait_page(page, *older)
    assert is_live(page) == "false"
    page.click('role=button[name="Live"]')
    wait_page(page, *pages[0])
    assert is_live(page) == "true"
