"""One daemon on a machine: what a second start finds, waits for or ends."""
import os
import pathlib
import re
import signal
import subprocess

import pytest
from daemon import Daemon, LOG_FILE, LOG_ROOT
from frame_program import FRAME_LOCK, frame_log, PROGRAM
from instance_lock import Gate, Holder, holder_text, instances, wait_until_it_waits_for_the_lock
from programs import BIN, DEADLINE, wait_until

MIRELCLIENT = BIN / "mirelclient"
LOCK = pathlib.Path("/tmp/mirelclient.lock")

WAIT = [["--instance-policy=wait"], ["--instance-policy", "wait"], ["--instance-policy=1"],
        ["--instance-policy", "1"]]
KILL = [["--instance-policy=kill"], ["--instance-policy", "kill"], ["--instance-policy=2"],
        ["--instance-policy", "2"]]
KILL_IN_ANY_CASE = [*KILL, ["--instance-policy=KILL"], ["--instance-policy", "Kill"]]


def run_to_its_end(*arguments):
    """A start that is to end by itself."""
    return subprocess.run([MIRELCLIENT, *arguments], capture_output=True, text=True, timeout=DEADLINE,
                          stdin=subprocess.DEVNULL)


def refusal(pid):
    return f'"mirelclient" is already running:\n{holder_text(pid, MIRELCLIENT)}\n'


@pytest.fixture
def second(tmp_path):
    daemon = Daemon(tmp_path / "second.out")
    yield daemon
    daemon.kill()


@pytest.fixture
def sleeper():
    """A process that has nothing to do with any of this."""
    process = subprocess.Popen(["sleep", "1000"])
    yield process
    process.kill()
    process.wait()


# -- no policy --


def test_a_second_start_is_refused_and_told_who_runs(daemon):
    daemon.start()
    done = run_to_its_end()
    assert (done.returncode, done.stdout, done.stderr) == (255, "", refusal(daemon.pid))


@pytest.mark.parametrize("arguments", [
    ["--instance-policy=warn"], ["--instance-policy", "0"], ["--instance-policy"],
    ["--help"], ["-h"], ["--version"], ["-v"], ["--list-config"], ["--verbose"], ["--no-such-option"]])
def test_whatever_it_is_started_for(daemon, arguments):
    daemon.start()
    done = run_to_its_end(*arguments)
    assert (done.returncode, done.stdout, done.stderr) == (255, "", refusal(daemon.pid))


def test_a_refused_start_leaves_the_log_files_as_they_are(daemon):
    LOG_FILE.parent.mkdir()
    LOG_FILE.write_text("an old line\n" * 100_000)
    daemon.start()
    wait_until(lambda: len(list(LOG_FILE.parent.iterdir())) == 2, "the log was rotated")
    daemon.get("/api/packages")

    def files():
        return {path: (path.read_bytes(), path.stat().st_mtime_ns, path.stat().st_ino)
                for path in LOG_ROOT.rglob("*") if path.is_file()}

    before = files()
    assert run_to_its_end("--verbose").returncode == 255
    assert files() == before
    assert not pathlib.Path("/tmp/mirelclient/app.log").exists()
    assert daemon.stop() == 143
    assert sum(path.read_text().count("Logger started") for path in before) == 1


def test_a_refused_start_has_no_session(daemon):
    daemon.start()
    before = daemon.sessions_log.read_bytes()
    assert run_to_its_end().returncode == 255
    assert daemon.sessions_log.read_bytes() == before


def test_the_lock_is_free_again_however_the_holder_ended(daemon):
    for end in [daemon.stop, daemon.kill, lambda: daemon.stop(signal.SIGINT)]:
        daemon.start()
        assert LOCK.read_text() == holder_text(daemon.pid, MIRELCLIENT)
        end()
        assert LOCK.is_file()


def test_of_ten_started_at_once_exactly_one_stays(frame):
    programs = [frame() for _ in range(10)]
    wait_until(lambda: sum(program.process.poll() is None for program in programs) == 1, "nine have ended")
    winner, = (program for program in programs if program.process.poll() is None)
    winner.wait_ready()
    assert FRAME_LOCK.read_text() == holder_text(winner.pid, PROGRAM)
    for program in programs:
        if program is not winner:
            assert program.wait() == 255
            assert program.stderr().startswith('"frame_app" is already running')
    assert winner.stop() == 143


# -- stale text and odd names --


@pytest.mark.parametrize("arguments", [[], *KILL])
def test_the_text_of_a_lock_that_nobody_holds_means_nothing(daemon, sleeper, arguments):
    LOCK.write_text(holder_text(sleeper.pid, "/bin/something/with/a/longer/name/than/the/daemon" * 10))
    daemon.start(arguments=arguments)
    assert LOCK.read_text() == holder_text(daemon.pid, MIRELCLIENT)
    assert sleeper.poll() is None


