"""The terminal of the Console tab, as a person types into it and reads it."""
import itertools

from programs import wait_until

SCREEN = ".tty .xterm-rows"
PROMPT = f"{SCREEN} >> text=/[#$] *$/"
_count = itertools.count()


def open_terminal(page):
    page.tab("Console")
    page.wait(PROMPT)
    return page


def enter(terminal, text):
    terminal.type(text)
    terminal.press("Enter")


def run(terminal, command):
    """A command of the shell, once that has asked for one: what is typed earlier would stand before
    its prompt."""
    wait_rows(terminal, lambda rows: [row for row in rows if row][-1:] in (["#"], ["$"]), "there is a prompt")
    enter(terminal, command)


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
