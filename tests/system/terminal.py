"""Programs whose standard output is a terminal."""
import os
import pty
import subprocess
import tty

from programs import DEADLINE


def output_on_terminal(command, environment=None):
    """Everything that a program prints on a terminal of its own, to its end."""
    master, terminal = pty.openpty()
    tty.setraw(terminal)  # what is printed arrives as it is
    inherited = {name: value for name, value in os.environ.items() if name != "NO_COLOR"}
    process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=terminal,
                               stderr=subprocess.DEVNULL, env={**inherited, **(environment or {})})
    os.close(terminal)
    output = b""
    try:
        while chunk := os.read(master, 65536):
            output += chunk
    except OSError:
        pass  # the last one to hold the terminal has gone
    finally:
        os.close(master)
    assert process.wait(DEADLINE) == 0
    return output.decode()
