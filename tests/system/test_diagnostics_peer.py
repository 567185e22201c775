"""How the daemon finds and asks a package's application, seen by an application that has nothing of ours."""
import bus_wire
import machine
import pytest
from applications import (NO_DATABASE, NO_REPLY, crash_record, expect, expect_error, is_discovered,
                          session_record)
from bus_payloads import DiscoverNetworkRequest, HubSummary, ModuleSummary, NetworkDomain, topic_id
from daemon import Daemon
from databases import NOT_ADDRESSED
from fake_application import FakeApplication
from programs import wait_until
from sessions import parse

fresh_machine = pytest.fixture(machine.fresh, scope="module", autouse=True)

GHOST = 700
DIAGNOSTICS, BROWSER = 3200, 4200
CONTROL, CONFIG, LOGGER = 711, 712, 713
MODULES = [ModuleSummary(CONTROL, "control"), ModuleSummary(CONFIG, "config"), ModuleSummary(LOGGER, "logger")]
OK = {"status": "ok"}
SET = '{"name":"f","value":"v"}'
START = "event=start ts=1700000000 pid=42 exe=/x user=me cwd=/ log_line=3 generation=1 runtime=r args=a|b c"
STOP = "event=stop ts=1700000009 pid=42 duration_s=9 log_line=8 generation=1 runtime=r reason=normal: it's done"
CRASH = ("=== crash === signum=11 pid=42 ts=1700000000 ts_ms=7 addr=0xbeef version=1.0.0 build_ts=t build_machine=m "
         "build_user=u commit=c build_type=b compiler=g\ndetail: why\nframe one\nframe two")


@pytest.fixture(scope="module")
def daemon(tmp_path_factory):
    daemon = Daemon(tmp_path_factory.mktemp("daemon") / "daemon.out").start()
    yield daemon
    daemon.kill()


@pytest.fixture(scope="module")
def ghosts():
    """Each test has an application of another name, so that none is known from the test before."""
    return iter(range(100))


@pytest.fixture
def ghost(daemon, ghosts):
    with FakeApplication(GHOST, f"ghost-{next(ghosts)}") as ghost:
        yield ghost


@pytest.fixture
def get(daemon, ghost):
    return lambda path: daemon.get(f"/api/packages/{ghost.name}/{path}")


@pytest.fixture
def post(daemon, ghost):
    return lambda path, body=None: daemon.post(f"/api/packages/{ghost.name}/{path}", body)


def wait_discovered(daemon, ghost):
    """Its map is the daemon's from now on, and nothing is under way."""
    wait_until(lambda: is_discovered(daemon, ghost.name), "the application is discovered")
    ghost.asked = []


def round_has_passed(ghost):
    """All answers to a question that was asked from now on are in."""
    before = len(ghost.maps_asked)
    wait_until(lambda: len(ghost.maps_asked) >= before + 2, "the daemon has looked around")


def test_nobody_is_discovered_until_somebody_has_told_of_the_network(daemon, ghost, get, post):
    round_has_passed(ghost)
    expect(get("sessions"), 200, {"discovered": False, "sessions": []})
    expect(get("crashes"), 200, {"crashes": [], "discovered": False})
    for path in ("crashes/1/2", "log/info", "log?from=2", "config"):
        expect_error(get(path), 404, NO_REPLY)
    expect_error(post("config", SET), 404, NO_REPLY)
    for path in ("db", "db/t"):
        expect_error(get(path), 404, NO_DATABASE)
    for path in ("db/t/cell", "db/t/delete-row", "db/t/clear"):
        expect_error(post(path, "{}"), 404, NO_DATABASE)
    round_has_passed(ghost)
    assert not ghost.asked, "nobody is asked for who is not known"
    ghost.tell_of_itself()
    wait_until(lambda: is_discovered(daemon, ghost.name), "the application is discovered")


def test_a_round_asks_everybody_for_the_bus_alone(ghost):
    wait_until(lambda: ghost.maps_asked, "the daemon looks around")
    asked = ghost.maps_asked[0]
    assert (asked.dest, asked.origin, asked.source) == (bus_wire.BROADCAST, (0, DIAGNOSTICS), 200)
    assert ghost.question_of_maps() == DiscoverNetworkRequest(0, [])


def test_a_failed_round_leaves_what_is_known(daemon, ghost):
    ghost.tell_of_itself()
    wait_discovered(daemon, ghost)
    ghost.map = None
    for _ in range(2):
        round_has_passed(ghost)
        assert is_discovered(daemon, ghost.name)


