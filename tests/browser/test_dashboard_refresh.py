"""What a refresh of the page leaves as it is, and what the keyboard reaches."""
import pytest
from browser import DESK, PHONE
from shell import open_terminal, run, wait_rows
from stand_ins import BASE, CHANNELS, CRASH, FIELD, OTHER_FIELD, ROWS, SESSION, TABLE, TABLES, below, package

BOXES = """() => [...document.querySelectorAll("header, #summary, main, thead th, tbody tr, tbody td, tbody button")]
    .filter((element) => element.offsetParent !== null)
    .map((element) => JSON.stringify(element.getBoundingClientRect()))"""


@pytest.mark.parametrize("size", [DESK, PHONE], ids=["desk", "phone"])
def test_refresh_of_the_list_moves_nothing(open_page, page, size):
    def entries(now, *states):
        return {"body": [package(f"app-{number}", status=status, started_at=age and now - age)
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
    page.answer("/api/packages", entries(now, *[("stopped", 0), ("running", 86000), ("down", 900000)] * 10))
    page.pass_time(5)
    page.wait(".badge.bad")
    page.pass_time(20)
    page.wait_asked("/api/self", 2)
    assert page.evaluate(BOXES) == before


@pytest.mark.parametrize("sub_tab, path, first, second", [
    ("Sessions", "/sessions", {"sessions": [SESSION] * 60}, {"sessions": [SESSION] * 59 + [dict(SESSION, pid=9)]}),
    ("Crashes", "/crashes", {"crashes": [CRASH] * 60}, {"crashes": [CRASH] * 59 + [dict(CRASH, pid=9)]})])
def test_refresh_of_a_long_list_leaves_it_where_it_was_scrolled_to(open_page, page, sub_tab, path, first, second):
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
