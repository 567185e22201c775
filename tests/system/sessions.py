"""The session history, read as an operator reads it, or to the letter."""
import os
import re
import time


def session_lines(path, pid=None):
    """The whole lines of sessions.log, each as its fields; of one process, or of all."""
    if not path.exists():
        return []
    text = path.read_text(errors="replace")
    lines = [parse(line) for line in text[:text.rfind("\n") + 1].splitlines()]
    return [line for line in lines if pid is None or line["pid"] == str(pid)]


def parse(line):
    """The last field is free text, up to the end of the line."""
    head, separator, tail = line.partition(" args=" if line.startswith("event=start") else " reason=")
    assert separator, f"not a session line: {line}"
    head, _, runtime = head.partition(" runtime=")
    fields = dict(word.split("=", 1) for word in head.split(" ") if "=" in word)
    return {**fields, "runtime": runtime, separator.strip(" ="): tail}


def newest_session_event(path, pid):
    lines = session_lines(path, pid)
    return lines[-1]["event"] if lines else None


def check_stop_line(path, pid, reason="signal: Terminated"):
    start, stop = session_lines(path, pid)[-2:]
    assert (start["event"], stop["event"], stop["reason"]) == ("start", "stop", reason)
    assert int(stop["duration_s"]) >= 0 and int(stop["log_line"]) > 0
    assert set(stop) == {"event", "ts", "pid", "duration_s", "log_line", "generation", "runtime", "reason"}


def check_sessions(path, start, pid, reasons, runtime="", since=0):
    """sessions.log is exactly a start of the form `start`, and for each reason a stop and the next
    image's start; without the start for "end: REASON", the last one, and for "then: REASON", which
    another stop follows. Returns its lines."""
    lines = path.read_text().splitlines()
    patterns = [start]
    for reason in reasons:
        text = reason.removeprefix("end: ").removeprefix("then: ")
        patterns.append(stop_pattern(pid, text, runtime))
        if text == reason:
            patterns.append(start)
    assert len(lines) == len(patterns), lines
    for line, pattern in zip(lines, patterns):
        match = re.fullmatch(pattern, line)
        assert match, (line, pattern)
        assert since <= int(match["ts"]) <= time.time()
        since = int(match["ts"])
    return lines


def start_pattern(pid, program, arguments=()):
    return (rf"event=start ts=(?P<ts>\d+) pid={pid} exe={re.escape(str(program))} user=root "
            rf"cwd={re.escape(os.getcwd())} log_line=[1-9]\d* generation=0 runtime= "
            rf"args={re.escape('|'.join(arguments))}")


def stop_pattern(pid, reason, runtime):
    line = "0" if reason.startswith(("crash: signal ", "crash: manual test - signal ")) else r"[1-9]\d*"
    return (rf"event=stop ts=(?P<ts>\d+) pid={pid} duration_s=\d+ log_line={line} generation=0 "
            rf"runtime={re.escape(runtime)} reason={re.escape(reason)}")
