"""What a package's application tells of itself, asked of the daemon: real applications, run by the daemon."""
import os
import signal

import machine
import pytest
from applications import (NO_REPLY, PackagedApp, compact, crash_record, expect, expect_error, is_answering,
                          is_discovered, session_record)
from daemon import LOG_FILE, Daemon
from preloaded import write_registry
from programs import wait_until

fresh_machine = pytest.fixture(machine.fresh, scope="module", autouse=True)


@pytest.fixture(scope="module")
def weather():
    return PackagedApp("weather")


@pytest.fixture(scope="module")
def daemon(tmp_path_factory, weather):
    """With one package, whose application is on the bus."""
    daemon = Daemon(tmp_path_factory.mktemp("daemon") / "daemon.out")
    write_registry(weather.entry())
    daemon.start()
    wait_until(lambda: is_answering(daemon, weather), "the application answers")
    wait_until(lambda: weather.sessions(), "its start is in its history")
    yield daemon
    daemon.kill()


def get(daemon, path, package="weather"):
    return daemon.get(f"/api/packages/{package}/{path}")


def set_field(daemon, body, package="weather"):
    return daemon.post(f"/api/packages/{package}/config", body)


# -- the histories --


def test_sessions_are_those_of_the_applications_file(daemon, weather):
    expect(get(daemon, "sessions"), 200,
           {"discovered": True, "sessions": [session_record(line) for line in weather.sessions()]})
    before = len(weather.sessions())
    assert daemon.post("/api/packages/weather/restart").status == 200
    wait_until(lambda: len(weather.sessions()) == before + 2, "the next session has begun")
    wait_until(lambda: is_answering(daemon, weather), "the new process answers")
    told = get(daemon, "sessions").json()["sessions"]
    assert told == [session_record(line) for line in weather.sessions()]
    assert [told[-2]["reason"], told[-2]["is_start"], told[-1]["is_start"]] == ["signal: Terminated", False, True]


def test_crashes_are_told_with_their_traces(daemon, weather):
    before = len(weather.sessions())
    os.kill(weather.pid, signal.SIGSEGV)
    wait_until(lambda: len(weather.sessions()) == before + 2, "the next session has begun")
    wait_until(lambda: is_answering(daemon, weather), "the next image answers")
    text = weather.crash_file.read_text()
    crash, = weather.crashes()
    expect(get(daemon, "crashes"), 200, {"crashes": [crash_record(text)], "discovered": True})
    trace = text.split("--- recent activity ---\n")[1].splitlines()
    assert trace
    expect(get(daemon, f"crashes/{crash.pid}/{crash.time}"), 200, {"lines": trace})
    for path in (f"crashes/{crash.pid}/1", f"crashes/1/{crash.time}", f"crashes/{crash.pid}/x", "crashes/x/y"):
        expect_error(get(daemon, path), 404, NO_REPLY)


# -- the log --


def test_the_log_is_told_of(daemon, weather):
    def is_told():
        count, size = len(weather.log_lines()), weather.log_file.stat().st_size
        expected = {"path": str(weather.log_file), "line_count": count, "file_size_bytes": size, "min_level": 1,
                    "generation": 0}
        return get(daemon, "log/info").text == compact(expected)
    wait_until(is_told, "the log's facts are those of its file")


def test_the_log_is_read_line_by_line(daemon, weather):
    def read(query):
        answer = get(daemon, "log" + query)
        value = answer.json()
        assert answer.status == 200 and answer.text == compact(value)
        assert set(value) == {"ok", "error", "total_lines", "from_line", "generation", "lines"}
        assert (value["ok"], value["error"], value["generation"]) == (True, "", 0)
        return value["from_line"], value["lines"]
    wait_until(lambda: len(weather.log_lines()) >= 4, "it has logged something")
    lines = weather.log_lines()
    assert read("") == (1, lines[:1])
    assert read("?from=3") == (3, lines[2:3])
    assert read("?from=2&to=4") == (2, lines[1:4])
    assert read("?from=4&to=3")[1] == []
    assert read("?from=x&to=2") == (1, lines[:2])
    assert read("?from=1&to=0")[1][:len(lines)] == lines
    assert read("?from=99999999999999999999")[1] == []


