"""portwatch as its users see it: targets that come and go, what it tells of them, its database under an
operator's hands, its end and its crashes."""
import re
import shutil
import signal

import pytest

from bus_services import Asker
from full_listener import attempts_under_way, filled
from portwatch_app import (DATABASE, FIRST_TARGETS, Listener, NEVER, PACKAGE, PORTWATCH, PortWatch, executable_of,
                           last_check, next_change, portwatch_crashes, portwatch_log, run)
from programs import DEADLINE, wait_until

STOPPED = 128 + signal.SIGTERM
REFUSED = "Connection refused"


@pytest.fixture
def asker():
    with Asker(40000) as node:
        yield node


@pytest.fixture
def listener():
    listener = Listener()
    yield listener
    listener.close()


@pytest.fixture
def watch(tmp_path, asker):
    watch = PortWatch(tmp_path, asker)
    yield watch
    watch.kill()


def wait_log(text):
    wait_until(lambda: text in portwatch_log(), f"the log holds {text!r}")


def told_of(name):
    """Levels and texts of what the log says of a target's state."""
    return re.findall(rf"\[(\w+)\] \[\S+\] \[app\] {re.escape(name)} is (.*)", portwatch_log())


# The rounds


def test_the_first_run_makes_a_database_with_targets_and_checks_them(watch):
    watch.start()
    assert run("SELECT id, host, port, label FROM targets") == FIRST_TARGETS
    wait_until(lambda: last_check() == 2, "both have been checked")
    names = [f"{label} ({host}:{port})" for _, host, port, label in FIRST_TARGETS]
    assert run("SELECT target, state, error FROM checks") == [(name, "down", REFUSED) for name in names]
    for name in names:
        wait_until(lambda: told_of(name) == [("WARNING", f"down: {REFUSED}")], "the log tells of it")


def test_a_target_that_goes_and_comes_is_told_of_once_each_time(watch, listener, peer):
    where = {"id": "1", "host": "127.0.0.1", "port": str(listener.port), "label": ""}
    name = f"127.0.0.1:{listener.port}"
    watch.watch(listener)
    watch.start()
    assert next_change(peer) == {**where, "state": "up", "before": "unknown", "error": ""}
    for _ in range(2):
        watch.check_now()
    listener.close()
    watch.check_now()
    assert next_change(peer) == {**where, "state": "down", "before": "up", "error": REFUSED}
    assert watch.status()[0] == (0, 1)
    listener.open()
    watch.check_now()
    assert next_change(peer) == {**where, "state": "up", "before": "down", "error": ""}
    assert watch.status()[0] == (1, 0)
    told = [("INFO", "up"), ("WARNING", f"down: {REFUSED}"), ("INFO", "up")]
    wait_until(lambda: told_of(name) == told, "the log tells of it")


def test_each_check_is_logged_for_those_who_want_to_know(watch, listener):
    watch.watch(listener)
    watch.start()
    wait_log("is up")
    assert "[TRACE]" not in portwatch_log()
    assert watch.services.logger("level.set", level=0)[0]["status"] == "ok"
    watch.check_now()
    wait_until(lambda: re.search(rf"\[TRACE\] \[\S+\] \[app\] 127.0.0.1:{listener.port} is up after \d+ ms",
                                 portwatch_log()), "the check is logged")


def test_a_target_that_does_not_answer_is_down_when_its_time_is_over(watch, peer):
    silent, there = Listener(backlog=0), Listener()
    with filled(silent.port):
        watch.configure(connect_timeout_ms=50)
        watch.watch(silent, there)
        watch.start()
        changes = [next_change(peer) for _ in range(2)]
        assert [(change["port"], change["state"], change["error"]) for change in changes] == [
            (str(silent.port), "down", "no answer in time"), (str(there.port), "up", "")]
    silent.close()
    there.close()


def test_no_more_checks_are_kept_than_wanted(watch, listener):
    watch.watch(listener)
    watch.start()
    wait_until(lambda: last_check() == 1, "it has been checked")
    for count in range(2, 5):
        watch.check_now()
        assert len(run("SELECT id FROM checks")) == count
    assert watch.services.config("set", name="keep_checks", value="2") == ({"status": "ok"}, "")
    watch.check_now()
    assert run("SELECT id FROM checks") == [(4,), (5,)]


def test_a_round_without_a_database_is_left_out(watch, listener):
    watch.watch(listener)
    watch.start()
    wait_until(lambda: last_check() == 1, "it has been checked")
    DATABASE.rename(DATABASE.with_suffix(".away"))
    assert watch.ask("portwatch.check_now")[0] == {"status": "ok"}
    wait_log(f"no round with {DATABASE}: unable to open database file")
    DATABASE.with_suffix(".away").rename(DATABASE)
    watch.check_now()
    assert watch.status()[0] == (1, 0)


# What can be asked of it


