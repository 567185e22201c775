"""The daemon's start, wait and stop."""
import json
import os
import pathlib
import signal
import socket
import subprocess

import pytest
from daemon import CONFIG_DIR, DAEMON_ROOT, DOWNLOADS, LOG_FILE, LOG_ROOT, MIRELCLIENT, STORE
from preloaded import preload
from programs import wait_until

SLEEP = "#!/bin/sh\nexec sleep 1000\n"


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGHUP])
def test_a_stop_signal_ends_it_with_its_number_and_128(daemon, number):
    daemon.start()
    assert daemon.stop(number) == 128 + number


def test_it_makes_its_folders(daemon):
    daemon.start()
    assert DOWNLOADS.is_dir() and (STORE / "store").is_dir()


def test_the_first_start_writes_no_configuration_and_the_second_does(daemon):
    daemon.start()
    assert not (CONFIG_DIR / "config.json").exists()
    assert "not found, created with defaults" in daemon.log()
    daemon.stop()
    daemon.start()
    document = json.loads((CONFIG_DIR / "config.json").read_text())
    assert len(document) == 18
    assert document["web_port"] == {"default": 7080, "type": "int", "value": None,
                                    "description": "Bind port for the built-in web dashboard/REST API"}


def test_the_lines_of_the_start_reach_the_log_file_in_order(daemon):
    daemon.start()
    log = daemon.log()
    assert log.index("Logger started, writing to console") < log.index("Redirecting log output to")
    assert log.index("Redirecting log output to") < log.index("Log output redirected here")
    assert f"Redirecting log output to '{LOG_FILE}'" in log


def test_the_configuration_stays_where_the_defaults_have_it(daemon):
    daemon.configure(app_dir=str(DAEMON_ROOT / "elsewhere"))
    daemon.start()
    assert (DAEMON_ROOT / "elsewhere/store/store").is_dir()
    assert not STORE.exists()
    daemon.post("/api/self/config", {"name": "client_name", "value": "moved"})
    assert json.loads((CONFIG_DIR / "config.json").read_text())["client_name"]["value"] == "moved"
    elsewhere = DAEMON_ROOT / "elsewhere/mirelclient"
    assert sorted(entry.name for entry in elsewhere.iterdir()) == ["crash.log", "sessions.log"]


def test_an_app_dir_with_quotes_and_blanks_is_one_folder(daemon):
    odd = DAEMON_ROOT / "it's $(touch /tmp/pwned) a \"dir\""
    daemon.configure(app_dir=str(odd))
    daemon.start()
    assert (odd / "downloads").is_dir()
    assert not pathlib.Path("/tmp/pwned").exists()


def test_without_its_log_folder_it_logs_below_tmp(daemon):
    LOG_ROOT.rmdir()
    LOG_ROOT.parent.rmdir()
    daemon.start()
    log = pathlib.Path("/tmp/mirelclient/app.log").read_text()
    assert f"Could not open '{LOG_FILE}' - falling back to '/tmp/mirelclient/app.log'" in log


def test_a_broken_configuration_is_healed_and_told(daemon):
    CONFIG_DIR.mkdir(parents=True)
    (CONFIG_DIR / "config.json").write_text("{ broken")
    daemon.start()
    log = daemon.log()
    assert "[WARNING]" in log
    assert f"config: '{CONFIG_DIR}/config.json' had 1 issue(s), healed:" in log
    assert "  - (file): malformed JSON (" in log
    assert daemon.get("/api/self/config").json()["fields"][11]["current_value"] == "7080"


def test_missing_fields_are_told_one_by_one(daemon):
    CONFIG_DIR.mkdir(parents=True)
    (CONFIG_DIR / "config.json").write_text("{}")
    daemon.start()
    assert "had 18 issue(s), healed:" in daemon.log()
    assert "  - web_port: missing from file, using default" in daemon.log()


def test_a_megabyte_of_brackets_as_configuration_is_healed(daemon):
    CONFIG_DIR.mkdir(parents=True)
    (CONFIG_DIR / "config.json").write_text("[" * (1 << 20))
    daemon.start()
    assert "had 1 issue(s), healed:" in daemon.log()


def test_verbose_shows_the_lines_of_the_file_on_the_console(daemon):
    daemon.start(arguments=["--verbose"])
    assert "Log output redirected here from a previous destination" in daemon.output()


