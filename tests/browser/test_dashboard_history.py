"""What a package's log, crashes and sessions look like where they are incomplete, long, late or gone, with answers
that stand in for a package that runs on the bus."""
import pytest

from programs import wait_until
from stand_ins import BASE, CRASH, SESSION, below

INFO = {"path": "/log/app.log", "line_count": 450, "generation": 2}
GONE = "generation 1 does not exist any more"


def log(generation, first, last, total, **fields):
    return {"ok": True, "error": "", "total_lines": total, "from_line": first, "generation": generation,
            "lines": [f"line {number} of {generation}" for number in range(first, last + 1)], **fields}


@pytest.fixture
def logs(open_page, page):
    """The Logs sub-tab shows the end of a log whose current file has 450 lines."""

    def open_logs(more, **options):
        open_page(answers=below({"/log/info": INFO, "/log?from=251&to=450": log(2, 251, 450, 450), **more}), **options)
        page.open_package("app", "Logs")
        page.wait(".log > div")
        return page

    return open_logs


OLDER = {"/log?from=51&to=250&generation=2": log(2, 51, 250, 450), "/log?from=1&to=50&generation=2": log(2, 1, 50, 450)}


def place(page):
    return page.text(".heading .hint")


def ends(page):
    lines = page.texts(".log > div")
    return lines[0], lines[-1]


def older(page, wanted):
    page.click('role=button[name="Older"]')
    page.wait(f'.heading .hint:text-is("{wanted}")')


def test_paging_stops_the_refresh_and_live_resumes_it(logs, page):
    logs(OLDER, stop_clock=True)
    assert place(page) == "lines 251–450 of 450 in /log/app.log"
    page.pass_time(2)
    page.wait_asked(BASE + "/log/info", 2)
    older(page, "lines 51–250 of 450 in /log/app.log")
    assert ends(page) == ("line 51 of 2", "line 250 of 2")
    asked = page.requests().count(BASE + "/log/info")
    page.pass_time(30)
    page.wait_asked("/api/self", 2)
    assert page.requests().count(BASE + "/log/info") == asked
    assert ends(page) == ("line 51 of 2", "line 250 of 2")

    page.click('role=button[name="Live"]')
    page.wait('.heading .hint:text-is("lines 251–450 of 450 in /log/app.log")')
    asked = page.requests().count(BASE + "/log/info")
    page.pass_time(2)
    page.wait_asked(BASE + "/log/info", asked + 1)


@pytest.mark.parametrize("answer, text", [
    (log(1, 0, -1, 0, ok=False, error=GONE), GONE), (log(1, 0, -1, 0), "Nothing older is kept.")],
    ids=["with its error", "without lines"])
def test_older_ends_at_a_file_that_is_gone(logs, page, answer, text):
    logs({**OLDER, "/log?from=1&to=1&generation=1": answer}, stop_clock=True)
    older(page, "lines 51–250 of 450 in /log/app.log")
    older(page, "lines 1–50 of 450 in /log/app.log")
    page.click('role=button[name="Older"]')
    page.wait(f'.heading .error:text-is("{text}")')
    assert place(page) == "lines 1–50 of 450 in /log/app.log" and ends(page) == ("line 1 of 2", "line 50 of 2")
    page.click('role=button[name="Live"]')
    page.wait('.log >> text="line 450 of 2"')
    assert page.text(".heading .error") == ""


def test_first_file_of_all_has_none_before_it(logs, page):
    logs({"/log/info": dict(INFO, line_count=3, generation=0), "/log?from=1&to=3": log(0, 1, 3, 3)})
    page.click('role=button[name="Older"]')
    page.wait('.heading .error:text-is("Nothing older is kept.")')
    assert not any("generation" in path for path in page.requests())


def test_older_leads_out_of_a_file_that_has_just_been_begun(open_page, page):
    open_page(answers=below({"/log/info": dict(INFO, line_count=0), "/log?from=1&to=1&generation=1": log(1, 1, 1, 700),
                             "/log?from=501&to=700&generation=1": log(1, 501, 700, 700)}))
    page.open_package("app", "Logs")
    page.wait_text("The log is empty.")
    older(page, "lines 501–700 of 700 in /log/app.log.1")
    assert ends(page) == ("line 501 of 1", "line 700 of 1")


