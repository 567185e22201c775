"""What an application leaves of an error while it goes on running, and of a crash, of log and bus."""
import re

from crash_log import read_trace
from frame_app import FRAME_DATA, frame_crashes
from programs import wait_until

INCIDENTS = FRAME_DATA / "incidents"
ACTIVITY = "=== recent activity (logs + bus traffic, merged by time, regardless of active log level) ==="
STATE = "=== runtime state ==="


class Report:
    """A report, every part of which has to be there and in its place."""

    def __init__(self, path):
        self.milliseconds = int(re.fullmatch(r"incident-(\d{13})\.txt", path.name)[1])
        text = path.read_text()
        assert text.endswith("\n")
        head, rest = text.split("\n\nBacktrace:\n", 1)
        frames, rest = rest.split(f"\n{ACTIVITY}\n", 1)
        activity, _, self.state = rest.partition(f"\n{STATE}\n")
        first, self.app, self.pid, self.time, self.trigger = head.split("\n")
        assert first == "=== incident report ==="
        self.frames = frames.splitlines()
        self.lines = activity.splitlines()
        self.logged, self.passed = read_trace(self.lines)

    def texts(self):
        return [f"{line['level']} {line['text']}" for line in self.logged]

    def check_order(self):
        times = [int(re.search(r"ts=(\d+)", line)[1]) for line in self.lines]
        assert times == sorted(times)


def reports():
    return sorted(INCIDENTS.glob("*")) if INCIDENTS.exists() else []


def the_report():
    path, = reports()
    return Report(path)


def make_traffic(app):
    app.do("log INFO before")
    app.do("publish disk.state twelve percent")
    app.do("log TRACE below the level of the file")


def check_traffic(logged, passed):
    """Both kinds are there, and the message stands between the two lines."""
    event, = (line for line in passed if line["topic"] == "disk.state")
    assert (event["type"], event["way"], event["source"], event["dest"]) == ("EVENT", "TX", "200", "4294967295")
    assert event["data"] == "text=twelve percent" and int(event["id"]) > 0
    before, = (line for line in logged if line["text"] == "[app] before")
    below, = (line for line in logged if line["text"] == "[app] below the level of the file")
    assert before["time"] <= event["time"] <= below["time"]


def test_an_error_leaves_a_report_and_the_application_goes_on(app):
    app.start()
    make_traffic(app)
    app.do("runtime mode=calm")
    app.do("log ERROR disk 7 is full")
    report = the_report()
    assert report.app.startswith("app: frame_app ")
    assert report.pid == f"pid: {app.pid}"
    assert report.time == f"ts: {report.milliseconds // 1000}" and report.milliseconds // 1000 >= app.start_time
    assert report.trigger == "triggered by: [ERROR] [app] disk 7 is full"
    assert 1 <= len(report.frames) <= 32
    assert any("frame_app" in frame for frame in report.frames)
    report.check_order()
    check_traffic(report.logged, report.passed)
    # The announcement of the start is there, too.
    assert "DISCOVERY_RESPONSE" in [line["type"] for line in report.passed]
    assert report.texts()[-1] == "ERROR [app] disk 7 is full" and report.lines[-1] == report.logged[-1][0]
    assert report.state == "mode=calm\n"
    assert app.stop() == 128 + 15


def test_errors_in_quick_succession_leave_one_report(app):
    app.start()
    for number in range(5):
        app.do(f"log ERROR number {number}")
    assert the_report().trigger == "triggered by: [ERROR] [app] number 0"


def test_less_than_an_error_leaves_none(app):
    app.start()
    app.do("log WARNING nearly")
    app.do("log INFO fine")
    assert app.stop() == 128 + 15
    assert reports() == []


def test_a_report_has_no_runtime_state_where_there_is_none(app):
    app.start()
    app.do("log ERROR x")
    path, = reports()
    assert STATE not in path.read_text()


def test_only_twenty_reports_are_kept(app):
    app.start()
    for number in range(25):
        (INCIDENTS / f"incident-{1_000_000_000_000 + number}.txt").parent.mkdir(exist_ok=True)
        (INCIDENTS / f"incident-{1_000_000_000_000 + number}.txt").write_text("old\n")
    app.do("log ERROR x")
    names = [path.name for path in reports()]
    assert len(names) == 20
    assert names[0] == "incident-1000000000006.txt" and Report(reports()[-1]).trigger.endswith("x")


def test_a_folder_that_cannot_be_made_costs_the_report_alone(app):
    app.start()
    INCIDENTS.write_text("in the way\n")
    app.do("log ERROR x")
    assert INCIDENTS.read_text() == "in the way\n"
    assert app.stop() == 128 + 15


def test_a_crash_record_holds_what_passed_on_the_bus(app):
    app.start()
    make_traffic(app)
    app.crash("crash segv")
    record, = frame_crashes()
    assert record.trace[-1] == "TRACE [app] below the level of the file"
    event, = (line for line in record.bus_trace if line["topic"] == "disk.state")
    assert event["data"] == "text=twelve percent"


def test_an_uncaught_exception_leaves_a_report_as_the_error_that_it_is(app):
    app.start()
    app.crash("throw std")
    wait_until(reports, "the report is there")
    assert "uncaught exception - told to throw" in Report(reports()[0]).trigger
