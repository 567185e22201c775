"""The terminal of the Console tab, as a person types into it and reads it."""
import itertools

from programs import wait_until

SCREEN = ".terminal .xterm-rows"
PROMPT = f"{SCREEN} >> text=/[#$] *$/"
_count = itertools.count()


def open_terminal(page):
    page.tab("Console")
    page.wait(PROMPT)
    return page


def run(terminal, command):
    terminal.type(command)
    terminal.press("Enter")


def rows_of(terminal):
    """What stands on the screen, without the blanks at the ends of its rows."""
    shown = terminal.evaluate("(rows) => [...document.querySelectorAll(rows)].map((row) => row.textContent)",
                              f"{SCREEN} > div")
    return [row.replace("\u00a0", " ").rstrip() for row in shown]


def wait_rows(terminal, condition, what):
    """Until the rows are as they should be; a failure shows them."""
    try:
        wait_until(lambda: condition(rows_of(terminal)), what)
    except AssertionError as failure:
        raise AssertionError("\n".join([str(failure), *rows_of(terminal)])) from None


def size_of(terminal):
    """Rows and columns that the shell knows of, said on a line that no earlier one is like."""
    mark = f"size-{next(_count)}="
    run(terminal, f"echo {mark}$(stty size)")
    terminal.wait(f"{SCREEN} >> text=/^{mark}[0-9]/")
    line, = [line for line in rows_of(terminal) if line.startswith(mark)]
    return tuple(map(int, line.removeprefix(mark).split()))