def test_newer_passes_over_files_that_are_gone(logs, page):
    """The log was rotated twice while one looked at a page of it."""
    logs({**OLDER, "/log?from=251&to=450&generation=2": log(2, 0, -1, 0),
          "/log?from=1&to=200&generation=3": log(3, 0, -1, 0), "/log?from=1&to=200&generation=4": log(4, 1, 200, 900)})
    older(page, "lines 51–250 of 450 in /log/app.log")
    page.answer(BASE + "/log/info", dict(INFO, generation=4, line_count=900))
    page.click('role=button[name="Newer"]')
    page.wait('.heading .hint:text-is("lines 1–200 of 900 in /log/app.log")')


def test_name_of_a_file_follows_its_rotation(logs, page):
    logs(OLDER)
    page.answer(BASE + "/log/info", dict(INFO, generation=3, line_count=7))
    older(page, "lines 51–250 of 450 in /log/app.log.2")


def test_page_of_long_lines_is_read_answer_by_answer(logs, page):
    logs({"/log?from=51&to=250&generation=2": log(2, 51, 120, 450),
          "/log?from=121&to=250&generation=2": log(2, 121, 200, 450),
          "/log?from=201&to=250&generation=2": log(2, 201, 250, 450)})
    older(page, "lines 51–250 of 450 in /log/app.log")
    assert page.texts(".log > div") == [f"line {number} of 2" for number in range(51, 251)]


HOLD_THE_END = """() => {
    const ask = window.fetch;
    window.fetch = (url, options) => url.endsWith("/log?from=251&to=450")
        ? new Promise((answer) => (window.letGo = () => answer(ask(url, options))))
        : ask(url, options);
}"""


def test_live_answer_that_comes_late_does_not_replace_a_page(logs, page):
    logs(OLDER)
    page.evaluate(HOLD_THE_END)
    wait_until(lambda: page.evaluate("() => window.letGo !== undefined"), "the end is being asked for")
    older(page, "lines 51–250 of 450 in /log/app.log")
    page.evaluate("() => window.letGo()")
    page.wait_asked(BASE + "/log?from=251&to=450", 2)
    page.evaluate("() => fetch('/api/self').then((answer) => answer.text())")
    assert ends(page) == ("line 51 of 2", "line 250 of 2")


def test_page_that_cannot_be_read_leaves_what_is_shown(logs, page):
    page.expected_errors = ["404 (Not Found)"]
    logs({"/log?from=51&to=250&generation=2": ({"error": "nobody answers"}, 404)}, stop_clock=True)
    page.click('role=button[name="Older"]')
    page.wait('.heading .error:text-is("nobody answers")')
    assert ends(page) == ("line 251 of 2", "line 450 of 2")
    assert page.evaluate("() => document.activeElement.textContent") == "Older"


# Crashes

ALL = {"addr": "0x10", "version": "1.2.3", "commit": "abc", "build_type": "Release", "build_ts": "2026",
       "build_user": "me", "build_machine": "here"}


def open_crash(open_page, page, crash, trace):
    open_page(answers=below({"/crashes": {"discovered": True, "crashes": [crash]}, "/crashes/4711/1700000000": trace}))
    page.open_package("app", "Crashes")
    page.click("tbody button")
    page.wait_gone('tr.detail >> text="Loading…"')


def test_crash_whose_trace_is_gone_tells_so_and_all_that_is_known(open_page, page):
    page.expected_errors = ["404 (Not Found)"]
    text = "package not discovered on the bus, or it didn't reply"
    open_crash(open_page, page, {**CRASH, **ALL, "backtrace": ["/opt/run(main+0x1) [0x2]"]}, ({"error": text}, 404))
    page.wait(f'tr.detail .error:text-is("{text}")')
    assert page.texts("dt") == ["signal", "address", "detail", "version", "commit", "build"]
    assert page.texts("dd") == ["11 (SIGSEGV)", "0x10", "at 0x10 in run()", "1.2.3", "abc", "Release, 2026, me@here"]
    assert page.texts(".frames > div") == ["main\n/opt/run(main+0x1) [0x2]"]


def test_exception_without_backtrace_or_trace_says_that_there_are_none(open_page, page):
    open_crash(open_page, page, dict(CRASH, signum=0, detail="uncaught: x", backtrace=[]), {"lines": []})
    assert page.texts("dd") == ["0 (none)", "–", "uncaught: x", "–", "–", "–"]
    assert page.texts("tr.detail .note >> visible=true") == ["None was recorded."] * 2


