"""The viewer of remote screens, connected to a real screen server."""
import pytest
from programs import wait_until
from xvnc import PASSWORD, Xvnc, click_at, wait_shown

UNEXPECTED = "disconnected (unexpectedly - is the package running and does it expose an RFB server?)"
READS_PIXELS = "willReadFrequently"  # an advice to whoever reads pixels, as these tests do


@pytest.fixture
def open_viewer(open_page, page, tmp_path):
    """Serves a screen and connects the viewer to it."""
    screens = []

    def open_viewer(**options):
        screens.append(Xvnc(tmp_path / "xvnc.out", **options))
        open_page()
        page.open_package("app", "VNC")
        page.click('role=button[name="Connect"]')
        return screens[-1]

    yield open_viewer
    for screen in screens:
        screen.stop()


def near(place, other):
    return all(abs(a - b) <= 1 for a, b in zip(place, other))


def test_viewer_shows_what_is_drawn_and_clicks_and_keys_reach_it(open_viewer, page):
    page.expected_errors = [READS_PIXELS]
    screen = open_viewer()
    wait_shown(page)
    for place in ((40, 150), (300, 30)):
        before = len(screen.clicks())
        click_at(page, *place)
        wait_until(lambda: len(screen.clicks()) > before, "the click has come")
        assert near(screen.clicks()[-1], place)
    for key in ("x", "Escape", "F5", "ArrowLeft", "Tab"):
        page.press(key)
    wait_until(lambda: ("Release", "Tab") in screen.keys(), "the keys have come")
    assert screen.keys() == [(way, name) for name in ("x", "Escape", "F5", "Left", "Tab")
                             for way in ("Press", "Release")]
    assert page.count(".package") == 1


def test_viewer_is_left_by_a_key_and_lets_go_of_all_that_were_held(open_viewer, page):
    page.expected_errors = [READS_PIXELS, "404 (Not Found)"]
    screen = open_viewer()
    wait_shown(page)
    click_at(page, 40, 150)
    page.press("Control+Shift+ArrowUp")
    assert page.evaluate("() => document.activeElement.textContent") == "VNC"
    wait_until(lambda: len(screen.keys()) == 4, "the keys have come")
    assert sorted(screen.keys()) == sorted((way, name) for name in ("Control_L", "Shift_L")
                                           for way in ("Press", "Release"))
    page.press("ArrowLeft")
    page.wait('role=tab[name="DB"][selected=true]')


def test_viewer_follows_the_size_of_the_window(open_viewer, page):
    page.expected_errors = [READS_PIXELS]
    screen = open_viewer()
    wait_shown(page)
    before = page.locate(".screen canvas", "boundingBox")
    page.call("setViewportSize", {"width": 390, "height": 600})
    wait_until(lambda: page.locate(".screen canvas", "boundingBox")["width"] < before["width"], "it is smaller")
    after = page.locate(".screen canvas", "boundingBox")
    assert after["x"] >= 0 and after["x"] + after["width"] <= 390
    click_at(page, 300, 30)
    wait_until(screen.clicks, "the click has come")
    assert all(abs(a - b) <= 2 for a, b in zip(screen.clicks()[0], (300, 30)))


def test_viewer_is_disconnected_by_its_button_and_connects_again(open_viewer, page):
    page.expected_errors = [READS_PIXELS]
    screen = open_viewer()
    page.wait_text("connected")
    assert screen.viewers() == 1
    page.click('role=button[name="Disconnect"]')
    page.wait_text("disconnected")
    wait_until(lambda: screen.viewers() == 0, "the screen server has no viewer")
    page.click('role=button[name="Connect"]')
    wait_shown(page)
    assert page.count(".screen canvas") == 1


def test_viewer_is_disconnected_when_its_sub_tab_is_left(open_viewer, page):
    screen = open_viewer()
    page.wait_text("connected")
    page.tab("Manifest")
    wait_until(lambda: screen.viewers() == 0, "the screen server has no viewer")


def test_viewer_is_disconnected_when_the_detail_is_left(open_viewer, page):
    screen = open_viewer()
    page.wait_text("connected")
    page.click('role=button[name="← Packages"]')
    wait_until(lambda: screen.viewers() == 0, "the screen server has no viewer")


def test_viewer_tells_when_the_screen_server_ends(open_viewer, page):
    page.expected_errors = ["WebSocket", "Failed when"]
    screen = open_viewer()
    page.wait_text("connected")
    screen.stop()
    page.press("x")  # the daemon notices the end with what is sent next
    page.wait_text(UNEXPECTED)


def test_viewer_asks_for_the_password_and_hands_it_on(open_viewer, page):
    page.expected_errors = [READS_PIXELS]
    open_viewer(with_password=True)
    page.fill("input[type=password]", PASSWORD)
    page.press("Enter")
    wait_shown(page)
    assert page.count("input[type=password]") == 0


def test_viewer_tells_of_a_wrong_password_and_asks_again_at_the_next_try(open_viewer, page):
    page.expected_errors = [READS_PIXELS, "Security negotiation failed", "Failed when"]
    open_viewer(with_password=True)
    page.fill("input[type=password]", "guess")
    page.click('role=button[name="Send"]')
    page.wait(f"text=/^{UNEXPECTED.replace('(', '[(]').replace(')', '[)]').replace('?', '[?]')}: Authentication fail/")
    page.click('role=button[name="Connect"]')
    page.fill("input[type=password]", PASSWORD)
    page.press("Enter")
    wait_shown(page)


def test_viewer_tells_when_no_screen_is_served(open_page, page):
    page.expected_errors = ["WebSocket", "Failed when"]
    open_page()
    page.open_package("app", "VNC")
    page.click('role=button[name="Connect"]')
    page.wait_text(UNEXPECTED)
    page.tab("Manifest")
    page.wait("pre")


def test_viewer_whose_modules_cannot_be_loaded_says_so(open_page, page):
    page.expected_errors = ["404 (Not Found)"]
    open_page(answers={"/static/novnc/core/rfb.js": ({}, 404)})
    page.open_package("app", "VNC")
    page.click('role=button[name="Connect"]')
    page.wait("role=status >> text=/rfb.js/")
