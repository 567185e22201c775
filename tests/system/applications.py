"""Packages whose programs are real applications, as a daemon finds them in its store, and what such an
application leaves in files."""
import json

import sessions
from crash_log import crash_records
from daemon import DAEMON_ROOT
from frame_app import FRAME_PROGRAM
from preloaded import entry_text, put_into_store

NO_REPLY = "package not discovered on the bus, or it didn't reply"
NO_DATABASE = "no db bus node identifying as this package answered"


class PackagedApp:
    """The test application under a package's name."""

    def __init__(self, name):
        self.name = name
        self.folder = DAEMON_ROOT / name
        self.config_file = self.folder / "config.json"
        self.session_file = self.folder / name / "sessions.log"
        self.crash_file = self.folder / name / "crash.log"
        self.log_file = self.folder / "log" / name / "app.log"

    def script(self):
        """The package's program; writes the configuration that it reads."""
        for folder in (self.folder / self.name, self.folder / "log"):
            folder.mkdir(parents=True)
        settings = {"app_name": self.name, "app_dir": str(self.folder), "log_dir": str(self.folder / "log")}
        self.config_file.write_text(json.dumps({key: {"value": value} for key, value in settings.items()}))
        return f"#!/bin/sh\nexec env FRAME_APP_CONFIG={self.config_file} {FRAME_PROGRAM}\n"

    def entry(self):
        """Puts it into the store; returns its line for the registry file."""
        return entry_text(self.name, "1.0.0", str(put_into_store(self.name, "1.0.0", self.script())))

    def sessions(self):
        return sessions.session_lines(self.session_file)

    @property
    def pid(self):
        return int(self.sessions()[-1]["pid"])

    def crashes(self):
        return crash_records(self.crash_file)

    def log_lines(self):
        return self.log_file.read_text(errors="surrogateescape").splitlines()

    def config(self):
        return json.loads(self.config_file.read_text())


def compact(value):
    """As the daemon writes JSON."""
    return json.dumps(value, sort_keys=True, separators=(",", ":"), ensure_ascii=False)


def expect(answer, status, value):
    assert (answer.status, answer.text) == (status, compact(value)), f"{answer.status} {answer.text}"


def expect_error(answer, status, text):
    expect(answer, status, {"error": text})


def is_answering(daemon, app):
    """It is told by its log."""
    answer = daemon.get(f"/api/packages/{app.name}/log/info")
    return answer.status == 200 and answer.json()["path"] == str(app.log_file)


def is_discovered(daemon, name):
    return daemon.get(f"/api/packages/{name}/sessions").json()["discovered"]


def session_record(line):
    """A line of sessions.log, as it is told over HTTP."""
    is_start = line["event"] == "start"
    return {"is_start": is_start, "timestamp": int(line["ts"]), "pid": int(line["pid"]),
            "executable_path": line.get("exe", ""), "user": line.get("user", ""),
            "working_dir": line.get("cwd", ""), "args": line.get("args", "").replace("|", " "),
            "duration_seconds": int(line.get("duration_s", 0)), "reason": line.get("reason", ""),
            "runtime_snapshot": line["runtime"], "log_line": int(line["log_line"])}


def crash_record(text):
    """A record of crash.log, as it is told over HTTP."""
    header, *lines = text.split("--- recent activity ---\n")[0].splitlines()
    fields = dict(word.split("=", 1) for word in header.split(" ") if "=" in word and not word.startswith("="))
    details = [line.removeprefix("detail: ") for line in lines if line.startswith("detail: ")]
    return {"ts": int(fields["ts"]), "ts_ms": int(fields["ts_ms"]), "pid": int(fields["pid"]),
            "signum": int(fields["signum"]), "addr": fields.get("addr", ""), "detail": "".join(details),
            "backtrace": [line for line in lines if not line.startswith("detail: ")],
            **{key: fields[key] for key in ("version", "build_ts", "build_machine", "build_user", "commit",
                                            "build_type")}}