@pytest.mark.parametrize("frame, told", [
    ("/opt/run(_ZN4shop5Order4saveEv+0x1b) [0x55]", "shop::Order::save"),
    ("/opt/run(_ZNK4shop5Order4saveERKSs+0x1b) [0x55]", "shop::Order::save"),
    ("/opt/run(_ZN12_GLOBAL__N_14saveEv+0x1b) [0x55]", "(anonymous)::save"),
    ("/opt/run(_Z4savei+0x1b) [0x55]", "save"),
    ("/opt/run(_ZN4shop5OrderC1Ev+0x1b) [0x55]", "_ZN4shop5OrderC1Ev"),
    ("/opt/run(_ZN4shop4ListIiE4pushEi+0x1b) [0x55]", "_ZN4shop4ListIiE4pushEi"),
    ("/opt/run(_ZN9999shopE+0x1b) [0x55]", "_ZN9999shopE"),
    ("/opt/run(main+0x1b) [0x55]", "main"),
    ("/lib/libc.so.6(+0x3c050) [0x7f62]", "libc.so.6+0x3c050"),
    ("/opt/a (copy)/run(main+0x1b) [0x55]", "main"),
    ("something else", "something else")])
def test_function_of_a_frame_is_told_where_it_can_be(open_page, page, frame, told):
    open_crash(open_page, page, dict(CRASH, backtrace=[frame]), {"lines": []})
    assert page.texts(".frames > div") == [f"{told}\n{frame}"]


def test_trace_has_the_colours_of_what_was_logged(open_page, page):
    lines = ["[BUS EVENT TX] ts=1 x [ERROR]", "[LOG ERROR] ts=2 [app] y", "[LOG INFO] ts=3 [app] z"]
    open_crash(open_page, page, dict(CRASH, backtrace=[]), {"lines": lines})
    page.wait(".log > div")
    classes = page.evaluate("() => [...document.querySelectorAll('.log div')].map((line) => line.className)")
    assert classes == ["level-trace", "level-error", "level-info"]


def test_crashes_stand_newest_first(open_page, page):
    crashes = [dict(CRASH, ts=1700000000 + at, pid=at) for at in (1, 2, 3)]
    open_page(answers=below({"/crashes": {"crashes": crashes}}))
    page.open_package("app", "Crashes")
    page.wait("tbody tr >> nth=2")
    assert [row.split("\t")[1] for row in page.texts("tbody tr")] == ["3", "2", "1"]


# Sessions


def test_lines_of_a_session_that_are_gone_are_told_of(open_page, page):
    open_page(answers=below({"/sessions": {"sessions": [dict(SESSION, log_line=900)]},
                             "/log?from=900&to=940": log(2, 0, -1, 30)}))
    page.open_package("app", "Sessions")
    page.click('role=button[name="start"]')
    page.wait('tr.detail .note:text-is("The log has no lines 900–940 any more.")')


def test_details_that_are_open_keep_their_place_over_a_refresh(open_page, page):
    lines = log(2, 1, 41, 41)
    open_page(answers=below({"/sessions": {"sessions": [dict(SESSION, log_line=1)]}, "/log?from=1&to=41": lines}),
              stop_clock=True)
    page.open_package("app", "Sessions")
    page.click('role=button[name="start"]')
    page.wait(".log > div")
    page.evaluate("() => document.querySelector('.log').scrollTo(0, 40)")
    page.answer(BASE + "/sessions", {"sessions": [dict(SESSION, log_line=1), dict(SESSION, is_start=False)]})
    page.pass_time(3)
    page.wait('role=button[name="stop"]')
    wait_until(lambda: page.texts("tbody > tr > td:first-child >> nth=0") == ["stop"], "the newest stands first")
    assert page.evaluate("() => document.querySelector('.log').scrollTop") == 40


# DB


def test_database_that_the_application_cannot_read_is_named(open_page, page):
    open_page(answers=below({"/db": {"name": "app.db", "path": "/opt/app.db", "loaded": False, "tables": []}}))
    page.open_package("app", "DB")
    page.wait(".card .note >> text=could not be read")
    assert page.text(".card .note >> visible=true").split("\n") == [
        "No tables (package not discovered on the bus, or it has no db).", "/opt/app.db could not be read."]