def answer_all(ghost):
    ghost.answers = {
        "session_history": (OK, f"{START}\n{STOP}"), "crash_history": (OK, CRASH), "crash_incident": (OK, "one\n|two"),
        "info": ({**OK, "path": "/log", "line_count": 5, "file_size_bytes": 2 ** 40, "min_level": 3, "generation": 2}, ""),
        "read": ({**OK, "total_lines": 9, "from_line": 4, "generation": 2, "available": 1}, "a\n\nb"),
        "list": (OK, "\x1f".join(["f", "int", "1", "2", "0", "told"])), "set": (OK, "")}


def check_all(get, post):
    expect(get("sessions"), 200, {"discovered": True, "sessions": [session_record(parse(START)),
                                                                   session_record(parse(STOP))]})
    expect(get("crashes"), 200, {"crashes": [crash_record(CRASH)], "discovered": True})
    expect(get("crashes/42/1700000000"), 200, {"lines": ["one", "|two"]})
    expect(get("log/info"), 200, {"path": "/log", "line_count": 5, "file_size_bytes": 2 ** 40, "min_level": 3,
                                  "generation": 2})
    log = {"ok": True, "error": "", "total_lines": 9, "from_line": 4, "generation": 2, "lines": ["a", "", "b"]}
    for query in ("log", "log?from=5", "log?from=2&to=9&generation=2"):
        expect(get(query), 200, log)
    expect(get("config"), 200, {"fields": [{"name": "f", "type_name": "int", "current_value": "1", "default_value": "2",
                                            "is_default": False, "description": "told"}]})
    expect(post("config", SET), 200, {"ok": True})
    expect(post("config", '{"name":"f"}'), 200, {"ok": True})


def questions(control, config, logger):
    return [(control, topic_id("session_history"), {"max_records": "0"}),
            (control, topic_id("crash_history"), {"max_records": "0", "skip_from_end": "0"}),
            (control, topic_id("crash_incident"), {"pid": "42", "ts": "1700000000"}),
            (logger, topic_id("info"), {}),
            (logger, topic_id("read"), {"from_line": "1", "to_line": "1"}),
            (logger, topic_id("read"), {"from_line": "5", "to_line": "5"}),
            (logger, topic_id("read"), {"from_line": "2", "to_line": "9", "generation": "2"}),
            (config, topic_id("list"), {}),
            (config, topic_id("set"), {"name": "f", "value": "v"}),
            (config, topic_id("set"), {"name": "f", "value": ""})]


def test_questions_go_to_the_modules_of_their_names(daemon, ghost, get, post):
    ghost.tell_of_itself(*MODULES)
    answer_all(ghost)
    wait_discovered(daemon, ghost)
    check_all(get, post)
    assert ghost.take_asked() == questions(CONTROL, CONFIG, LOGGER)


def test_questions_for_modules_that_are_not_there_go_to_the_node_itself(daemon, ghost, get, post):
    ghost.tell_of_itself(ModuleSummary(CONTROL, "Control"), ModuleSummary(CONFIG, "configuration"))
    answer_all(ghost)
    wait_discovered(daemon, ghost)
    check_all(get, post)
    assert ghost.take_asked() == questions(GHOST, GHOST, GHOST)


def test_of_two_nodes_of_a_name_the_first_in_depth_first_order_is_asked(daemon, ghost, get):
    deep = NetworkDomain(20, [], [NetworkDomain(30, [HubSummary(801, ghost.name, 1)])])
    ghost.map = NetworkDomain(0, [HubSummary(GHOST, "else", 0)], [deep, NetworkDomain(40, [HubSummary(802, ghost.name, 2)])])
    answer_all(ghost)
    wait_discovered(daemon, ghost)
    assert get("log/info").status == 200
    assert [dest for dest, _, _ in ghost.take_asked()] == [801]


def test_an_application_that_does_not_answer_is_there_all_the_same(daemon, ghost, get, post):
    ghost.tell_of_itself(*MODULES)
    wait_discovered(daemon, ghost)
    ghost.answers = {}
    expect(get("sessions"), 200, {"discovered": True, "sessions": []})
    expect(get("crashes"), 200, {"crashes": [], "discovered": True})
    expect_error(get("log/info"), 404, NO_REPLY)
    expect_error(post("config", SET), 404, NO_REPLY)
    assert len(ghost.take_asked()) == 4


