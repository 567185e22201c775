"""The session history, read as an operator reads it."""


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
