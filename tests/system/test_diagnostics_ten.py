"""Ten packages at once, installed and run by the daemon: each is asked for what it has."""
import concurrent.futures
import os
import pathlib
import signal

import pytest
from applications import NO_DATABASE, NO_REPLY, PackagedApp, expect, expect_error, is_answering, session_record
from databases import run
from programs import BIN, wait_until
from registry import SLEEPER, entry

APPS = [f"app-{number}" for number in range(7)]
STOPPED = APPS[3]
DATABASES = ["shop", "club"]
BARE = "bare"
ROWS = ["crashes/1/2", "log/info", "log?from=1", "config"]


def database_script(address, name, path):
    """Such a node runs until its input ends."""
    return f"#!/bin/sh\ntail -f /dev/null | {BIN}/database_node {address} {name} {name}.db {path}\n"


@pytest.fixture
def apps():
    return {name: PackagedApp(name) for name in APPS}


@pytest.fixture
def ten(daemon, registry, apps, tmp_path):
    for name, app in apps.items():
        registry.publish(name, files={"run": app.script()})
    for number, name in enumerate(DATABASES):
        run(tmp_path / f"{name}.db", "CREATE TABLE t(name)",
            *(f"INSERT INTO t VALUES ('{name} {row}')" for row in range(number + 1)))
        registry.publish(name, files={"run": database_script(700 + number, name, tmp_path / f"{name}.db")})
    registry.publish(BARE, files={"run": SLEEPER})
    registry.serve()
    daemon.bootstrap([entry(name) for name in [*APPS, *DATABASES, BARE]], registry_url=registry.url)
    daemon.start()
    for name in [*APPS, *DATABASES, BARE]:
        daemon.wait_status(name, "running")
    return daemon


def get(daemon, name, path):
    return daemon.get(f"/api/packages/{name}/{path}")


def expect_application(daemon, app):
    """It answers every question with what is in its own files."""
    expect(get(daemon, app.name, "sessions"), 200,
           {"discovered": True, "sessions": [session_record(line) for line in app.sessions()]})
    expect(get(daemon, app.name, "crashes"), 200, {"crashes": [], "discovered": True})
    expect_error(get(daemon, app.name, "crashes/1/2"), 404, NO_REPLY)
    assert get(daemon, app.name, "log/info").json()["path"] == str(app.log_file)
    assert get(daemon, app.name, "log?from=1&to=2").json()["lines"] == app.log_lines()[:2]
    fields = {field["name"]: field for field in get(daemon, app.name, "config").json()["fields"]}
    assert fields["app_name"]["current_value"] == app.name
    value = f"set in {app.name}"
    expect(daemon.post(f"/api/packages/{app.name}/config", {"name": "greeting", "value": value}), 200, {"ok": True})
    assert app.config()["greeting"]["value"] == value


def expect_database(daemon, name, rows):
    database = get(daemon, name, "db").json()
    assert (database["name"], database["tables"][0]["row_count"]) == (f"{name}.db", len(rows))
    assert get(daemon, name, "db/t").json()["rows"] == [[str(number + 1), row] for number, row in enumerate(rows)]
    expect(daemon.post(f"/api/packages/{name}/db/t/cell", {"row_index": 1, "column_index": 1, "value": "new"}), 200,
           {"error": "", "ok": True})
    assert get(daemon, name, "db/t").json()["rows"][0] == ["1", "new"]


def expect_silence(daemon, name):
    """It is on the bus, and answers nothing."""
    expect(get(daemon, name, "sessions"), 200, {"discovered": True, "sessions": []})
    for path in ROWS[1:3]:
        expect_error(get(daemon, name, path), 404, NO_REPLY)


def stop(pid):
    """Returns when none of its threads runs any more."""
    os.kill(pid, signal.SIGSTOP)
    tasks = pathlib.Path(f"/proc/{pid}/task")
    wait_until(lambda: all("State:\tT" in (task / "status").read_text() for task in tasks.iterdir()),
               "it has stopped")


def test_each_of_ten_packages_is_asked_for_what_it_has(ten, apps):
    for name, app in apps.items():
        wait_until(lambda: is_answering(ten, app), f"{name} answers")
        wait_until(app.sessions, f"the start of {name} is in its history")
    for app in apps.values():
        expect_application(ten, app)
        expect_error(get(ten, app.name, "db"), 404, NO_DATABASE)
    for number, name in enumerate(DATABASES):
        wait_until(lambda: get(ten, name, "db").status == 200, f"{name} offers its database")
        expect_database(ten, name, [f"{name} {row}" for row in range(number + 1)])
    expect(get(ten, BARE, "sessions"), 200, {"discovered": False, "sessions": []})
    expect(get(ten, BARE, "crashes"), 200, {"crashes": [], "discovered": False})
    for path in ROWS:
        expect_error(get(ten, BARE, path), 404, NO_REPLY)
    expect_error(get(ten, BARE, "db"), 404, NO_DATABASE)

    stop(apps[STOPPED].pid)
    with concurrent.futures.ThreadPoolExecutor() as pool:
        silence = pool.submit(expect_silence, ten, STOPPED)
        others = [pool.submit(expect_application, ten, app) for name, app in apps.items() if name != STOPPED]
        for check in [silence, *others]:
            check.result()
    os.kill(apps[STOPPED].pid, signal.SIGCONT)
    wait_until(lambda: is_answering(ten, apps[STOPPED]), "it answers again")
    expect_application(ten, apps[STOPPED])