def test_the_log_is_read_of_another_file(daemon, weather):
    lines = weather.log_lines()
    assert get(daemon, "log?from=2&generation=0").json()["lines"] == lines[1:2]
    answer = get(daemon, "log?from=2&generation=7")
    assert answer.status == 200 and answer.json()["lines"] == [] and answer.json()["generation"] == 7


# -- the configuration --


def test_the_configuration_is_listed_in_the_applications_order(daemon, weather):
    fields = get(daemon, "config").json()["fields"]
    assert [field["name"] for field in fields] == [
        "app_name", "app_description", "app_dir", "bus_multicast_group", "bus_multicast_port",
        "shared_bus_address", "log_dir", "log_min_level", "greeting"]
    assert get(daemon, "config").text == compact({"fields": fields})
    assert fields[0] == {"name": "app_name", "type_name": "string", "description": "Name", "current_value": "weather",
                         "default_value": "frame_app", "is_default": False}
    assert fields[7] == {"name": "log_min_level", "type_name": "int", "description": "0 to 3", "current_value": "1",
                         "default_value": "1", "is_default": True}


def test_a_setting_is_set_in_the_application(daemon, weather):
    for value in ("a = \"b\"", ""):
        expect(set_field(daemon, compact({"name": "greeting", "value": value})), 200, {"ok": True})
        assert weather.config()["greeting"]["value"] == value
        assert get(daemon, "config").json()["fields"][8]["current_value"] == value
    expect(set_field(daemon, '{"name":"greeting","value":5}'), 200, {"ok": True})
    assert weather.config()["greeting"]["value"] == ""


def test_a_setting_that_cannot_be_is_refused(daemon, weather):
    before = weather.config()
    for body in ('{"name":"colour","value":"red"}', '{"name":"log_min_level","value":"loud"}',
                 '{"name":"log_min_level"}'):
        expect_error(set_field(daemon, body), 400, "config_set failed - check the field name/value")
    for body in ("", "not json", "{}", '{"name":5}', '{"name":"","value":"x"}', '{"value":"x"}'):
        expect_error(set_field(daemon, body), 400, '"name" is required')
    assert weather.config() == before


# -- who else there is, and is not --


def test_the_daemon_itself_is_an_application_like_any_other(daemon):
    wait_until(lambda: is_discovered(daemon, "mirelclient"), "the daemon is discovered")
    info = wait_until(lambda: (answer := get(daemon, "log/info", "mirelclient")).status == 200 and answer.json(),
                      "it answers itself")
    assert info["path"] == str(LOG_FILE)
    assert get(daemon, "sessions", "mirelclient").json()["sessions"][-1]["pid"] == daemon.pid


@pytest.mark.parametrize("package", ["ghost", "Weather", "weather2", "%77eather%20", "control"])
def test_a_package_that_is_not_on_the_bus(daemon, package):
    expect(get(daemon, "sessions", package), 200, {"discovered": False, "sessions": []})
    expect(get(daemon, "crashes", package), 200, {"crashes": [], "discovered": False})
    for path in ("crashes/1/2", "log/info", "log", "log?from=1&to=5", "config"):
        expect_error(get(daemon, path, package), 404, NO_REPLY)
    expect_error(set_field(daemon, '{"name":"greeting","value":"x"}', package), 404, NO_REPLY)
    expect_error(set_field(daemon, "", package), 400, '"name" is required')


def test_a_name_is_what_its_path_decodes_to(daemon):
    assert is_discovered(daemon, "%77eather")
    expect_error(daemon.get("/api/packages/wea%2Fther/sessions"), 404, "not found")
