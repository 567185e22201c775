"""The second attempt at the instance lock: what one finds that somebody else overtook after the first."""
import os
import re
import signal

import pytest
from frame_app import FRAME_LOCK, frame_log, FRAME_PROGRAM
from instance_lock import Gate, Holder, holder_text, KILL, WAIT, wait_until_it_waits_for_the_lock


@pytest.fixture
def overtaken(frame, tmp_path):
    """Starts the application and a holder that is there first; returns both."""
    holders = []

    def start(*arguments, **holder):
        gate = Gate(tmp_path / "gate")
        program = frame(*arguments, FRAME_APP_PAUSE_BEFORE_SHELL=str(gate.path))
        gate.wait_for_program()
        holders.append(Holder(FRAME_LOCK, **holder))
        gate.open()
        return program, holders[-1]

    yield start
    for holder in holders:
        holder.end()


def told_in_log(level, text):
    """The whole text, however many lines, as one entry of the log."""
    entry = rf"^\[frame_app\] \[{level}\] \[[^\]]*\] \[console_app\] {re.escape(text)}\n?(?=\[frame_app\]|\Z)"
    return re.search(entry, frame_log(), re.MULTILINE) is not None


@pytest.mark.parametrize("arguments", [[], ["--instance-policy=warn"]])
def test_one_that_was_overtaken_warns_and_ends(overtaken, arguments):
    program, holder = overtaken(*arguments)
    assert program.wait_end() == 255
    text = f'"frame_app" is already running:\n{holder.text}'
    assert program.errors() == text + "\n"
    assert told_in_log("WARNING", text)
    assert holder.is_alive() and FRAME_LOCK.read_text() == holder.text
    assert not program.sessions() and program.starts() == 0


@pytest.mark.parametrize("arguments", [*WAIT, ["--instance-policy=WAIT"]])
def test_one_that_was_overtaken_waits(overtaken, arguments):
    program, holder = overtaken(*arguments)
    wait_until_it_waits_for_the_lock(program.pid)
    text = f'"frame_app" is already running:\n{holder.text}\nWaiting for it to exit...'
    assert program.errors() == text + "\n"
    assert program.starts() == 0
    os.kill(holder.pid, signal.SIGTERM)
    program.wait_ready()
    assert told_in_log("WARNING", text)
    assert FRAME_LOCK.read_text() == holder_text(program.pid, FRAME_PROGRAM)
    assert program.stop() == 143


@pytest.mark.parametrize("arguments", [*KILL, ["--instance-policy=KILL"], ["--instance-policy", "Kill"]])
def test_one_that_was_overtaken_kills(overtaken, arguments):
    program, holder = overtaken(*arguments)
    assert holder.wait() == -signal.SIGTERM
    program.wait_ready()
    text = f"--instance-policy=kill: terminating pid {holder.pid} (was holding \"frame_app\"'s lock)"
    assert program.errors() == text + "\n"
    assert told_in_log("WARNING", text)
    assert FRAME_LOCK.read_text() == holder_text(program.pid, FRAME_PROGRAM)
    assert program.stop() == 143


def test_one_that_was_overtaken_kills_at_last_whoever_ignores_it(overtaken):
    program, holder = overtaken("--instance-policy=kill", ignores_sigterm=True)
    assert holder.wait() == -signal.SIGKILL
    program.wait_ready()
    texts = [f"--instance-policy=kill: terminating pid {holder.pid} (was holding \"frame_app\"'s lock)",
             f"--instance-policy=kill: pid {holder.pid} didn't exit within 3s of SIGTERM, sending SIGKILL",
             f'"frame_app" is already running:\n{holder.text}\nWaiting for it to exit...']
    assert program.errors() == "".join(f"{text}\n" for text in texts)
    assert all(told_in_log("WARNING", text) for text in texts)
    assert FRAME_LOCK.read_text() == holder_text(program.pid, FRAME_PROGRAM)


@pytest.mark.parametrize("text, complaint", [
    ("path=/bin/holder\nuser=nobody\n", "find a pid= line in"),
    ("somebody", "find a pid= line in"),
    ("", "find a pid= line in"),
    ("pid=\npath=/bin/holder\n", "parse a pid from"),
    ("pid=many\n", "parse a pid from"),
    ("pid=0\n", "parse a pid from"),
    ("pid=-1\n", "parse a pid from"),
    ("pid=99999999999999999999\n", "parse a pid from")])
def test_one_that_was_overtaken_by_a_nameless_one_kills_nobody(overtaken, sleeper, text, complaint):
    program, holder = overtaken("--instance-policy=kill", text=text)
    assert program.wait_end() == 255
    error = (f"--instance-policy=kill: couldn't {complaint} the current holder's info, "
             f"not killing anything:\n{text}")
    refused = f'"frame_app" is already running:\n{text}' if text else '"frame_app" is already running.'
    assert program.errors() == f"{error}\n{refused}\n"
    assert told_in_log("ERROR", error) and told_in_log("WARNING", refused)
    assert holder.is_alive() and sleeper.poll() is None