def test_an_answer_that_cannot_be_read_or_says_error_is_none(daemon, ghost, get, post):
    ghost.tell_of_itself(*MODULES)
    wait_discovered(daemon, ghost)
    topics = ("session_history", "crash_history", "crash_incident", "info", "read", "list", "set")
    for answer in (b"", b"\xff" * 40, ({"status": "error", "error": "no"}, "")):
        ghost.answers = {topic: answer for topic in topics}
        expect(get("sessions"), 200, {"discovered": True, "sessions": []})
        expect(get("crashes"), 200, {"crashes": [], "discovered": True})
        for path in ("crashes/1/2", "log/info", "config"):
            expect_error(get(path), 404, NO_REPLY)
        if isinstance(answer, bytes):
            expect_error(get("log"), 404, NO_REPLY)
            expect_error(post("config", SET), 404, NO_REPLY)
    expect(get("log"), 200, {"ok": False, "error": "no", "total_lines": 0, "from_line": 0, "generation": 0, "lines": []})
    expect_error(post("config", SET), 400, "config_set failed - check the field name/value")


def offer_database(ghost, name="stock", **fields):
    ghost.answers["db.info"] = ({**OK, "name": name, "path": "/p", "loaded": "1", **fields},
                                "t|3|\nu|x|a,b\n\nno bars\nv|7|a,b|c")


def test_a_database_is_shown_as_its_application_tells(daemon, ghost, get):
    ghost.tell_of_itself()
    wait_discovered(daemon, ghost)
    expect_error(get("db"), 404, NO_DATABASE)
    offer_database(ghost)
    tables = [{"column_names": [], "name": "t", "row_count": 3}, {"column_names": ["a", "b"], "name": "u", "row_count": 0},
              {"column_names": ["a", "b|c"], "name": "v", "row_count": 7}]
    expect(get("db"), 200, {"loaded": True, "name": "stock", "path": "/p", "tables": tables})
    offer_database(ghost, loaded="true")
    assert get("db").json()["loaded"] is False
    assert [dest for dest, _, _ in ghost.take_asked()] == [0, 0, 0]
    offer_database(ghost, status="error")
    expect_error(get("db"), 404, NO_DATABASE)


def test_a_write_that_is_for_nobody_is_not_found(daemon, ghost, post):
    ghost.tell_of_itself()
    offer_database(ghost)
    ghost.answers.update({topic: (NOT_ADDRESSED, "") for topic in ("db.cell.edit", "db.row.delete", "db.table.clear")})
    wait_discovered(daemon, ghost)
    expect_error(post("db/t/cell", '{"row_index":1,"column_index":2,"value":"x"}'), 404, NO_DATABASE)
    expect_error(post("db/t/delete-row", '{"row_index":1}'), 404, NO_DATABASE)
    expect_error(post("db/t/clear"), 404, NO_DATABASE)
    asked = [(dest, fields) for dest, topic, fields in ghost.take_asked() if topic != topic_id("db.info")]
    at = {"db_name": "stock", "table_name": "t"}
    assert asked == [(0, {**at, "row_index": "1", "column_index": "2"}), (0, {**at, "row_index": "1"}), (0, at)]


def test_of_two_nodes_the_one_that_a_write_is_for_is_heard(daemon, ghost, post):
    """The other one answers first, and says that it is not meant."""
    ghost.tell_of_itself()
    offer_database(ghost)
    wait_discovered(daemon, ghost)
    with FakeApplication(GHOST - 100, "other") as other:
        def after_the_other():
            wait_until(lambda: "db.cell.edit" in other.answered, "the other one has answered")
            return OK, ""
        ghost.answers["db.cell.edit"] = after_the_other
        other.answers["db.cell.edit"] = (NOT_ADDRESSED, "")
        offer_database(other, name="of another")
        expect(post("db/t/cell", '{"row_index":1,"column_index":2,"value":"x"}'), 200, {"error": "", "ok": True})


def test_a_database_of_a_module_is_its_applications(daemon, ghost, get):
    ghost.tell_of_itself(ModuleSummary(777, "store"))
    wait_discovered(daemon, ghost)
    with FakeApplication(777, "store") as store:
        offer_database(store, name="inner")
        assert get("db").json()["name"] == "inner"
    with FakeApplication(778, "stranger") as stranger:
        offer_database(stranger, name="outer")
        expect_error(get("db"), 404, NO_DATABASE)
        assert stranger.take_asked()
