"""What the daemon prints and does for its command line."""
import ctypes
import json
import os
import pathlib
import re
import resource
import socket

import pytest
from daemon import CONFIG_DIR, LOG_FILE, MIRELCLIENT, run_to_its_end, SESSIONS
from sessions import session_lines
from tables import BOLD, BOLD_CYAN, config_table, DIM, RESET
from terminal import output_on_terminal

GOLDEN = pathlib.Path(__file__).parent / "golden"

CONSOLE_LINES = re.compile(
    r"\A\[mirelclient\] \[INFO\] \[\S+\] \[app\] Logger started, writing to console\n"
    r"(?:\[mirelclient\] \[\w+\] \[\S+\] \[app\] (?:config: |  - ).*\n)+"
    rf"\[mirelclient\] \[INFO\] \[\S+\] \[logger\.self\] Redirecting log output to '{LOG_FILE}'\n")


def without_console_lines(output):
    """What follows the lines that the log writes to the console until it has its file."""
    begin = CONSOLE_LINES.match(output)
    assert begin, output
    return output[begin.end():]


def printed(*arguments):
    done = run_to_its_end(*arguments)
    assert (done.returncode, done.stderr) == (0, "")
    return without_console_lines(done.stdout)


def printed_on_terminal(*arguments, **environment):
    return without_console_lines(output_on_terminal([MIRELCLIENT, *arguments], environment))


# -- the version --


@pytest.mark.parametrize("option", ["--version", "-v"])
def test_the_version_is_one_line_and_a_good_end(option):
    version = printed(option)
    assert re.fullmatch(r"\d+\.\d+\.\d+-\d{8}\.\d{6}-\S+\n", version)


def test_the_version_ends_with_the_date_and_the_machine_of_the_build():
    version = printed("--version")
    stamp = dict(re.findall(r"^    (\w+): (.*)$", printed("--help"), re.MULTILINE))
    assert version.endswith(f"-{stamp['Date']}-{stamp['Machine']}\n")


@pytest.mark.parametrize("option", ["--version", "--help", "--list-config"])
def test_the_daemon_has_started_before_it_prints(daemon, option):
    daemon.configure(web_addr="127.0.0.1", bootstrap_package_list_path="/no/such/list")
    with socket.create_server(("127.0.0.1", 7080)):
        done = run_to_its_end(option)
    assert done.returncode == 0
    assert done.stderr == "mirelClient: web server failed to start: bind() failed: Address already in use\n"
    assert "bootstrap_package_list_path is set but couldn't open /no/such/list" in daemon.log()
    assert not session_lines(SESSIONS)


# -- the help --


def expected_help():
    text = printed("--help")
    stamp = re.search(r"\nBuilt: \n    Date: (.*)\n    Machine: (.*)\n    User: (.*)\n    Commit: (.*)\n"
                      r"    Type: (.*)\n    Compiler: (.*)\n\Z", text)
    assert stamp and all(stamp.groups())
    golden = (GOLDEN / "help.txt").read_text()
    for name, value in zip(["Date", "Machine", "User", "Commit", "Type", "Compiler"], stamp.groups()):
        golden = golden.replace(f"<{name}>", value)
    return golden


def in_color(plain):
    """The coloured help: heading, usage, groups and footer."""
    description, usage, rest = re.fullmatch(r"Description:(.*?)(Usage: [^\n]*\n)(.*)", plain, re.DOTALL).groups()
    rest, footer = rest.split("\nBuilt: ")
    for group in ["General", "Diagnostics"]:
        rest = rest.replace(f"\n{group}:\n", f"\n{BOLD_CYAN}{group}:{RESET}\n")
    return (f"{BOLD}Description:{RESET}{description}{BOLD}{usage}{RESET}{rest}"
            f"\n{DIM}Built: {footer}{RESET}")


@pytest.mark.parametrize("option", ["--help", "-h"])
def test_the_help_in_a_pipe_is_plain(option):
    assert printed(option) == expected_help()


def test_the_help_on_a_terminal_is_coloured():
    assert printed_on_terminal("--help") == in_color(expected_help())


@pytest.mark.parametrize("value", ["1", ""])
@pytest.mark.parametrize("option", ["--help", "--list-config"])
def test_no_color_switches_colour_off_even_when_empty(option, value):
    assert printed_on_terminal(option, NO_COLOR=value) == printed(option)


def test_the_help_tells_the_configured_name_and_description(daemon):
    daemon.configure(app_name="my daemon", app_description="It does things")
    done = run_to_its_end("--help")
    assert "\nDescription:\n    It does things\nUsage: my daemon [OPTIONS]\n" in done.stdout


# -- the configuration --


def stored_fields(daemon):
    """The configuration as its file and the web interface tell it."""
    document = json.loads((CONFIG_DIR / "config.json").read_text())
    daemon.start()
    fields = daemon.get("/api/self/config").json()["fields"]
    assert daemon.stop() == 143
    assert len(fields) == len(document)
    for field in fields:
        stored = document[field["name"]]
        value = stored["default"] if stored["value"] is None else stored["value"]
        assert field["type_name"] == stored["type"] and field["current_value"] == str(value)
        assert field["is_default"] == (value == stored["default"])
        # The web has long ones cut.
        assert stored["description"].startswith(field["description"].removesuffix("..."))
        field["description"] = stored["description"]
    return fields


