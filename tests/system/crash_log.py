"""What a crash leaves in crash.log, read strictly, and what is said of it elsewhere."""
import re
import subprocess

HEADER = re.compile(
    r"=== crash === signum=(?P<signum>\d+) pid=(?P<pid>\d+) ts=(?P<ts>\d+) ts_ms=(?P<ts_ms>\d{1,3})"
    r"(?: addr=0x(?P<addr>[0-9a-f]+))?(?P<build> version=.*)")
FRAME = re.compile(r"\S+\((?P<function>[^()+]*)\+0x[0-9a-f]+\) \[0x[0-9a-f]+\]|\[0x[0-9a-f]+\]")
LOG_LINE = re.compile(r"\[LOG (?P<level>\w+)\] ts=(?P<time>\d{16}) (?P<text>.*)")
BUS_LINE = re.compile(
    r"\[BUS (?P<type>[A-Z_]+) (?P<way>TX|RX)\] ts=(?P<time>\d{16}) (?P<source>\d+) -> (?P<dest>\d+)"
    r"(?: msg_id=(?P<id>\d+))?(?: topic=\"(?P<topic>[^\"]+)\")? data=\[(?P<data>.*)\] \((?P<size>\d+)b\)")


def read_trace(lines):
    """What was logged and what passed on the bus, of lines that all have to be one of both."""
    logged, passed = [], []
    for line in lines:
        if match := LOG_LINE.fullmatch(line):
            logged.append(match)
        else:
            match = BUS_LINE.fullmatch(line)
            assert match, line
            passed.append(match)
    return logged, passed


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
        self.trace = None  # What was logged,
        self.bus_trace = []  # and what passed on the bus.

    def add(self, line):
        if self.trace is not None:
            logged, passed = read_trace([line])
            self.trace += [f"{match['level']} {match['text']}" for match in logged]
            self.bus_trace += passed
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


def crash_records(path):
    text = path.read_text()
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
    def said(option):
        return subprocess.run([program, option], capture_output=True, text=True, check=True).stdout
    version = said("--version").splitlines()[-1]
    footer = dict(re.findall(r"^ +(Date|Machine|User|Commit|Type|Compiler): (.*)$", said("--help"), re.M))
    return (f" version={version} build_ts={footer['Date']} build_machine={footer['Machine']}"
            f" build_user={footer['User']} commit={footer['Commit']} build_type={footer['Type']}"
            f" compiler={footer['Compiler'].replace(' ', '_')}")


# -- the standard error stream --

def signal_told(number, attempt=None):
    """The lines of a crash signal, and of the restart after it if there is one."""
    return f"[app] crash: signal {number.name}\n" + (restart_told(attempt) if attempt else "")


def restart_told(attempt):
    return f"[app] crash - auto-restarting (attempt {attempt} of 5)\n"


def loop_told(crash):
    """The line of the crash that is one too many."""
    return f"[app] crash-loop detected - giving up (crash #{crash})\n"


def exception_told(text, attempt=1):
    """The lines of an exception that nobody caught, and of the restart after it."""
    return f"[console_app] {text}\n{text} - auto-restarting (attempt {attempt} of 5 within 60s)\n"


def exception_loop_told(text, crash):
    return (f"{text} - this is crash #{crash} within 60s (max 5) - crash-loop detected, refusing further "
            "auto-restart, staying exited. Manual intervention required.")


def exec_failure_told(program, cause):
    """The line of a program that cannot start itself anew."""
    return (f"--instance-policy reboot: execv({program}) failed: {cause} - "
            "staying exited instead of restarting\n")
