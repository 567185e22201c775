"""What every application says and answers on the bus, asked by a node that has nothing of the program."""
import json
import re
import signal
import threading
import time

import bus_wire
import pytest
from bus_payloads import DiscoveryResponse, Envelope, Identity
from bus_services import Asker, Services
from bus_wire import Frame
from crash_log import signal_told
from frame_app import (FRAME_CRASHES, FRAME_DATA, FRAME_LOG, FRAME_SESSIONS, frame_crashes, frame_log,
                       wait_frame_log)
from programs import wait_until

OK = {"status": "ok"}


@pytest.fixture
def asker():
    with Asker(40000) as node:
        yield node


@pytest.fixture
def services(app, asker):
    app.start()
    return Services(asker, "frame_app")


def lines(data):
    return data.split("\n") if data else []


# What is declared

EVENTS = {
    "log.line": "Pushed once per line this logger's sink actually writes to its own file, with that line's "
                "absolute number",
    "log.entry": "Log entries published by this client",
}
REQUESTS = {
    "info": "Returns this app's diagnostic log file's own path/line count/size/current minimum severity (see "
            "Stats()/GetLevel()) - empty path means no log file (never redirected, or redirection failed - "
            "logging only went to console)",
    "read": "Returns log lines [from_line, to_line] (1-based, inclusive) from this app's diagnostic log file "
            "(optionally from an older rotated-out generation - see LogReadRequest::generation), plus its total "
            "line count (see ReadLines())",
    "level.get": "This app's live minimum log severity (0=TRACE/1=INFO/2=WARNING/3=ERROR) - see "
                 "Stats()/GetLevel() - the same value \"info\" bundles as its own min_level field",
    "level.set": "Sets this app's live minimum log severity (0=TRACE/1=INFO/2=WARNING/3=ERROR) - takes effect "
                 "immediately (see set_level()), unlike editing a persisted \"log_min_level\" config field alone",
    "list": "Lists every config field: name/type/current value/default value/description (see config_envelopes's "
            "ConfigListReply) - the same schema --list-config shows locally",
    "set": "Sets one config field, by name, to a new value given as plain text - persisted to disk on success "
           "(see config_envelopes's ConfigSetRequest)",
    "reboot": "Reboots this application (the owning app re-execs itself) - request payload is a RebootRequest "
              "Envelope (see app_control_envelopes), echoed into the session history",
    "crash_test": "Deliberately crashes this application shortly after replying (see RequestCrashTest()) - for "
                  "end-to-end testing of crash detection/reporting, request payload is a CrashTestRequest "
                  "Envelope (see app_control_envelopes)",
    "status": "Returns this app's version and its last few session history records (start/stop times, durations, "
              "reasons), as plain text - see \"session_history\" for the structured equivalent",
    "session_history": "Returns the last (up to) max_records session history records, structured (see "
                       "app_control_envelopes's SessionHistoryReply) - the same records \"status\" already renders "
                       "as plain text",
    "crash_history": "Returns the last (up to) max_records crash records (signal, faulting address, backtrace - "
                     "see crash.log), structured (see app_control_envelopes's CrashHistoryReply)",
    "crash_incident": "Returns the crash-time incident dump (recent log lines + recent bus traffic) for ONE crash, "
                      "identified by pid+ts, structured (see app_control_envelopes's CrashIncidentReply)",
    "incident_history": "Returns the last (up to) max_records live ERROR-triggered incident report summaries "
                        "(pid/ts/level/message, NOT the full backtrace/merged trace body), structured (see "
                        "app_control_envelopes's IncidentHistoryReply)",
    "session_log": "Returns the diagnostic log content belonging to ONE session, identified by pid alone - "
                   "resolves this app's own SessionHistory() and app.log rotation state server-side (see "
                   "BuildSessionLogReply()'s own doc comment), structured",
    "termination_reasons": "Lists this app's own termination-reason kinds (see sessions.log's own stop \"reason=\" "
                           "prefix) - name + description",
}
HEARD = "Log entries published by any LoggerBusClient of this logger's ListenOnBus()"


@pytest.mark.parametrize("name", ["frame_app", "mirelclient"])
def test_every_topic_is_declared_with_its_text(app, daemon, asker, name):
    (app if name == "frame_app" else daemon).start()
    node = asker.application(name)
    declared = {topic.name: topic for topic in node.publications}
    for kind, texts in ((0, EVENTS), (1, REQUESTS)):
        for topic, text in texts.items():
            assert (declared[topic].description, declared[topic].kind) == (text, kind), topic
    param, = declared["level.set"].params
    assert (param.name, param.text) == ("level", "level (0=TRACE/1=INFO/2=WARNING/3=ERROR)")
    heard = {topic.name: topic.description for topic in node.subscriptions}
    assert heard["log.entry"] == heard["logger.self"] == HEARD
    modules = {module.name: module for module in node.modules}
    of_the_daemon = {"pkgmgr", "registry", "diagnostics", "db_browser"} if name == "mirelclient" else set()
    assert set(modules) == {"logger", "config", "control", "app", "logger.self", "console_app"} | of_the_daemon
    assert {"read", "info", "level.get", "level.set", "log.line"} <= set(modules["logger"].topics)
    assert set(modules["config"].topics) == {"list", "set"}
    assert modules["control"].address == 211
    assert modules["logger"].address == 1200 and modules["config"].address == 2200