def test_a_name_with_a_blank_has_a_lock_file_without(daemon):
    daemon.configure(app_name="my own daemon")
    daemon.start()
    assert pathlib.Path("/tmp/my_own_daemon.lock").read_text() == holder_text(daemon.pid, MIRELCLIENT)
    done = run_to_its_end()
    assert (done.returncode, done.stderr) == (255, refusal(daemon.pid).replace("mirelclient", "my own daemon", 1))


@pytest.fixture
def directory_as_lock_file():
    FRAME_LOCK.unlink(missing_ok=True)
    FRAME_LOCK.mkdir()
    yield "Failed to open lock file /tmp/frame_app.lock: Is a directory\n"
    FRAME_LOCK.rmdir()


@pytest.mark.parametrize("arguments, middle", [
    ([], ""),
    (["--instance-policy=wait"],
     '"frame_app" is already running\nWaiting for it to exit...\n'
     "Failed to open lock file /tmp/frame_app.lock: Is a directory\n"),
    (["--instance-policy=kill"],
     "--instance-policy=kill: couldn't find a pid= line in the current holder's info, "
     "not killing anything:\n\n")])
def test_a_lock_file_that_cannot_be_opened_is_told(frame, directory_as_lock_file, arguments, middle):
    program = frame(*arguments)
    assert program.wait() == 255
    assert program.stderr() == directory_as_lock_file + middle + '"frame_app" is already running.\n'
    assert "[ERROR] " in frame_log() and directory_as_lock_file in frame_log()
    assert not program.sessions()


# -- the wait policy --


@pytest.mark.parametrize("arguments", WAIT)
def test_the_wait_policy_takes_over_when_the_first_stops(daemon, second, arguments):
    daemon.start()
    second.spawn(arguments=arguments)
    wait_until_it_waits_for_the_lock(second.pid)
    assert daemon.get("/api/self").status == 200
    assert second.process.poll() is None and second.output() == ""
    assert daemon.log().count("Logger started") == 1
    assert daemon.stop() == 143
    second.wait_ready()
    assert LOCK.read_text() == holder_text(second.pid, MIRELCLIENT)
    assert second.stop() == 143


def test_the_wait_policy_takes_over_from_one_that_was_killed(daemon, second):
    daemon.start()
    second.spawn(arguments=WAIT[0])
    wait_until_it_waits_for_the_lock(second.pid)
    daemon.kill()
    second.wait_ready()


def test_a_stop_signal_ends_one_that_waits(daemon, second):
    daemon.start()
    second.spawn(arguments=WAIT[0])
    wait_until_it_waits_for_the_lock(second.pid)
    assert second.stop() == -signal.SIGTERM
    assert daemon.get("/api/self").status == 200


# -- the kill policy --


@pytest.mark.parametrize("arguments", KILL)
def test_the_kill_policy_ends_the_first(daemon, second, arguments):
    daemon.start()
    first_pid = daemon.pid
    second.spawn(arguments=arguments)
    assert daemon.process.wait(DEADLINE) == 143
    second.wait_ready()
    assert instances(MIRELCLIENT) == {second.pid}
    assert LOCK.read_text() == holder_text(second.pid, MIRELCLIENT)
    assert "already running" not in second.output() and "terminating" not in second.output()
    sessions = second.sessions_log.read_text().splitlines()
    assert [line.split()[0] for line in sessions] == ["event=start", "event=stop", "event=start"]
    assert f" pid={first_pid} " in sessions[1] and sessions[1].endswith(" reason=signal: Terminated")


@pytest.mark.parametrize("arguments", [["--instance-policy=KILL"], ["--instance-policy", "KILL"],
                                       ["--instance-policy=Wait"]])
def test_a_policy_in_capitals_is_none_while_another_runs(daemon, arguments):
    daemon.start()
    done = run_to_its_end(*arguments)
    assert (done.returncode, done.stderr) == (255, refusal(daemon.pid))
    assert daemon.get("/api/self").status == 200


def test_a_policy_in_capitals_starts_where_nobody_runs(daemon):
    daemon.start(arguments=["--instance-policy=KILL"])
    assert daemon.stop() == 143


def test_a_first_one_that_does_not_listen_is_killed_after_a_grace(daemon, second):
    daemon.start()
    os.kill(daemon.pid, signal.SIGSTOP)
    second.spawn(arguments=KILL[0])
    assert daemon.process.wait(DEADLINE) == -signal.SIGKILL
    second.wait_ready()
    assert instances(MIRELCLIENT) == {second.pid}