def test_a_console_whose_reader_has_gone_does_not_end_the_daemon(daemon):
    reader, writer = os.pipe()
    daemon.process = subprocess.Popen([MIRELCLIENT, "--verbose"], stdin=subprocess.DEVNULL,
                                      stdout=writer, stderr=subprocess.STDOUT)
    os.close(writer)
    os.close(reader)
    daemon.wait_ready()
    assert "Log output redirected here" in daemon.log()
    assert daemon.stop() == 143


def test_a_package_does_not_inherit_ignored_signals(daemon):
    preload(daemon, "sleeper", SLEEP)
    daemon.start()
    daemon.wait_status("sleeper", "running")
    child, = daemon.children()
    own = os.readlink(f"/proc/{daemon.pid}/exe")
    wait_until(lambda: os.readlink(f"/proc/{child}/exe") != own, "the child has become the package's program")
    status = pathlib.Path(f"/proc/{child}/status").read_text()
    ignored = int(next(line for line in status.splitlines() if line.startswith("SigIgn:")).split()[1], 16)
    assert ignored & (1 << (signal.SIGPIPE - 1)) == 0


def test_a_taken_web_port_does_not_end_the_daemon(daemon):
    with socket.create_server(("127.0.0.1", 7080)):
        daemon.configure(web_addr="127.0.0.1")
        daemon.spawn()
        wait_until(lambda: "web server failed to start: bind() failed: Address already in use"
                   in daemon.log(), "the failure is logged")
    assert "mirelClient: web server failed to start: bind() failed: Address already in use" in daemon.output()
    daemon.wait_running()
    assert daemon.stop() == 143


def test_an_address_that_is_none_is_told(daemon):
    daemon.configure(web_addr="localhost")
    daemon.spawn()
    daemon_log = "web server failed to start: invalid bind address: localhost"
    wait_until(lambda: daemon_log in daemon.log(), "the failure is logged")
    daemon.wait_running()
    assert daemon.stop() == 143


def test_a_stop_leaves_the_packages_running_and_a_new_daemon_does_not_find_them(daemon):
    preload(daemon, "sleeper", SLEEP)
    daemon.start()
    daemon.wait_status("sleeper", "running")
    first, = daemon.children()
    assert daemon.stop() == 143
    os.kill(first, 0)
    daemon.start()
    daemon.wait_status("sleeper", "running")
    assert daemon.children() and first not in daemon.children()
    os.kill(first, 0)
    os.kill(first, signal.SIGKILL)


def test_a_stop_ends_a_request_that_waits_for_the_registry(daemon):
    with socket.create_server(("127.0.0.1", 7081)) as silent:
        daemon.configure(registry_url="http://127.0.0.1:7081")
        daemon.start()
        client = socket.create_connection(("127.0.0.1", 7080))
        client.sendall(b"GET /api/registry/packages HTTP/1.1\r\n\r\n")
        held, _ = silent.accept()
        assert daemon.stop() == 143
        held.close()
        client.close()


def test_a_stop_is_not_delayed_by_silent_connections(daemon):
    daemon.start()
    silent = [socket.create_connection(("127.0.0.1", 7080)) for _ in range(50)]
    silent[0].sendall(b"GET /api/pack")
    assert daemon.stop() == 143
    for connection in silent:
        connection.close()


def test_a_child_gets_three_descriptors_whatever_the_daemon_holds(daemon):
    preload(daemon, "sleeper", SLEEP)
    reader, writer = os.pipe()
    daemon.start(pass_fds=[reader, writer])
    silent = [socket.create_connection(("127.0.0.1", 7080)) for _ in range(20)]
    daemon.wait_status("sleeper", "running")
    for _ in range(2):
        child, = daemon.children()
        comm = pathlib.Path(f"/proc/{child}/comm")
        wait_until(lambda: comm.read_text() == "sleep\n", "the package has replaced its shell")
        # Its loader opens and closes libraries at first; what was inherited would stay.
        wait_until(lambda: sorted(os.listdir(f"/proc/{child}/fd")) == ["0", "1", "2"],
                   "the package has three descriptors")
        daemon.post("/api/packages/sleeper/restart")
    for connection in silent:
        connection.close()
    os.close(reader)
    os.close(writer)