def test_an_application_tells_everybody_of_its_services_without_being_asked(app, asker):
    app.start()

    def tells(message):
        if message.type != bus_wire.DISCOVERY_RESPONSE or message.dest != bus_wire.BROADCAST:
            return False
        return {"logger", "config", "control"} <= {module.name for module in DiscoveryResponse.decode(message.data).modules}
    assert asker.receive(tells), "nothing was told"


@pytest.fixture
def holder_of_1200():
    """A node that says that it has that address whenever somebody asks who is there."""
    over = threading.Event()

    def hold():
        with Asker(1200) as holder:
            while not over.is_set():
                if holder.receive(lambda message: message.type == bus_wire.DISCOVERY_REQUEST, 0.05):
                    holder.send(Frame(bus_wire.DISCOVERY_RESPONSE, data=DiscoveryResponse(Identity("holder")).encode()))
    thread = threading.Thread(target=hold)
    thread.start()
    yield
    over.set()
    thread.join()


def test_a_service_goes_elsewhere_where_somebody_has_its_address(app, asker, holder_of_1200):
    app.start()
    services = Services(asker, "frame_app")
    assert services.addresses["logger"] not in (0, 1200)
    assert services.logger("info")[0]["status"] == "ok"
    wait_frame_log("[bus] WARNING: local-client address 1200 already in use on this bus (probe 1/8) - "
                   "retrying with an alternate address")


# The log


def test_the_log_is_told_of_read_and_watched(app, services, asker):
    fields, data = services.logger("info")
    assert data == ""
    assert fields == {**OK, "path": str(FRAME_LOG), "line_count": str(frame_log().count("\n")),
                      "file_size_bytes": str(FRAME_LOG.stat().st_size), "min_level": "1", "generation": "0"}
    number = int(fields["line_count"])
    app.do("log WARNING watched")
    event = asker.next_event("log.line", lambda event: event["text"].endswith("watched"))
    assert event == {"line_number": str(number + 1), "generation": "0",
                     "source_address": str(services.addresses["logger"]), "text": event["text"]}
    assert re.fullmatch(r"\[frame_app\] \[WARNING\] \[[-\d]{10}_[:\d]{8}\.\d{3}\] \[app\] watched", event["text"])
    fields, data = services.logger("read", from_line=number, to_line=0)
    assert fields == {**OK, "total_lines": str(number + 1), "from_line": str(number), "generation": "0",
                      "available": "1"}
    assert lines(data) == frame_log().splitlines()[number - 1:]
    fields, data = services.logger("read", from_line=1, to_line=2, generation=0)
    assert lines(data) == frame_log().splitlines()[:2]
    fields, data = services.logger("read", generation=7)
    assert (fields["status"], fields["available"], data) == ("ok", "0", "")


def test_the_level_is_told_and_set_until_the_next_start(app, services):
    assert services.logger("level.get") == ({**OK, "level": "1"}, "")
    assert services.logger("level.set", level=0) == (OK, "")
    app.do("log TRACE now it is written")
    wait_frame_log("now it is written")
    for level in ("4", "-1", "", "INFO"):
        fields, _ = services.logger("level.set", level=level)
        assert fields == {"status": "error", "error": f"not a level (0 to 3): {level}"}
    assert services.logger("level.get")[0]["level"] == "0"
    assert services.logger("info")[0]["min_level"] == "0"
    app.stop()
    app.start()
    assert Services(services.asker, "frame_app").logger("level.get")[0]["level"] == "1"


def test_a_trace_line_is_written_without_an_event(app, services, asker):
    services.logger("level.set", level=0)
    app.do("log TRACE written alone")
    app.do("log INFO the marker")
    seen = []
    asker.next_event("log.line", lambda event: seen.append(event["text"]) or event["text"].endswith("marker"))
    assert not any("written alone" in text for text in seen)
    assert "written alone" in frame_log()


