"""The application that does what it is told (tests/programs/frame_app.cpp), and what it leaves."""
import os
import pathlib
import re
import selectors
import signal
import subprocess
import time

from programs import BIN, DEADLINE, wait_until

PROGRAM = BIN / "frame_app"
APP_DIR = pathlib.Path("/usr/local/daemon/frame_app")
LOG_DIR = APP_DIR / "log"
LOG_FILE = LOG_DIR / "frame_app/app.log"
SESSIONS = APP_DIR / "frame_app/sessions.log"
CRASHES = APP_DIR / "frame_app/crash.log"

COUNT = "CONSOLE_APP_CRASH_RESTART_COUNT"
WINDOW = "CONSOLE_APP_CRASH_RESTART_WINDOW_START"

# How to bring about each signal from within, and the function that it then happens in.
FAULTS = {"segv": (signal.SIGSEGV, "write_to_nowhere"), "abort": (signal.SIGABRT, "give_up"),
          "fpe": (signal.SIGFPE, "divide_by_zero"), "ill": (signal.SIGILL, "run_no_instruction"),
          "bus": (signal.SIGBUS, "touch_behind_the_end_of_file")}


def environment_of(pid):
    entries = pathlib.Path(f"/proc/{pid}/environ").read_bytes().decode().split("\0")
    return dict(entry.split("=", 1) for entry in entries if entry)


def threads_in_system_call(pid, name, number):
    """The threads of that name that are in that system call at the moment."""
    found = []
    for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
        try:
            if (task / "comm").read_text() == name + "\n" and \
                    (task / "syscall").read_text().split()[0] == str(number):
                found.append(int(task.name))
        except OSError:
            pass  # it has ended
    return found


class FrameApp:
    def __init__(self, folder, program=PROGRAM):
        self.program = program
        self.error_path = folder / "frame_app.err"
        self.process = None
        self.unread = b""
        self.arguments = []
        self.environment = {}
        # The program's clock is that of the last tick.
        self.start_time = int(time.time() - 0.1)

    # -- life --

    def start(self, *arguments, environment=None, **popen):
        LOG_DIR.mkdir(parents=True, exist_ok=True)
        self.arguments = list(arguments)
        self.environment = {**os.environ, **(environment or {})}
        self.unread = b""
        with open(self.error_path, "ab") as errors:
            self.process = subprocess.Popen(
                [self.program, *arguments], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                stderr=errors, env=self.environment, bufsize=0, **popen)
        self.wait_ready()
        return self

    def wait_ready(self):
        """Waits for an image of the program that has not been waited for."""
        self.read_until("ready")

    def wait_end(self):
        """The exit code; negative for a signal."""
        code = self.process.wait(DEADLINE)
        self.close()
        return code

    def kill(self):
        if self.process is not None:
            self.process.kill()
            self.process.wait()
            self.close()

    def close(self):
        self.process.stdin.close()
        self.process.stdout.close()
        self.process = None

    @property
    def pid(self):
        return self.process.pid

    # -- commands --

    def tell(self, command):
        """Gives a command that is not answered, because it ends this image."""
        os.write(self.process.stdin.fileno(), command.encode() + b"\n")

    def do(self, command):
        """Gives a command and returns what it printed."""
        self.tell(command)
        return self.read_until("ok")

    def crash(self, command):
        """Gives a command after which a new image takes over."""
        self.tell(command)
        self.wait_ready()

    def send(self, number):
        os.kill(self.pid, number)

    def read_until(self, wanted):
        lines = []
        while (line := self.read_line()) != wanted:
            if not line.startswith("[frame_app] ["):
                lines.append(line)
        return lines

    def read_line(self):
        end = time.monotonic() + DEADLINE
        with selectors.DefaultSelector() as selector:
            selector.register(self.process.stdout, selectors.EVENT_READ)
            while b"\n" not in self.unread:
                assert selector.select(end - time.monotonic()), f"no answer\n{self.errors()}"
                piece = os.read(self.process.stdout.fileno(), 65536)
                assert piece, f"it ended: {self.process.wait(DEADLINE)}\n{self.errors()}"
                self.unread += piece
        line, self.unread = self.unread.split(b"\n", 1)
        return line.decode()

    # -- what it leaves --

    def errors(self):
        return self.error_path.read_text(errors="replace")

    def log_text(self):
        return LOG_FILE.read_text()

    def log_messages(self):
        """The log's lines without their time."""
        return [re.sub(r"^\[frame_app\] \[(\w+)\] \[[^]]*\] ", r"\1 ", line)
                for line in self.log_text().splitlines()]

    def wait_log(self, text):
        wait_until(lambda: text in self.log_text(), f"the log holds {text!r}")

    def check_sessions(self, pid, *reasons, runtime=""):
        """sessions.log is exactly a start, and for each reason a stop and the next image's start;
        without the start for "end: REASON", the last one, and for "then: REASON", which another
        stop follows."""
        lines = SESSIONS.read_text().splitlines()
        patterns = [self.start_pattern(pid)]
        for reason in reasons:
            text = reason.removeprefix("end: ").removeprefix("then: ")
            patterns.append(self.stop_pattern(pid, text, runtime))
            if text == reason:
                patterns.append(self.start_pattern(pid))
        assert len(lines) == len(patterns), lines
        before = self.start_time
        for line, pattern in zip(lines, patterns):
            match = re.fullmatch(pattern, line)
            assert match, (line, pattern)
            assert before <= int(match["ts"]) <= time.time()
            before = int(match["ts"])
        return lines

    def start_pattern(self, pid):
        return (rf"event=start ts=(?P<ts>\d+) pid={pid} exe={re.escape(str(self.program))} user=root "
                rf"cwd={re.escape(os.getcwd())} log_line=[1-9]\d* generation=0 runtime= "
                rf"args={re.escape('|'.join(self.arguments))}")

    @staticmethod
    def stop_pattern(pid, reason, runtime):
        line = "0" if reason.startswith("crash: signal ") else r"[1-9]\d*"
        return (rf"event=stop ts=(?P<ts>\d+) pid={pid} duration_s=\d+ log_line={line} generation=0 "
                rf"runtime={re.escape(runtime)} reason={re.escape(reason)}")