# -- the second attempt: somebody else takes the lock between the first look and the attempt --


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
    entry = rf"^\[frame_app\] \[{level}\] \[[^\]]*\] {re.escape(text)}\n?(?=\[frame_app\]|\Z)"
    return re.search(entry, frame_log(), re.MULTILINE) is not None


@pytest.mark.parametrize("arguments", [[], ["--instance-policy=warn"]])
def test_one_that_was_overtaken_warns_and_ends(overtaken, arguments):
    program, holder = overtaken(*arguments)
    assert program.wait() == 255
    text = f'"frame_app" is already running:\n{holder.text}'
    assert program.stderr() == text + "\n"
    assert told_in_log("WARNING", text)
    assert holder.is_alive() and FRAME_LOCK.read_text() == holder.text
    assert not program.sessions() and program.starts() == 0


@pytest.mark.parametrize("arguments", [*WAIT, ["--instance-policy=WAIT"]])
def test_one_that_was_overtaken_waits(overtaken, arguments):
    program, holder = overtaken(*arguments)
    wait_until_it_waits_for_the_lock(program.pid)
    text = f'"frame_app" is already running:\n{holder.text}\nWaiting for it to exit...'
    assert program.stderr() == text + "\n"
    assert program.starts() == 0
    os.kill(holder.pid, signal.SIGTERM)
    program.wait_ready()
    assert told_in_log("WARNING", text)
    assert FRAME_LOCK.read_text() == holder_text(program.pid, PROGRAM)
    assert program.stop() == 143


@pytest.mark.parametrize("arguments", KILL_IN_ANY_CASE)
def test_one_that_was_overtaken_kills(overtaken, arguments):
    program, holder = overtaken(*arguments)
    assert holder.wait() == -signal.SIGTERM
    program.wait_ready()
    text = f"--instance-policy=kill: terminating pid {holder.pid} (was holding \"frame_app\"'s lock)"
    assert program.stderr() == text + "\n"
    assert told_in_log("WARNING", text)
    assert FRAME_LOCK.read_text() == holder_text(program.pid, PROGRAM)
    assert program.stop() == 143


def test_one_that_was_overtaken_kills_at_last_whoever_ignores_it(overtaken):
    program, holder = overtaken("--instance-policy=kill", ignores_sigterm=True)
    assert holder.wait() == -signal.SIGKILL
    program.wait_ready()
    texts = [f"--instance-policy=kill: terminating pid {holder.pid} (was holding \"frame_app\"'s lock)",
             f"--instance-policy=kill: pid {holder.pid} didn't exit within 3s of SIGTERM, sending SIGKILL",
             f'"frame_app" is already running:\n{holder.text}\nWaiting for it to exit...']
    assert program.stderr() == "".join(f"{text}\n" for text in texts)
    assert all(told_in_log("WARNING", text) for text in texts)
    assert FRAME_LOCK.read_text() == holder_text(program.pid, PROGRAM)


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
    assert program.wait() == 255
    error = (f"--instance-policy=kill: couldn't {complaint} the current holder's info, "
             f"not killing anything:\n{text}")
    refused = f'"frame_app" is already running:\n{text}' if text else '"frame_app" is already running.'
    assert program.stderr() == f"{error}\n{refused}\n"
    assert told_in_log("ERROR", error) and told_in_log("WARNING", refused)
    assert holder.is_alive() and sleeper.poll() is None


# -- instances side by side --


def test_a_suffix_makes_instances_of_their_own(frame):
    one, two = (frame(CONSOLE_APP_LOCK_SUFFIX=suffix).wait_ready() for suffix in ["one", "two"])
    locks = {one: pathlib.Path("/tmp/frame_app_one.lock"), two: pathlib.Path("/tmp/frame_app_two.lock")}
    for program, lock in locks.items():
        assert lock.read_text() == holder_text(program.pid, PROGRAM)
    again = frame(CONSOLE_APP_LOCK_SUFFIX="one")
    assert again.wait() == 255
    assert again.stderr() == f'"frame_app" is already running:\n{holder_text(one.pid, PROGRAM)}\n'
    for program, lock in locks.items():
        assert program.stop() == 143
        assert not lock.exists()


def test_without_a_suffix_the_lock_file_stays(frame):
    program = frame(CONSOLE_APP_LOCK_SUFFIX="").wait_ready()
    assert FRAME_LOCK.read_text() == holder_text(program.pid, PROGRAM)
    assert program.stop() == 143
    assert FRAME_LOCK.read_text() == holder_text(program.pid, PROGRAM)