def test_an_entry_of_a_foreign_source_is_taken_by_the_listener_it_names_alone(services, asker):
    entry = {"severity": "3", "source": "far", "timestamp": "", "message": "for somebody else",
             "listener_address": "1"}
    asker.publish("log.entry", Envelope(entry).encode())
    asker.publish("log.entry", b"no envelope")
    asker.publish("log.entry", Envelope({**entry, "message": "for this one",
                                         "listener_address": str(services.addresses["logger"])}).encode())
    wait_frame_log("[far] for this one")
    assert "for somebody else" not in frame_log()
    assert ("[bus] EVENT handler for 'log.entry' threw on this payload (malformed/unexpected?): "
            "Envelope: truncated or malformed") in frame_log()


# The configuration


def test_the_configuration_is_listed_and_set(app, services):
    fields, data = services.config("list")
    assert fields == OK
    listed = {parts[0]: parts[1:] for parts in (line.split("\x1f") for line in lines(data))}
    assert list(listed) == ["app_name", "app_description", "app_dir", "bus_multicast_group", "bus_multicast_port",
                            "shared_bus_address", "log_dir", "log_min_level", "greeting"]
    assert listed["log_min_level"] == ["int", "1", "1", "1", "0 to 3"]
    assert listed["greeting"][:4] == ["string", "héllo", "héllo", "1"] and listed["greeting"][4].endswith("...")
    assert services.config("set", name="greeting", value="a = b") == (OK, "")
    assert services.config("list")[1].split("greeting\x1f")[1].startswith("string\x1fa = b\x1fhéllo\x1f0\x1f")
    stored = json.loads((FRAME_DATA / "config.json").read_text())
    assert stored["greeting"]["value"] == "a = b" and not stored["greeting"]["description"].endswith("...")
    assert re.search(r"^ts=\d+ field=greeting old=héllo\x1fnew=a = b$",
                     (FRAME_DATA / "config_history.log").read_text(), re.MULTILINE)
    assert services.config("set", name="colour", value="red")[0] == {
        "status": "error", "error": "unknown config field: colour"}
    assert services.config("set", name="log_min_level", value="loud")[0] == {"status": "error", "error": "stoll"}


# The histories


def test_sessions_are_those_of_the_file_and_no_more_than_200(app, services):
    assert services.control("session_history") == (OK, FRAME_SESSIONS.read_text().rstrip("\n"))
    own = FRAME_SESSIONS.read_text()
    FRAME_SESSIONS.write_text(own * 300)
    for asked, told in ((1, 1), (200, 200), (500, 200), (0, 200)):
        _, data = services.control("session_history", max_records=asked)
        assert lines(data) == own.splitlines() * told
    fields, data = services.control("session_history", max_records="many")
    assert (fields, data) == ({"status": "error", "error": "max_records is not a number: many"}, "")


def test_the_status_is_text_for_people(app, services):
    fields, data = services.control("status")
    assert fields == OK
    first, second, *rest = data.splitlines()
    assert re.fullmatch(r"frame_app version \d+\.\d+\.\d+-\S+", first)
    assert second == "ambrelight version " + first.split()[2].split("-")[0]
    assert rest[0] == "Last 1 session record(s):"
    assert re.fullmatch(rf"  \[[-\d]{{10}} [:\d]{{8}}\] START pid={app.pid} exe=\S+ user=\S+", rest[1])
    assert len(rest) == 2


def test_the_reasons_for_an_end_are_told(services):
    fields, data = services.control("termination_reasons")
    assert fields == OK
    assert [line.split("\x1f") for line in lines(data)] == [
        ["normal", "Clean, expected shutdown - RunImpl() returned normally"],
        ["reboot", "Requested via the \"reboot\" bus topic or RequestReboot()"],
        ["signal", "Terminated by a non-fatal signal (SIGINT/SIGTERM/...)"],
        ["crash", "A fatal signal or an uncaught exception took the process down"],
        ["error", "RunImpl() itself threw"]]


def test_crashes_are_told_with_their_traces_and_pages(app, services):
    assert services.control("crash_history") == (OK, "")
    app.do("log INFO the last words")
    app.crash("crash segv")
    # A record is known by its process, which stays the same, and its second.
    wait_until(lambda: time.time() >= frame_crashes()[0].time + 1, "a second has passed")
    app.crash("throw std")
    services = Services(services.asker, "frame_app")
    crash, thrown = frame_crashes()
    _, data = services.control("crash_history")
    assert [line for line in lines(data) if line.startswith("=== crash ===")] == [crash.header, thrown.header]
    assert "detail: told to throw" in lines(data)
    assert lines(services.control("crash_history", max_records=1, skip_from_end=1)[1])[0] == crash.header
    assert services.control("crash_history", skip_from_end=2) == (OK, "")
    fields, data = services.control("crash_incident", pid=crash.pid, ts=crash.time)
    assert fields == OK
    trace = FRAME_CRASHES.read_text().split("--- recent activity ---\n")[1].split("=== crash ===")[0]
    assert data == trace.rstrip("\n") and "[app] the last words" in data
    fields, data = services.control("crash_incident", pid=crash.pid, ts=1)
    assert fields == {"status": "error", "error": f"crash record not found (pid {crash.pid}, ts 1)"}