HEADER = re.compile(
    r"=== crash === signum=(?P<signum>\d+) pid=(?P<pid>\d+) ts=(?P<ts>\d+) ts_ms=(?P<ts_ms>\d{1,3})"
    r"(?: addr=0x(?P<addr>[0-9a-f]+))?(?P<build> version=.*)")
FRAME = re.compile(r"\S+\((?P<function>[^()+]*)\+0x[0-9a-f]+\) \[0x[0-9a-f]+\]|\[0x[0-9a-f]+\]")
TRACE = re.compile(r"\[LOG (?P<level>\w+)\] ts=\d{16} (?P<text>.*)")


class CrashRecord:
    """One record of crash.log; every line of it has to be of a known form."""

    def __init__(self, header):
        match = HEADER.fullmatch(header)
        assert match, header
        self.header = header
        self.signum = int(match["signum"])
        self.pid = int(match["pid"])
        self.time = int(match["ts"])
        self.addr = int(match["addr"], 16) if match["addr"] else None
        self.build = match["build"]
        self.functions = []
        self.detail = None
        self.trace = None

    def add(self, line):
        if self.trace is not None:
            match = TRACE.fullmatch(line)
            assert match, line
            self.trace.append(f"{match['level']} {match['text']}")
        elif line == "--- recent activity ---":
            assert self.detail is None
            self.trace = []
        elif line.startswith("detail: "):
            assert self.detail is None
            self.detail = line.removeprefix("detail: ")
        else:
            match = FRAME.fullmatch(line)
            assert match and self.detail is None, line
            self.functions.append(match["function"] or "")

    def names(self, function):
        return any(function in name for name in self.functions)


def crash_records():
    text = CRASHES.read_text()
    assert text == "" or text.endswith("\n")
    records = []
    for line in text.splitlines():
        if line.startswith("=== crash ==="):
            records.append(CrashRecord(line))
        else:
            records[-1].add(line)
    for record in records:
        assert 1 <= len(record.functions) <= 32
    return records


def build_stamp(program):
    """What a crash record's header says about the build, put together from what the program's
    command line says of it."""
    LOG_DIR.mkdir(parents=True, exist_ok=True)

    def said(option):
        return subprocess.run([program, option], capture_output=True, text=True, check=True).stdout
    version = said("--version").splitlines()[-1]
    footer = dict(re.findall(r"^ +(Date|Machine|User|Commit|Type|Compiler): (.*)$", said("--help"), re.M))
    return (f" version={version} build_ts={footer['Date']} build_machine={footer['Machine']}"
            f" build_user={footer['User']} commit={footer['Commit']} build_type={footer['Type']}"
            f" compiler={footer['Compiler'].replace(' ', '_')}")
