"""The terminal and the viewer of remote screens, through the running daemon."""
import itertools

import pytest
from preloaded import entry_text, write_registry
from programs import wait_until
from screen_server import ANSWER_TO_SECRET, PASSWORD, ScreenServer

COUNT = itertools.count()
SCREEN = ".terminal .xterm-rows"
UNEXPECTED = "disconnected (unexpectedly - is the package running and does it expose an RFB server?)"


# -- Console --


@pytest.fixture
def terminal(daemon, page):
    daemon.start()
    page.open()
    page.tab("Console")
    page.wait(f"{SCREEN} >> text=/[#$] *$/")
    return page


def run(terminal, command):
    terminal.type(command)
    terminal.press("Enter")


def size_of(terminal):
    """Rows and columns that the shell knows of, said on a line that no earlier one is like."""
    mark = f"size-{next(COUNT)}="
    run(terminal, f"echo {mark}$(stty size)")
    terminal.wait(f"{SCREEN} >> text=/^{mark}[0-9]/")
    line, = [line for line in terminal.text(SCREEN).split("\n") if line.startswith(mark)]
    return tuple(map(int, line.removeprefix(mark).split()))


def test_terminal_runs_commands_and_takes_every_letter(terminal):
    run(terminal, "echo $((6 * 7)) 'ä€😀' | sed 's/^/=/'")
    terminal.wait(f"{SCREEN} >> text=/^=42 ä€😀/")


def test_shell_knows_the_size_of_the_terminal_also_after_the_window_has_changed(terminal):
    rows, columns = size_of(terminal)
    assert rows == terminal.count(f"{SCREEN} > div") and columns > 80
    terminal.call("setViewportSize", {"width": 700, "height": 400})
    wait_until(lambda: terminal.count(f"{SCREEN} > div") < rows, "the terminal is smaller")
    smaller_rows, smaller_columns = size_of(terminal)
    assert smaller_rows == terminal.count(f"{SCREEN} > div") and smaller_columns < columns


def test_terminal_and_its_shell_stay_while_other_tabs_are_open(terminal):
    run(terminal, "kept=here")
    terminal.tab("Self")
    terminal.call("setViewportSize", {"width": 800, "height": 500})
    terminal.tab("Console")
    run(terminal, "echo =$kept")
    terminal.wait(f"{SCREEN} >> text=/^=here/")
    rows, _ = size_of(terminal)
    assert rows == terminal.count(f"{SCREEN} > div")
    assert terminal.count(".terminal .xterm") == 1


def test_end_of_the_shell_is_told_in_red(terminal):
    def told():
        terminal.type(" ")  # the daemon notices the end with the next key
        return "[connection closed]" in terminal.text(SCREEN)

    run(terminal, "exit")
    wait_until(told, "the end of the connection is told")
    red = terminal.evaluate("""() => [...document.querySelectorAll(".xterm-rows span")]
        .find((span) => span.textContent.includes("[connection closed]")).className""")
    assert "xterm-fg-1" in red.split()


# -- VNC --


@pytest.fixture
def open_viewer(daemon, page):
    """Serves a screen and opens the viewer's sub-tab; the viewer may then connect."""
    write_registry(entry_text("app", "1.0.0", "/usr/local/daemon/nowhere", stopped=True))
    daemon.start()
    servers = []

    def open_viewer(**options):
        servers.append(ScreenServer(**options))
        page.open()
        page.open_package("app", "VNC")
        page.click('role=button[name="Connect"]')
        return servers[-1]

    yield open_viewer
    for server in servers:
        server.stop()


def colours(page):
    """The pixels in the middle of the screen's left and right half."""
    return page.evaluate("""() => {
        const canvas = document.querySelector(".screen canvas");
        const at = (x) => [...canvas.getContext("2d").getImageData(canvas.width * x, canvas.height / 2, 1, 1).data];
        return [at(0.25), at(0.75)];
    }""")


def test_viewer_shows_the_screen_and_sends_the_keys(open_viewer, page):
    page.expected_errors = ["willReadFrequently"]  # an advice to whoever reads pixels, as this test does
    server = open_viewer()
    page.wait_text("connected")
    wait_until(lambda: colours(page) == [[255, 0, 0, 255], [0, 0, 255, 255]], "the picture is shown")
    page.press("x")
    wait_until(lambda: len(server.keys) == 2, "the key has come")
    assert server.keys == [(1, ord("x")), (0, ord("x"))]


def test_viewer_is_disconnected_by_its_button(open_viewer, page):
    server = open_viewer()
    page.wait_text("connected")
    page.click('role=button[name="Disconnect"]')
    page.wait_text("disconnected")
    assert server.ended.wait(60)


def test_viewer_is_disconnected_when_its_sub_tab_is_left(open_viewer, page):
    server = open_viewer()
    page.wait_text("connected")
    page.tab("Manifest")
    assert server.ended.wait(60)


def test_viewer_asks_for_the_password_and_hands_it_on(open_viewer, page):
    server = open_viewer(security=PASSWORD)
    page.fill("input[type=password]", "secret")
    page.press("Enter")
    page.wait_text("connected")
    assert server.answers == [ANSWER_TO_SECRET]
    assert page.count("input[type=password]") == 0


def test_viewer_tells_of_a_wrong_password(open_viewer, page):
    page.expected_errors = ["Security negotiation failed", "Failed when"]
    open_viewer(security=PASSWORD)
    page.fill("input[type=password]", "guess")
    page.click('role=button[name="Send"]')
    page.wait_text(f"{UNEXPECTED}: wrong password")


def test_viewer_tells_when_no_screen_is_served(daemon, page):
    page.expected_errors = ["WebSocket", "Failed when"]
    write_registry(entry_text("app", "1.0.0", "/usr/local/daemon/nowhere", stopped=True))
    daemon.start()
    page.open()
    page.open_package("app", "VNC")
    page.click('role=button[name="Connect"]')
    page.wait_text(UNEXPECTED)
    page.tab("Manifest")
    page.wait("pre")
