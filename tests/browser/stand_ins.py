"""Answers of a machine on which the package "app" runs on the bus."""
BASE = "/api/packages/app"
CHANNELS = "/api/registry/packages/app/channels"
FIELD = {"name": "speed", "type_name": "int", "description": "How fast", "current_value": "7", "default_value": "5",
         "is_default": False}
OTHER_FIELD = dict(FIELD, name="label", current_value="one")
TABLE = {"ok": True, "error": "", "total_rows": 212, "from_row": 11, "column_names": ["id", "name"],
         "rows": [["a", "Ann"], ["b", "Bob"]]}
TABLES = {"tables": [{"name": "people", "row_count": 2, "column_names": ["id", "name"]}]}
ROWS = "/db/people?from=1&to=200"
SESSION = {"is_start": True, "timestamp": 1700000000, "pid": 4711, "executable_path": "/opt/app/run", "user": "root",
           "working_dir": "/opt/app", "args": "", "duration_seconds": 61, "reason": "", "log_line": 0}
CRASH = {"ts": 1700000000, "pid": 4711, "signum": 11, "detail": "at 0x10 in run()"}


def package(name="app", **fields):
    return {"name": name, "version": "1.0.0", "arch": "any", "status": "running", "started_at": 0, "launch_args": [],
            **fields}


def below(answers):
    """The answers by whole path; the given ones are by what follows the package's path."""
    return {BASE + path: answer for path, answer in answers.items()}