def test_incidents_are_told(app, services):
    assert services.control("incident_history") == (OK, "")
    app.do("log ERROR disk = full")
    wait_until(lambda: services.control("incident_history")[1], "the incident is told")
    fields, data = services.control("incident_history", max_records=1)
    assert fields == OK
    assert re.fullmatch(rf"pid={app.pid} ts=\d+ level=ERROR message=\[app\] disk = full", data)


def test_a_sessions_log_is_found_by_its_process(app, services):
    app.do("log INFO of this session")
    app.crash("crash segv")
    app.do("log INFO of the next session")
    services = Services(services.asker, "frame_app")
    first = FRAME_SESSIONS.read_text().splitlines()[0]
    place = dict(word.split("=") for word in first.split()[1:] if word.startswith(("log_line=", "generation=")))
    fields, data = services.control("session_log", pid=app.pid, **place)
    assert fields["status"] == "ok" and "error" not in fields
    assert "of this session" in data and "of the next session" not in data
    assert fields["from_line"] == "1" and int(fields["total_lines"]) == len(lines(data))
    assert fields["session_from_line"] == place["log_line"]
    assert int(fields["session_to_line"]) - int(fields["session_from_line"]) + 1 == len(lines(data))
    whole = lines(services.control("session_log", pid=app.pid)[1])
    assert whole[-1].endswith("[app] of the next session")
    fields, data = services.control("session_log", pid=app.pid, skip_from_end=1)
    assert lines(data) == whole[:-1]
    assert services.control("session_log", pid=1)[0] == {
        "status": "error", "error": "session not found (pid 1)", "from_line": "0", "total_lines": "0",
        "session_from_line": "0", "session_to_line": "0"}


# Orders


@pytest.mark.parametrize("reason, told", [("new build", "bus command: new build"),
                                          ("", "bus command (no reason given)")])
def test_a_reboot_is_answered_and_done(app, services, reason, told):
    assert services.control("reboot", reason=reason) == (OK, "")
    app.wait_ready()
    app.check_sessions(f"reboot: {told}")
    wait_frame_log(f"[app] AppControl: reboot requested ({told})")


def test_a_crash_test_is_answered_and_crashes_the_main_thread(app, stamp, services):
    asked = time.monotonic()
    assert services.control("crash_test", reason="drill") == (OK, "")
    app.wait_ready()
    assert time.monotonic() - asked > 0.2
    record, = frame_crashes()
    assert record.signum == signal.SIGABRT and record.build == stamp
    assert "main" in record.functions
    text = "AppControl: crash test requested (manual crash test: drill) - crashing via SIGABRT in 200ms"
    assert f"WARNING [app] {text}" in record.trace
    app.check_sessions("crash: manual test - signal SIGABRT")
    assert app.errors() == signal_told(signal.SIGABRT, attempt=1)


def test_orders_that_cannot_be_read_are_answered_and_not_done(app, services, asker):
    control, config = services.addresses["control"], services.addresses["config"]
    for address, topic in ((control, "reboot"), (control, "crash_test"), (config, "set")):
        reply = Envelope.decode(asker.ask_raw(address, topic, b"\1"))
        assert reply.fields == {"status": "error", "error": "Envelope: truncated or malformed"}
    assert app.starts() == 1 and frame_crashes() == []


def test_what_the_log_cannot_read_gets_no_answer_and_a_warning(services, asker):
    assert asker.ask_raw(services.addresses["logger"], "read", b"\1", deadline=0.3) is None
    wait_frame_log("[bus] REQUEST handler for 'read' threw on this payload (malformed/unexpected?): Envelope: "
                   "truncated or malformed - dropping, requester will see a timeout")
    assert services.logger("info")[0]["status"] == "ok"


def test_the_daemon_answers_like_any_other(daemon, asker):
    daemon.start()
    services = Services(asker, "mirelclient")
    assert services.control("status")[1].startswith("mirelclient version ")
    assert services.logger("info")[0]["path"] == "/mnt/nand_disk_ext/mirelclient/mirelclient/app.log"
    assert len(lines(services.config("list")[1])) == 18


def test_two_applications_have_services_of_their_own(app, daemon, asker):
    app.start()
    daemon.start()
    frame, mirel = Services(asker, "frame_app"), Services(asker, "mirelclient")
    assert not set(frame.addresses.values()) & set(mirel.addresses.values())
    app.do("log INFO mine alone")
    wait_frame_log("mine alone")
    assert "mine alone" not in mirel.logger("read")[1]
    assert mirel.control("status")[1].startswith("mirelclient ")
    assert frame.control("status")[1].startswith("frame_app ")
