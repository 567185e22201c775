"""Programs that take the whole terminal, floods of output, and much input at once."""
import hashlib

import pytest
from browser import DESK
from programs import wait_until
from shell import enter, open_terminal, rows_of, run, size_of, wait_rows

SMALLER = {"width": 760, "height": 460}
LARGER = {"width": DESK[0], "height": DESK[1]}
WIDE_LINE = "0123456789" * 40
# Their own notes stay away from whoever runs the tests.
VIM = "vim.tiny -u NONE -i NONE -n --cmd 'set nocp nowrap ruler'"
LESS = "LESS= LESSHISTFILE=- less -S"
HTOP = "HTOPRC=/dev/null htop"


@pytest.fixture
def terminal(daemon, page):
    daemon.start()
    page.open()
    return open_terminal(page)


@pytest.fixture
def text(tmp_path):
    """A wide line and then many numbered ones."""
    path = tmp_path / "text"
    path.write_text(WIDE_LINE + "\n" + "".join(f"line {number}\n" for number in range(2, 501)))
    return path


def resize(terminal, size):
    rows = len(rows_of(terminal))
    terminal.call("setViewportSize", size)
    wait_rows(terminal, lambda shown: len(shown) != rows, "the terminal has another size")


def is_full_of(rows, columns, first_row_ends=""):
    """The first rows are the file's, up to the last but one, which ends it; the wide one fills the width."""
    lines = [f"line {number}" for number in range(2, len(rows))]
    wide = WIDE_LINE[:columns - len(first_row_ends)] + first_row_ends
    return rows[0] == wide and rows[1:-1] == lines and rows[-1] != ""


def expect_at_every_size(terminal, is_full):
    """Now, in a smaller window and in the first one again."""
    for size in (None, SMALLER, LARGER):
        if size is not None:
            resize(terminal, size)
        wait_rows(terminal, is_full, f"the program fills the terminal at {size}")


def columns_of(terminal):
    """As many as stand in the widest row there can be."""
    return terminal.evaluate("""() => {
        const screen = document.querySelector(".tty .xterm-screen").getBoundingClientRect();
        const letter = document.querySelector(".tty .xterm-char-measure-element");
        const measured = letter.getBoundingClientRect().width / letter.textContent.length;
        return Math.round(screen.width / measured);
    }""")


def test_vim_fills_the_terminal_at_every_size(terminal, text):
    run(terminal, f"{VIM} {text}")
    expect_at_every_size(terminal, lambda rows: is_full_of(rows, columns_of(terminal)))
    enter(terminal, ":wq")
    assert size_of(terminal)[0] == len(rows_of(terminal))


def test_less_fills_the_terminal_at_every_size(terminal, text):
    run(terminal, f"{LESS} {text}")
    expect_at_every_size(terminal, lambda rows: is_full_of(rows, columns_of(terminal), ">"))
    terminal.type("q")
    assert size_of(terminal)[0] == len(rows_of(terminal))


def test_htop_fills_the_terminal_at_every_size(terminal):
    def is_full(rows):
        """The bar of keys alone would not do: it stays the last row of a terminal that shrinks."""
        return rows[1].lstrip().startswith("0[") and any(row.endswith("Command") for row in rows) and \
            rows[-1].startswith("F1Help") and rows[-1].endswith("F10Quit")

    run(terminal, HTOP)
    expect_at_every_size(terminal, is_full)
    terminal.press("F10")
    assert size_of(terminal)[0] == len(rows_of(terminal))


def test_what_is_typed_in_vim_is_in_the_file(terminal, tmp_path):
    path = tmp_path / "typed"
    run(terminal, f"{VIM} {path}")
    wait_rows(terminal, lambda rows: rows[1] == "~", "vim is there")
    enter(terminal, "ifirst")
    terminal.type("ä漢字")
    terminal.press("Escape")
    terminal.press("ArrowUp")
    terminal.type("Anew ")
    terminal.press("ArrowLeft")
    terminal.press("Delete")
    terminal.press("Escape")
    enter(terminal, ":wq")
    wait_until(path.exists, "the file is written")
    assert size_of(terminal)[0] == len(rows_of(terminal))
    assert path.read_text() == "firstnew\nä漢字\n"


