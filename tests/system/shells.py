"""Terminals with all kinds of things at work in them."""
from programs import wait_until
from websocket import RawTerminal

STUBBORN = ["trap '' HUP; while :; do sleep 1000; done\n", "trap '' HUP; sleep 1000\n", "exec yes\n", "sleep 1000\n",
            "", "exit\n", "stty raw; exec sleep 1000\n"]


def pid_in(path):
    wait_until(lambda: path.exists() and path.read_text().endswith("\n"), f"there is a process id in {path}")
    return int(path.read_text())


def open_terminals(tmp_path, count):
    """That many, and their shells' ids."""
    terminals, shells = [], []
    for number in range(count):
        terminal = RawTerminal()
        assert terminal.is_open
        pid_file = tmp_path / f"pid{number}"
        terminal.type(f"echo $$ >{pid_file}; " + STUBBORN[number % len(STUBBORN)] + "\n")
        terminals.append(terminal)
        shells.append(pid_in(pid_file))
    return terminals, shells
