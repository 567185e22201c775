"""What every system test needs: where the programs are, and how to wait for something."""
import os
import pathlib
import time

CHECKOUT = pathlib.Path(__file__).resolve().parents[2]
BIN = pathlib.Path(os.environ.get("MIREL_BIN", CHECKOUT / "build/release/bin"))
DEADLINE = 60


def is_sanitized():
    """Whether the programs are those of a sanitizer's build, with its runtime in them."""
    program = (BIN / "frame_app").read_bytes()
    return b"__asan_init" in program or b"__tsan_init" in program


def wait_until(condition, what, deadline=DEADLINE):
    """Waits for a condition instead of for a time, and returns what made it true."""
    end = time.monotonic() + deadline
    while not (result := condition()):
        assert time.monotonic() < end, f"waited in vain until {what}"
        time.sleep(0.02)
    return result