def test_the_stock_configuration_in_a_pipe():
    assert printed("--list-config") == (GOLDEN / "list_config.txt").read_text()
    # From the file that the first start has written, too.
    assert printed("--list-config") == (GOLDEN / "list_config.txt").read_text()


def test_the_configuration_is_that_of_the_file_and_of_the_web(daemon):
    daemon.configure(web_port=7080, client_name="here", heartbeat_interval_seconds=-7,
                     tunnel_addr="", advertise_addr="  two  blanks  ")
    listed = printed("--list-config")
    assert listed == config_table(stored_fields(daemon))
    assert "│ here " in listed and "│ -7 " in listed and "│ two blanks" in listed


def test_the_configuration_on_a_terminal_is_coloured(daemon):
    daemon.configure(client_name="here", web_port=7080, vnc_local_port=5901)
    shown = printed_on_terminal("--list-config")
    assert shown == config_table(stored_fields(daemon), in_color=True)
    assert f"{BOLD}here{RESET}" in shown and f"{BOLD}5901{RESET}" in shown
    assert f"{DIM}7080 [default]{RESET}" in shown


@pytest.mark.parametrize("name", [
    "Grüße-世界-" * 9, "Grüße 世界 " * 9, "ü" * 32, "ü" * 33, "🙂" * 65, "é" * 31 + " 世", "héllo"])
def test_the_table_is_straight_whatever_the_values_hold(daemon, name):
    daemon.configure(client_name=name)
    table = printed("--list-config")
    assert len({len(line) for line in table.splitlines()}) == 1
    assert table == config_table(stored_fields(daemon))


def test_listing_the_configuration_is_no_session():
    printed("--list-config")
    assert not session_lines(SESSIONS)


# -- bad options --


@pytest.mark.parametrize("arguments, code, complaint", [
    (["--nonsense"], 109, "The following argument was not expected: --nonsense"),
    (["--nonsense", "more"], 109, "The following arguments were not expected: more --nonsense"),
    (["word"], 109, "The following argument was not expected: word"),
    (["-x"], 109, "The following argument was not expected: -x"),
    (["--instance-policy"], 114, "--instance-policy: 1 required "
                                 "ENUM:value in {kill->2,wait->1,warn->0} OR {2,1,0} missing"),
    (["--instance-policy=end"], 105, "--instance-policy: Check end value in "
                                     "{kill->2,wait->1,warn->0} OR {2,1,0} FAILED"),
    (["--instance-policy", "3"], 105, "--instance-policy: Check 3 value in "
                                      "{kill->2,wait->1,warn->0} OR {2,1,0} FAILED")])
def test_a_bad_option_is_told_and_ends_the_start(arguments, code, complaint):
    done = run_to_its_end(*arguments)
    assert done.returncode == code
    assert done.stderr == f"{complaint}\nRun with --help for more information.\n"
    assert without_console_lines(done.stdout) == ""
    assert not session_lines(SESSIONS)


# -- options that go on --


def test_the_bus_report_changes_nothing(daemon):
    daemon.start(arguments=["--bus-report"])
    assert daemon.get("/api/packages").status == 200
    assert daemon.stop() == 143
    assert without_console_lines(daemon.output()) == ""
    assert session_lines(SESSIONS)[0]["args"] == "--bus-report"


@pytest.mark.parametrize("arguments", [["--verbose"], ["--verbose", "--bus-report"]])
def test_verbose_shows_every_line_of_the_log(daemon, arguments):
    daemon.start(arguments=arguments)
    assert daemon.stop() == 143
    lines = daemon.log().splitlines()
    assert len(lines) >= 5 and "session stop: " in lines[-1]
    assert daemon.output().splitlines() == lines


def test_without_verbose_the_console_shows_the_beginning_alone(daemon):
    daemon.start()
    assert daemon.stop() == 143
    assert without_console_lines(daemon.output()) == ""


def test_the_arguments_are_in_the_history(daemon):
    daemon.start(arguments=["--verbose", "--instance-policy", "warn"])
    assert session_lines(SESSIONS, daemon.pid)[0]["args"] == "--verbose|--instance-policy|warn"


# -- a start that fails --


PR_CAPBSET_DROP, CAP_SYS_ADMIN, CAP_SYS_RESOURCE = 24, 21, 24
NOBODY = 65534


def limit_threads(number):
    """To be called in the child. The limit holds for a user and not for root, so the process becomes
    another user's, with the rights of root but for those to exceed limits."""
    for capability in (CAP_SYS_ADMIN, CAP_SYS_RESOURCE):
        assert ctypes.CDLL(None).prctl(PR_CAPBSET_DROP, capability, 0, 0, 0) == 0
    if pathlib.Path("/proc/self/uid_map").read_text().split()[1] == "0":
        os.setresuid(NOBODY, -1, -1)
    resource.setrlimit(resource.RLIMIT_NPROC, (number, number))


@pytest.mark.parametrize("number", [1, 2])
def test_a_start_without_threads_fails_in_words(number):
    # The leak checker would want a thread of its own at the end.
    options = os.environ.get("ASAN_OPTIONS", "") + ":detect_leaks=0"
    done = run_to_its_end("--version", env={**os.environ, "ASAN_OPTIONS": options},
               preexec_fn=lambda: limit_threads(number))
    assert done.returncode == 1
    assert done.stderr == "Failed to start mirelclient: Resource temporarily unavailable\n"
    assert not re.search(r"^\d", done.stdout, re.MULTILINE)
    assert not session_lines(SESSIONS)