def test_shell_hears_of_each_new_size_while_a_program_runs(terminal, tmp_path):
    told = tmp_path / "told"
    script = tmp_path / "script"
    script.write_text(f"trap 'stty size >>{told}' WINCH; stty size >>{told}; while :; do sleep 0.1; done")
    run(terminal, f"sh {script}")
    wait_until(told.exists, "the first size is told")
    for size in (SMALLER, LARGER):
        resize(terminal, size)
        expected = f"{len(rows_of(terminal))} {columns_of(terminal)}"
        wait_until(lambda: told.read_text().splitlines()[-1] == expected, "the new size is told")


# -- text --


def test_wide_and_combining_characters_take_the_places_they_should(terminal):
    run(terminal, r"printf '<\346\274\242\345\255\227\033[6G>\n(e\314\201\033[3G)\n'")
    wait_rows(terminal, lambda rows: {"<漢字>", "(e\u0301)"} <= set(rows), "each stands where it should")


def test_every_kind_of_character_comes_in_as_it_was_typed(terminal, tmp_path):
    path = tmp_path / "typed"
    run(terminal, f"cat >{path}")
    text = "aß€漢字 e\u0301 😀 \u05e9\u05dc ~^\\"
    enter(terminal, text)
    terminal.press("Control+d")
    size_of(terminal)
    assert path.read_text() == text + "\n"


def test_a_character_that_comes_in_pieces_is_shown_whole(terminal):
    run(terminal, r"printf '=\346'; sleep 0.2; printf '\274'; sleep 0.2; printf '\242=\n'")
    wait_rows(terminal, lambda rows: "=漢=" in rows, "the character is whole")


def test_bytes_that_are_no_text_do_no_harm(terminal):
    run(terminal, r"printf '\377\300\200\355\240\200\033[999;999H\033]0;title\007\033[2J\033[H'; echo =$((40+2))=")
    wait_rows(terminal, lambda rows: "=42=" in rows, "the terminal goes on")
    size_of(terminal)


# -- much at once --


def paste(terminal, text):
    terminal.evaluate("(text) => navigator.clipboard.writeText(text)", text)
    terminal.press("Control+Shift+V")


@pytest.mark.parametrize("size", [100 * 1024, 3 << 20], ids=["100 KB", "3 MB"])
def test_paste_arrives_whole(terminal, tmp_path, size):
    line = "0123456789 äöü 漢字 😀 " * 40
    text = "".join(f"{number} {line}\n" for number in range(size // len(line.encode()) + 1))
    assert len(text.encode()) >= size
    path = tmp_path / "pasted"
    run(terminal, f"stty -echo; cat >{path}; stty echo; echo =$(wc -c <{path})=")
    wait_until(path.exists, "it is read")
    paste(terminal, text)
    wait_until(lambda: path.stat().st_size >= len(text.encode()), "all has come")
    terminal.press("Control+d")
    wait_rows(terminal, lambda rows: f"={len(text.encode())}=" in rows, "the shell has counted")
    assert hashlib.sha256(path.read_bytes()).digest() == hashlib.sha256(text.encode()).digest()


def test_paste_comes_through_with_its_echo_too(terminal, tmp_path):
    path = tmp_path / "pasted"
    text = "".join(f"line {number} of what is pasted\n" for number in range(4000))
    assert len(text) > 100 * 1024
    run(terminal, f"cat >{path}")
    wait_until(path.exists, "it is read")
    paste(terminal, text)
    wait_until(lambda: path.stat().st_size >= len(text), "all has come")
    terminal.press("Control+d")
    size_of(terminal)
    assert path.read_text() == text


@pytest.mark.parametrize("flood", ["yes", "yes 0123456789012345678901234567890123456789012345678901234567890123456789"],
                         ids=["short lines", "long lines"])
def test_control_c_ends_a_flood(terminal, flood):
    run(terminal, flood)
    wait_rows(terminal, lambda rows: set(rows[:-1]) == {flood.partition(" ")[2] or "y"}, "the flood is there")
    terminal.press("Control+c")
    run(terminal, "echo =$((40+2))=")
    wait_rows(terminal, lambda rows: "=42=" in rows, "the shell answers")
    size_of(terminal)
