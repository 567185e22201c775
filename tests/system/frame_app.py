"""The application that does what it is told (tests/programs/frame_app.cpp)."""
import os
import pathlib
import re
import signal
import subprocess
import time

import sessions
from crash_log import crash_records
from programs import BIN, DEADLINE, wait_until

FRAME_PROGRAM = BIN / "frame_app"
FRAME_DIR = pathlib.Path("/usr/local/daemon/frame_app")
FRAME_DATA = FRAME_DIR / "frame_app"
FRAME_SESSIONS = FRAME_DATA / "sessions.log"
FRAME_CRASHES = FRAME_DATA / "crash.log"
FRAME_LOG_ROOT = FRAME_DIR / "log"
FRAME_LOG = FRAME_LOG_ROOT / "frame_app/app.log"
FRAME_LOCK = pathlib.Path("/tmp/frame_app.lock")

# In the environment of an image that was started after a crash.
COUNT = "CONSOLE_APP_CRASH_RESTART_COUNT"
WINDOW = "CONSOLE_APP_CRASH_RESTART_WINDOW_START"

# How to bring about each signal from within, and the function that it then happens in.
FAULTS = {"segv": (signal.SIGSEGV, "write_to_nowhere"), "abort": (signal.SIGABRT, "give_up"),
          "fpe": (signal.SIGFPE, "divide_by_zero"), "ill": (signal.SIGILL, "run_no_instruction"),
          "bus": (signal.SIGBUS, "touch_behind_the_end_of_file")}
CRASH_SIGNALS = [number.name for number, _ in FAULTS.values()]


class FrameApp:
    """One process of it; what it prints goes to files in `folder`, so that it never waits for a
    reader."""

    count = 0

    def __init__(self, folder, program=FRAME_PROGRAM):
        FrameApp.count += 1
        self.program = program
        self.output_path = folder / f"frame-{FrameApp.count}.out"
        self.error_path = folder / f"frame-{FrameApp.count}.err"
        self.process = None
        self.pid = None
        self.lines_read = 0
        self.arguments = []
        self.environment = {}
        # The program's clock is that of the last tick.
        self.start_time = int(time.time() - 0.1)

    # -- life --

    def spawn(self, *arguments, environment=None):
        """Starts the process without waiting for anything."""
        FRAME_LOG_ROOT.mkdir(parents=True, exist_ok=True)
        self.arguments = list(arguments)
        self.environment = {**os.environ, **(environment or {})}
        self.lines_read = 0
        with open(self.output_path, "wb") as output, open(self.error_path, "wb") as errors:
            self.process = subprocess.Popen([self.program, *arguments], stdin=subprocess.PIPE,
                                            stdout=output, stderr=errors, env=self.environment, bufsize=0)
        self.pid = self.process.pid
        return self

    def start(self, *arguments, environment=None):
        return self.spawn(*arguments, environment=environment).wait_ready()

    def wait_ready(self):
        """Waits for an image of the program that has not been waited for."""
        self.read_until("ready")
        return self

    def starts(self):
        return self.lines().count("ready")

    def is_alive(self):
        return self.process.poll() is None

    def send(self, number):
        self.process.send_signal(number)

    def wait_end(self):
        """The exit code; negative for a signal."""
        code = self.process.wait(DEADLINE)
        self.process.stdin.close()
        return code

    def stop(self, number=signal.SIGTERM):
        self.send(number)
        return self.wait_end()

    def kill(self):
        if self.process is not None:
            self.process.kill()
            self.wait_end()

    # -- commands --

    def tell(self, command):
        """Gives a command without waiting for its answer, if there is one."""
        self.process.stdin.write(command.encode() + b"\n")

    def do(self, command):
        """Gives a command and returns what it printed."""
        self.tell(command)
        return self.read_until("ok")

    def crash(self, command):
        """Gives a command after which a new image takes over."""
        self.tell(command)
        self.wait_ready()

    # -- what it prints --

    def read_until(self, wanted):
        """What it printed since the last line that was read, up to a line that it waits for, but for
        the lines of its log."""
        def has_come():
            has_ended = not self.is_alive()
            lines = self.lines()[self.lines_read:]
            if wanted in lines:
                return lines[:lines.index(wanted) + 1]
            assert not has_ended, f"it ended: {self.process.returncode}\n{self.errors()}"
            return None
        lines = wait_until(has_come, f"it prints {wanted!r}")
        self.lines_read += len(lines)
        return [line for line in lines[:-1] if not line.startswith("[frame_app] [")]

    def lines(self):
        """The whole lines of its standard output."""
        return [line.decode() for line in self.output_path.read_bytes().split(b"\n")[:-1]]

    def errors(self):
        return self.error_path.read_text(errors="replace") if self.error_path.exists() else ""

    # -- what it leaves --

    def sessions(self):
        return sessions.session_lines(FRAME_SESSIONS, self.pid)

    def check_sessions(self, *reasons, runtime=""):
        """The session history is that of this process and of no other; see check_sessions there."""
        start = sessions.start_pattern(self.pid, self.program, self.arguments)
        return sessions.check_sessions(FRAME_SESSIONS, start, self.pid, reasons, runtime, self.start_time)


def frame_crashes():
    return crash_records(FRAME_CRASHES)


def frame_log():
    return FRAME_LOG.read_text(errors="replace") if FRAME_LOG.exists() else ""


def frame_log_messages():
    """The log's lines without their time."""
    return [re.sub(r"^\[frame_app\] \[(\w+)\] \[[^]]*\] ", r"\1 ", line)
            for line in frame_log().splitlines()]


def wait_frame_log(text):
    wait_until(lambda: text in frame_log(), f"the log holds {text!r}")
