"""What ends the daemon, and when it may not."""
import os
import re
import signal

import pytest
from daemon import DAEMON_ROOT, SESSIONS, STORE
from programs import wait_until
from registry import entry, SLEEPER
from sessions import check_stop_line


@pytest.mark.parametrize("number, name", [(signal.SIGTERM, "Terminated"), (signal.SIGINT, "Interrupt"),
                                          (signal.SIGHUP, "Hangup")])
def test_the_session_tells_which_signal_ended_it(daemon, number, name):
    daemon.start()
    pid = daemon.pid
    assert daemon.stop(number) == 128 + number
    check_stop_line(SESSIONS, pid, f"signal: {name}")
    assert re.search(rf"session stop: pid={pid} duration_s=\d+ reason=signal: {name}\n", daemon.log())


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGHUP])
def test_a_parent_that_blocks_the_signals_does_not_make_it_deaf(daemon, number):
    daemon.start(preexec_fn=lambda: signal.pthread_sigmask(signal.SIG_BLOCK, [number]))
    assert daemon.stop(number) == 128 + number


def test_after_a_crash_a_stop_signal_ends_it(daemon):
    daemon.start()
    pid = daemon.pid
    daemon.crash()
    assert daemon.stop() == 143
    check_stop_line(SESSIONS, pid)


def test_a_signal_during_the_first_installs_does_not_cut_them_short(daemon, registry):
    """The start goes on; the first signal after it ends the daemon."""
    marker, gate = DAEMON_ROOT / "script-runs", DAEMON_ROOT / "gate"
    os.mkfifo(gate)
    blob = os.urandom(1 << 20) * 8
    registry.publish("new", files={"run": SLEEPER, "blob": blob,
                                   "install.sh": f"#!/bin/sh\n: >{marker}\ncat {gate}\n"})
    registry.serve()
    daemon.bootstrap([entry("new")], registry_url=registry.url)
    daemon.spawn()
    pid = daemon.pid
    wait_until(marker.exists, "install.sh is at work")
    os.kill(pid, signal.SIGTERM)
    gate.write_text("")
    daemon.wait_ready()
    assert daemon.status("new") == "running"
    child, = daemon.children()
    assert (STORE / "store/new/1.0.0/blob").read_bytes() == blob
    assert not (STORE / "store/new/1.0.0.staging").exists()
    assert daemon.stop() == 143
    os.kill(child, 0)
    check_stop_line(SESSIONS, pid)