def test_what_it_offers_is_declared_and_told(watch, listener, asker):
    watch.watch(listener)
    watch.start()
    declared = {topic.name: topic for topic in watch.services.node.publications}
    for name, kind in (("portwatch.changed", 0), ("portwatch.status", 1), ("portwatch.check_now", 1),
                       ("portwatch.crash", 1)):
        assert declared[name].kind == kind and declared[name].description
    wait_until(lambda: watch.status()[0] == (1, 0), "the first round is over")
    (number, label, host, port, state, milliseconds, error), = watch.status()[1]
    assert (number, label, host, port, state, error) == ("1", "", "127.0.0.1", str(listener.port), "up", "")
    assert milliseconds.isdigit()


def test_an_edited_cell_takes_effect_at_the_next_round(watch, listener, peer):
    other = Listener()
    watch.watch(listener)
    watch.start()
    assert next_change(peer)["port"] == str(listener.port)
    fields, tables = watch.ask_database("db.info")
    assert (fields["name"], fields["path"], fields["loaded"]) == ("portwatch.targets", str(DATABASE), "1")
    assert "targets|1|id,host,port,label" in tables.split("\n")
    watch.edit(1, 2, str(other.port))
    watch.check_now()
    change = next_change(peer)
    assert (change["port"], change["state"], change["before"]) == (str(other.port), "up", "unknown")
    watch.edit(1, 3, "the other")
    watch.check_now()
    assert [line[1] for line in watch.status()[1]] == ["the other"]
    assert run("SELECT target FROM checks ORDER BY id DESC LIMIT 1") == [(f"the other (127.0.0.1:{other.port})",)]
    for column, value, error in ((1, "nowhere", "not an address: nowhere"), (2, "http", "not a port: http"),
                                 (2, "65536", "not a port: 65536"), (2, "0", "not a port: 0")):
        watch.edit(1, column, value)
        watch.check_now()
        change = next_change(peer)
        assert (change["label"], change["state"], change["error"]) == ("the other", "down", error)
    watch.ask_database("db.row.delete", table_name="targets", row_index=1)
    assert watch.ask("portwatch.check_now")[0] == {"status": "ok"}
    wait_until(lambda: watch.status() == ((0, 0), []), "the target is forgotten")
    other.close()


def test_another_interval_holds_at_once(watch, listener):
    watch.watch(listener)
    watch.start()
    wait_until(lambda: last_check() == 1, "it has been checked")
    assert watch.services.config("set", name="interval_seconds", value="1") == ({"status": "ok"}, "")
    wait_until(lambda: last_check() >= 3, "rounds follow each other")


# Its end


def test_a_stop_does_not_wait_for_a_connect(watch):
    silent = Listener(backlog=0)
    with filled(silent.port):
        fillers = attempts_under_way(silent.port)
        watch.configure(connect_timeout_ms=NEVER * 1000)
        watch.watch(silent)
        watch.start()
        wait_until(lambda: attempts_under_way(silent.port) > fillers, "it is connecting")
        assert watch.stop() == STOPPED
    assert watch.sessions()[-1]["reason"] == "signal: Terminated"
    silent.close()


def test_a_stop_does_not_wait_for_the_next_round(watch, listener):
    watch.watch(listener)
    watch.start()
    wait_until(lambda: last_check() == 1, "it has been checked")
    assert watch.stop() == STOPPED


def test_as_a_package_a_second_start_takes_over(watch, tmp_path, asker, listener):
    shutil.copytree(PACKAGE, tmp_path / "package")
    shutil.copy(PORTWATCH, tmp_path / "package")
    start = tmp_path / "package/start.sh"
    watch.watch(listener)
    watch.start(start)
    second = PortWatch(tmp_path, asker)
    try:
        second.start(start)
        assert watch.process.wait(DEADLINE) == STOPPED
        assert executable_of(second.pid()) == str(tmp_path / "package/portwatch")
        wait_until(lambda: second.status()[0] == (1, 0), "the new one watches")
        third = PortWatch(tmp_path, asker).spawn(PORTWATCH)
        assert third.process.wait(DEADLINE) == 255
        assert '"portwatch" is already running' in third.output()
    finally:
        second.kill()


# Its crashes


def test_a_crash_leaves_a_record_with_its_own_functions_and_it_comes_back(watch, listener):
    watch.watch(listener)
    watch.start()
    pid = watch.pid()
    assert watch.ask("portwatch.crash") == ({"status": "ok"}, "")
    watch.wait_running(sessions_before=1)
    record, = portwatch_crashes()
    assert (record.signum, record.pid) == (signal.SIGABRT, pid)
    assert re.match(r" version=1\.0\.0-\S+ .* commit=\S+ ", record.build)
    names = [name for name in record.functions if "PortWatch" in name]
    assert "crash_as_asked" in names[0] and any("run_impl" in name for name in names)
    assert "main" in record.functions
    starts, stop = watch.starts(), watch.sessions()[1]
    assert (starts, stop["event"], stop["reason"]) == (2, "stop", "crash: signal SIGABRT")
    wait_until(lambda: watch.status()[0] == (1, 0), "it watches again")
    assert watch.stop() == STOPPED
