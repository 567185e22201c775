"""The terminal, on a shell of the running daemon."""
import pytest
from programs import wait_until
from shell import SCREEN, open_terminal, run, size_of


@pytest.fixture
def terminal(daemon, page):
    daemon.start()
    page.open()
    return open_terminal(page)


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


def test_terminal_keeps_within_its_place(terminal):
    for size in ({"width": 1280, "height": 720}, {"width": 390, "height": 844}, {"width": 1111, "height": 613}):
        terminal.call("setViewportSize", size)
        size_of(terminal)
        outer = terminal.locate(".tty", "boundingBox")
        inner = terminal.locate(".tty .xterm-screen", "boundingBox")
        for start, extent in (("x", "width"), ("y", "height")):
            assert outer[start] < inner[start]
            assert inner[start] + inner[extent] < outer[start] + outer[extent]


def test_terminal_and_its_shell_stay_while_other_tabs_are_open(terminal):
    run(terminal, "kept=here")
    terminal.tab("Self")
    terminal.call("setViewportSize", {"width": 800, "height": 500})
    terminal.tab("Console")
    run(terminal, "echo =$kept")
    terminal.wait(f"{SCREEN} >> text=/^=here/")
    rows, _ = size_of(terminal)
    assert rows == terminal.count(f"{SCREEN} > div")
    assert terminal.count(".tty .xterm") == 1
    assert terminal.sockets() == ["/api/console/ws"]


def test_end_of_the_shell_is_told_in_red(terminal):
    def told():
        terminal.type(" ")  # the daemon notices the end with the next key
        return "[connection closed]" in terminal.text(SCREEN)

    run(terminal, "exit")
    wait_until(told, "the end of the connection is told")
    red = terminal.evaluate("""() => [...document.querySelectorAll(".xterm-rows span")]
        .find((span) => span.textContent.includes("[connection closed]")).className""")
    assert "xterm-fg-1" in red.split()
